#pragma once

#include <fcntl.h>
#include <unistd.h>

#include "base/host_fd.h"

namespace zr::platform {

// Where the program has closed its standard streams their numbers are taken while this lives, so that a connection that
// a library makes meanwhile gets none of them: what the program prints must not end up there.
class StandardStreams {
public:
    StandardStreams() noexcept {
        for (HostFd& each : taken_) {
            each = HostFd(::open("/dev/null", O_RDWR | O_CLOEXEC));
            if (each.get() > STDERR_FILENO) break;
        }
    }

private:
    HostFd taken_[STDERR_FILENO + 2];
};

}  // namespace zr::platform
