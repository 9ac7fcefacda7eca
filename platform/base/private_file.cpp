#include "base/private_file.h"
#include "base/size_limit.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/host_fd.h"

namespace zr::platform {
namespace {

constexpr mode_t kPrivate = 0600;
constexpr mode_t kForOthers = 0077;
constexpr mode_t kWrittenByOthers = S_IWGRP | S_IWOTH;

int check(const struct stat& status) {
    if (!S_ISREG(status.st_mode)) return S_ISDIR(status.st_mode) ? EISDIR : EACCES;
    return status.st_uid == geteuid() && (status.st_mode & kWrittenByOthers) == 0 ? 0 : EACCES;
}

int examine(int descriptor, off_t size) {
    struct stat status = {};
    if (fstat(descriptor, &status) != 0) return errno;
    if (const int error = check(status); error != 0) return error;
    if ((status.st_mode & kForOthers) != 0 && fchmod(descriptor, kPrivate) != 0) return errno;
    if (status.st_size >= size) return 0;
    const WithinSizeLimit no_signal;
    return posix_fallocate(descriptor, 0, size);
}

}  // namespace

int open_private_file(const std::string& path, off_t size, int* descriptor) noexcept {
    constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK;
    HostFd file = open_host(path.c_str(), kFlags);
    if (!file && errno == ENOENT) file = open_host(path.c_str(), kFlags | O_CREAT, kPrivate);
    if (!file) return errno;
    const int error = examine(file.get(), size);
    if (error == 0 && descriptor != nullptr) *descriptor = file.detach();
    return error;
}

int check_private_file(const std::string& path) noexcept {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) return errno;
    return check(status);
}

std::string file_trouble(const std::string& path, int error) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) == 0) {
        if (S_ISLNK(status.st_mode)) return "is a symbolic link";
        if (!S_ISREG(status.st_mode)) return "is not a plain file";
        if (status.st_uid != geteuid()) return "belongs to another user (" + std::to_string(status.st_uid) + ")";
        if (error == EACCES && (status.st_mode & kWrittenByOthers) != 0)
            return "can be written by other users, so what is in it may be anybody's; take that right away (chmod "
                   "go-w) "
                   "if it is not";
    }
    return strerror(error);
}

}  // namespace zr::platform
