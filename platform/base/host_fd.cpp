#include "base/host_fd.h"

#include <cerrno>

namespace zr::platform {

int above_standard(int fd) noexcept {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    ::close(fd);
    errno = error;
    return moved;
}

}  // namespace zr::platform
