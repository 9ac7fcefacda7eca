#pragma once

// What zr watch can watch.

#include <platform/types.h>

#include <memory>
#include <string>
#include <vector>

#include "zr/commands/file_change.h"

namespace zr {

// Something that changes. Its changes come by events, or by window messages of the thread that made it.
class Watched {
public:
    Watched() = default;
    virtual ~Watched() = default;
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;

    // Each is set when there is something to report, and reset by whoever waits for it or by report().
    virtual std::vector<HANDLE> events() const { return {}; }
    // Prints what changed. Called after the event was set.
    virtual void report(HANDLE event) = 0;
};

// The device's clock and time zone; prints at once what they are. Throws Failure when they cannot be watched.
std::unique_ptr<Watched> watch_clock(bool json);

// What happens to the files and folders in these folders, and with `below` in all folders in them; with an extension
// only to names that have it. Complains when a folder is no longer there. `options` must outlive it. Throws Failure
// when a folder cannot be watched.
std::unique_ptr<Watched> watch_folders(const FolderWatchOptions& options);
std::unique_ptr<Watched> watch_trees(const FolderWatchOptions& options);

// Why a folder cannot be watched, or is not watched any more, for people.
std::string why_not_watched(DWORD error);

}  // namespace zr
