#pragma once

// What zr watch can watch.

#include <platform/types.h>

#include <memory>
#include <string>
#include <vector>

namespace zr {

// Something that changes. Its changes come by an event, or by window messages of the thread that made it.
class Watched {
public:
    Watched() = default;
    virtual ~Watched() = default;
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;

    // Set, and reset by whoever waits for it, when there is something to report; NULL for what comes by messages.
    virtual HANDLE event() const { return nullptr; }
    // Prints what changed. Called after the event was set.
    virtual void report() {}
};

// The device's clock and time zone; prints at once what they are. Throws Failure when they cannot be watched.
std::unique_ptr<Watched> watch_clock(bool json);

// What happens to the files and folders in these folders; with an extension (NULL: any) only to names that have it.
// Throws Failure when a folder cannot be watched.
std::unique_ptr<Watched> watch_folders(const std::vector<std::string>& folders, const std::string* extension,
                                       bool json);

}  // namespace zr
