#include "base/file_mark.h"

#include <fcntl.h>
#include <signal.h>

#include <atomic>
#include <cerrno>

namespace zr::platform {
namespace {

// A host that keeps no such signals, as some that emulate one do not, does not tell a program's file from ours either.
constinit std::atomic<bool> are_kept{true};

// The signal that would tell of the file, were any asked for: nearly the last ones, which nobody else has a use for.
// Emulators need the last two themselves.
int signal_of(int mark) {
    return SIGRTMAX - 2 - mark;
}

}  // namespace

void mark_file(int fd, int mark) noexcept {
    const bool kept = fcntl(fd, F_SETSIG, signal_of(mark)) == 0 || errno == EBADF;
    if (!kept) are_kept.store(false, std::memory_order_relaxed);
}

bool has_mark(int fd, int mark) noexcept {
    if (!are_kept.load(std::memory_order_relaxed)) return fcntl(fd, F_GETFD) >= 0;
    return fcntl(fd, F_GETSIG) == signal_of(mark);
}

}  // namespace zr::platform
