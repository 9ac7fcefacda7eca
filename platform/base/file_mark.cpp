#include "base/file_mark.h"

#include <fcntl.h>
#include <signal.h>

namespace zr::platform {

// The signal that would tell of the file, were any asked for: the last ones nobody else has a use for.
void mark_file(int fd, int mark) noexcept {
    fcntl(fd, F_SETSIG, SIGRTMAX - mark);
}

bool has_mark(int fd, int mark) noexcept {
    return fcntl(fd, F_GETSIG) == SIGRTMAX - mark;
}

}  // namespace zr::platform
