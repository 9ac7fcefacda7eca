#pragma once

// An open file descriptor of the host.

#include <unistd.h>

#include <utility>

namespace zr::platform {

class HostFile {
public:
    HostFile() = default;
    explicit HostFile(int fd) : fd_(fd) {}
    HostFile(HostFile&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    HostFile& operator=(HostFile&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~HostFile() {
        if (fd_ >= 0) ::close(fd_);
    }

    explicit operator bool() const { return fd_ >= 0; }
    int get() const { return fd_; }

    // Some file systems report only now that what was written could not be kept. 0, or -1 with errno.
    int close() { return ::close(std::exchange(fd_, -1)); }

private:
    int fd_ = -1;
};

}  // namespace zr::platform
