#pragma once

// The cards of a file, read ahead by a thread of its own while the caller stores the ones before.
//
//   CardStream cards(fd);
//   CardStream::Part part;
//   while (cards.next(part)) { ... }
//
// Memory is bound: the thread waits when a few parts wait for the caller. For one thread at a time.

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "zr/base/line_reader.h"
#include "zr/vcard/card.h"
#include "zr/vcard/reader.h"

namespace zr {

class CardStream {
public:
    // What was found wrong in one card.
    struct Note {
        std::vector<Problem> problems;
        bool left_out;  // the whole card
    };
    struct Part {
        std::vector<Card> cards;
        std::vector<Note> notes;
        std::uint64_t bytes_read = 0;  // of the file, up to here
    };

    // The caller keeps both open as long as this. What can be read ends when `end` becomes readable; -1: at the end.
    explicit CardStream(int fd, int end = -1);
    // Ends the thread, also while it waits for input that does not come.
    ~CardStream();
    CardStream(const CardStream&) = delete;
    CardStream& operator=(const CardStream&) = delete;

    // The next cards in the file's order; false at its end. Throws what reading threw.
    bool next(Part& part);
    // After the end: errno of a failed read, else 0.
    int error() const { return lines_.error(); }

private:
    static constexpr std::size_t kPartCards = 250;
    static constexpr std::size_t kPartBytes = std::size_t{1} << 20;
    static constexpr std::size_t kParts = 4;

    void run();
    bool read(Part& part);

    int stop_;  // readable when the thread is to end; -1 where there is none
    LineReader lines_;
    CardReader reader_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Part> parts_;
    bool at_end_ = false;
    bool stopping_ = false;
    std::exception_ptr failure_;
    std::thread thread_;  // not there when none could be started; then next() reads
};

}  // namespace zr
