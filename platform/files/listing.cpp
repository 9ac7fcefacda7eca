#include "listing.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/host_fd.h"

namespace zr::platform {

Listing::~Listing() {
    if (fd_ >= 0) close(fd_);
}

int Listing::open(const char* path) {
    return open(AT_FDCWD, path);
}

int Listing::open(int folder, const char* name) {
    fd_ = above_standard(openat(folder, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd_ >= 0 ? 0 : errno;
}

bool Listing::may_enter() const {
    struct stat unused;
    return fstatat(fd_, ".", &unused, 0) == 0;
}

const RawEntry* Listing::next(int& error) {
    while (true) {
        if (at_ >= size_ && !refill(error)) return nullptr;
        const auto* entry = reinterpret_cast<const RawEntry*>(buffer_ + at_);
        at_ += entry->length;
        const char* name = entry->name;
        if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
        return entry;
    }
}

bool Listing::refill(int& error) {
    const long got = syscall(SYS_getdents64, fd_, buffer_, sizeof buffer_);
    // A folder that was removed meanwhile has no more entries.
    if (got < 0 && errno != ENOENT) error = errno;
    if (got <= 0) return false;
    at_ = 0;
    size_ = static_cast<std::size_t>(got);
    return true;
}

}  // namespace zr::platform
