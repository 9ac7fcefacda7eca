#pragma once

// An open descriptor of the host.

#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include "platform/export.h"

namespace zr::platform {

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

// The same file under a number from 3 on: a program may have closed its standard streams, and what it prints must not
// end up in a file of ours. Takes the descriptor over; -1 with errno when there is none, or no more of them.
ZRPLATFORM_API int above_standard(int fd) noexcept;

// open(2), closed on exec, under a number from 3 on. Empty with errno.
inline HostFd open_host(const char* path, int flags, mode_t mode = 0) noexcept {
    return HostFd(above_standard(::open(path, flags | O_CLOEXEC, mode)));
}

}  // namespace zr::platform
