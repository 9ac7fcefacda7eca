#pragma once

// An open descriptor of the host, and what keeps descriptors of ours from bearing the numbers of the standard streams:
// a program may have closed these, and what it prints must not end up in a file of ours.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace zr {

class HostFd {
public:
    HostFd() noexcept = default;
    explicit HostFd(int fd) noexcept : fd_(fd) {}
    HostFd(HostFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    HostFd& operator=(HostFd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~HostFd() {
        if (fd_ >= 0) ::close(fd_);
    }

    explicit operator bool() const noexcept { return fd_ >= 0; }
    int get() const noexcept { return fd_; }

    // Some file systems report only now that what was written could not be kept. 0, or -1 with errno.
    int close() noexcept { return ::close(std::exchange(fd_, -1)); }
    [[nodiscard]] int detach() noexcept { return std::exchange(fd_, -1); }

private:
    int fd_ = -1;
};

// `made` is a descriptor that a call has just returned, or -1 with errno. The same file under a number from `least` on,
// or, where the process may have no such number, under one from 3 on. Takes the descriptor over; -1 with errno.
inline int moved_above(int made, int least) noexcept {
    if (made < 0 || made >= least) return made;
    int kept = fcntl(made, F_DUPFD_CLOEXEC, least);
    if (kept < 0 && least > STDERR_FILENO + 1) kept = fcntl(made, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    ::close(made);
    errno = error;
    return kept;
}

// The same under a number from 3 on.
inline int above_standard(int made) noexcept {
    return moved_above(made, STDERR_FILENO + 1);
}

// open(2), closed on exec, under a number from 3 on. Empty with errno.
inline HostFd open_host(const char* path, int flags, mode_t mode = 0) noexcept {
    return HostFd(above_standard(::open(path, flags | O_CLOEXEC, mode)));
}

}  // namespace zr
