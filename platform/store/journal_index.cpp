#include "store/journal_index.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>

#include "base/file_lock.h"
#include "base/host_fd.h"

namespace zr::platform {
namespace {

constexpr std::size_t kIndexSize = JournalIndex::kRegionSize * JournalIndex::kRegions;
constexpr std::size_t kIndexHeaders = 96;  // there are two, which are equal when they are right
// The byte of NAME-shm that everybody locks who has the store open (https://sqlite.org/walformat.html).
constexpr off_t kOpenByte = 128;
constexpr std::chrono::seconds kIndexPatience{5};

// The file that is locked while the memory is looked for or made. Nobody needs it for longer.
class IndexLock {
public:
    IndexLock(const std::string& store, unsigned long long number) {
        char end[32];
        std::snprintf(end, sizeof end, "-index-%llx", number);
        path_ = store + end;
    }
    ~IndexLock() {
        if (taken_) unlink(path_.c_str());
    }
    IndexLock(const IndexLock&) = delete;
    IndexLock& operator=(const IndexLock&) = delete;

    int take() noexcept {
        const int error = lock_.take(path_.c_str(), FileLock::Missing::IsMade);
        taken_ = error == 0;
        return error;
    }
    const FileLock& lock() const noexcept { return lock_; }

private:
    std::string path_;
    FileLock lock_;
    bool taken_ = false;
};

// Called while this process has no lock there: closing the file would give it back.
bool is_open_somewhere(const char* path) noexcept {
    const HostFd file = open_host(path, O_RDWR | O_NOFOLLOW);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = kOpenByte;
    lock.l_len = 1;
    return file && fcntl(file.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

// A process that is killed loses the memory a moment before its locks.
int wait_until_closed(const std::string& store) {
    const std::string path = store + "-shm";
    const auto until = std::chrono::steady_clock::now() + kIndexPatience;
    while (is_open_somewhere(path.c_str())) {
        if (std::chrono::steady_clock::now() >= until) return ETIMEDOUT;
        poll(nullptr, 0, 1);
    }
    return 0;
}

}  // namespace

int JournalIndex::attach(const char* path, unsigned long long number, const std::function<bool(bool)>& lock) noexcept {
    try {
        IndexLock files(path, number);
        int error = files.take();
        if (error == 0) error = memory_.find(files.lock(), kIndexSize);
        const bool is_first = error == ENOENT;
        if (is_first) error = wait_until_closed(path);
        if (error == 0 && !lock(is_first)) error = EBUSY;
        if (error == 0 && is_first) error = memory_.make(files.lock(), kIndexSize);
        if (error == 0) error = memory_.keep_from_children(kIndexSize);
        return error;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

void JournalIndex::clear() const noexcept {
    std::memset(region(0), 0, kIndexHeaders);
}

void JournalIndex::disturb(const std::string& path, unsigned long long number) noexcept {
    try {
        IndexLock files(path, number);
        SharedMemory memory;
        if (files.take() != 0 || memory.find(files.lock(), kIndexSize) != 0) return;
        char noise[kIndexHeaders];
        if (getrandom(noise, sizeof noise, 0) == sizeof noise) std::memcpy(memory.data(), noise, sizeof noise);
    } catch (const std::bad_alloc&) {
    }
}

}  // namespace zr::platform
