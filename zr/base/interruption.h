#pragma once

// Ending in good order when the user has had enough: what was begun is finished, and the program says how far it came.

#include "zr/base/line_reader.h"

namespace zr {

// While there is one, the first SIGINT or SIGTERM only asks to end; the next one ends the program. One at a time.
class Interruption {
public:
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    bool asked() const;
    int descriptor() const { return fd_; }  // readable once it was asked for; -1 when there is none
    // Ends the program as the signal would have.
    [[noreturn]] void end() const;

private:
    int fd_;
};

// Reads from a descriptor until there is nothing more, or until one of `stops` becomes readable, which looks like the
// end. Those that are -1 never do.
ReadFunction read_until(int fd, int stop, int other_stop = -1);

}  // namespace zr
