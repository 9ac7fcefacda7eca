#pragma once

// A kernel's queue of folder notifications as short as it can be, for tests of what is done about lost ones.

#include <filesystem>
#include <fstream>
#include <system_error>

namespace zr::test {

inline constexpr const char* kQueueLimit = "/proc/sys/fs/inotify/max_queued_events";

// How many notifications the kernel keeps for one descriptor that is made now; 0 where it does not say.
inline int queue_length() {
    int length = 0;
    std::ifstream(kQueueLimit) >> length;
    return length;
}

// How many queues this process has: one that it has already stays as long as it was.
inline int queues_of_process() {
    int count = 0;
    for (const auto& file : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(file.path(), gone) == "anon_inode:inotify") ++count;
    }
    return count;
}

// The kernel's limit is for the whole machine, so it is small only while the process asks for its queue. False where
// it cannot be changed.
class SmallQueue {
public:
    SmallQueue() : before_(queue_length()) { changed_ = set(2); }
    ~SmallQueue() {
        if (changed_) set(before_);
    }
    SmallQueue(const SmallQueue&) = delete;
    SmallQueue& operator=(const SmallQueue&) = delete;

    explicit operator bool() const { return changed_; }

private:
    static bool set(int length) {
        std::ofstream file(kQueueLimit);
        file << length << std::flush;
        return file.good();
    }
    const int before_;
    bool changed_ = false;
};

}  // namespace zr::test
