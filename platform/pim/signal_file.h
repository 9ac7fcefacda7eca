#pragma once

// The small file through which the processes that share a store wake each other.
//
// A writer touches it after its commit. Watchers are told of that by the kernel, and also when a writer's descriptor
// is closed: so a change whose writer was killed between commit and touch is noticed as well.
//
// It also holds, per process that watches, how far in the change log that process has got, so that no writer prunes
// what somebody still has to report. A place belongs to who holds a lock on it, which ends with the process.

#include <atomic>
#include <string>

#include "platform/types.h"

namespace zr::platform::pim {

class SignalFile {
public:
    SignalFile() = default;
    ~SignalFile();
    SignalFile(const SignalFile&) = delete;
    SignalFile& operator=(const SignalFile&) = delete;

    HRESULT open(const std::string& path);
    const std::string& path() const { return path_; }
    void touch();

    // Takes a place, with a position that holds back all pruning until set_position.
    HRESULT claim();
    void set_position(LONGLONG seq);
    void give_up();
    // The lowest position of any watcher; `none` when there is none.
    LONGLONG oldest_position(LONGLONG none) const;

private:
    static constexpr int kPlaces = 480;
    struct Page {
        std::atomic<LONGLONG> touches;
        std::atomic<LONGLONG> reserved[31];
        std::atomic<LONGLONG> positions[kPlaces];
    };
    static_assert(sizeof(Page) == 4096);

    bool lock_place(int place, short kind) const;

    std::string path_;
    int file_ = -1;
    Page* page_ = nullptr;
    int place_ = -1;
};

}  // namespace zr::platform::pim
