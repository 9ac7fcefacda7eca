#include "kernel/mapped_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <mutex>
#include <new>

#include "at_fork.h"
#include "base/host_error.h"
#include "base/size_limit.h"
#include "futex.h"
#include "platform/errors.h"

namespace zr::platform {

struct MappedFileHold::File {
    dev_t device;
    ino_t inode;
    std::size_t holds;
    File* next;
};

// All of them, under the lock.
struct MappedFiles {
    static inline FutexLock lock;
    static inline MappedFileHold::File* first = nullptr;

    static MappedFileHold::File* find(dev_t device, ino_t inode) noexcept {
        MappedFileHold::File* file = first;
        while (file && (file->inode != inode || file->device != device))
            file = file->next;
        return file;
    }
    static void forget(const MappedFileHold::File* file) noexcept {
        MappedFileHold::File** link = &first;
        while (*link != file)
            link = &(*link)->next;
        *link = file->next;
    }
};

MappedFileHold::MappedFileHold(dev_t device, ino_t inode) noexcept {
    const std::lock_guard guard(MappedFiles::lock);
    file_ = MappedFiles::find(device, inode);
    if (!file_) {
        file_ = new (std::nothrow) File{device, inode, 0, MappedFiles::first};
        if (!file_) return;
        MappedFiles::first = file_;
    }
    ++file_->holds;
}

MappedFileHold::MappedFileHold(const MappedFileHold& other) noexcept : file_(other.file_) {
    if (!file_) return;
    const std::lock_guard guard(MappedFiles::lock);
    ++file_->holds;
}

MappedFileHold::~MappedFileHold() {
    if (!file_) return;
    const std::lock_guard guard(MappedFiles::lock);
    if (--file_->holds != 0) return;
    MappedFiles::forget(file_);
    delete file_;
}

bool is_mapped(dev_t device, ino_t inode) noexcept {
    const std::lock_guard guard(MappedFiles::lock);
    return MappedFiles::find(device, inode) != nullptr;
}

DWORD set_file_size(int file, std::uint64_t size) noexcept {
    if (size > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) return ERROR_INVALID_PARAMETER;
    struct stat now {};
    if (fstat(file, &now) != 0) return error_from_errno(errno);
    // Who maps the file looks at its size after it has its hold, so that nobody maps what is about to go.
    const std::lock_guard guard(MappedFiles::lock);
    const bool shorter = size < static_cast<std::uint64_t>(now.st_size);
    if (shorter && MappedFiles::find(now.st_dev, now.st_ino)) return ERROR_USER_MAPPED_FILE;
    const WithinSizeLimit no_signal;
    return ftruncate(file, static_cast<off_t>(size)) == 0 ? ERROR_SUCCESS : room_error(errno);
}

void at_fork::lock_mapped_files() noexcept {
    MappedFiles::lock.lock();
}

void at_fork::unlock_mapped_files() noexcept {
    MappedFiles::lock.unlock();
}

}  // namespace zr::platform
