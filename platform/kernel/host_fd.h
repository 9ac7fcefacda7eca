#pragma once

// An open descriptor of the host.

#include <unistd.h>

#include <utility>

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
        if (fd_ >= 0) close(fd_);
    }

    explicit operator bool() const noexcept { return fd_ >= 0; }
    int get() const noexcept { return fd_; }

private:
    int fd_ = -1;
};

}  // namespace zr::platform
