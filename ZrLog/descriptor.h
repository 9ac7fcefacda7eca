#pragma once

// A log's descriptors never bear the numbers of the standard streams: a program that runs without some of these would
// print into the log.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace zr::log {

// `made` is a descriptor that a call has just returned, or -1 with errno. The same one, or, when its number is a
// stream's, another one for it, with the first closed. -1 with errno when there is none.
inline int above_standard(int made) noexcept {
    if (made < 0 || made > STDERR_FILENO) return made;
    const int kept = fcntl(made, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    close(made);
    errno = error;
    return kept;
}

}  // namespace zr::log
