#include "zr/base/interruption.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

namespace zr {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM};

std::atomic<int> asked_by{0};
std::atomic<int> told{-1};

extern "C" void ask_to_end(int signal) {
    const int error = errno;
    asked_by = signal;
    ::eventfd_write(told, 1);
    errno = error;
}

}  // namespace

Interruption::Interruption() : fd_(::eventfd(0, EFD_CLOEXEC)) {
    asked_by = 0;
    told = fd_;
    struct sigaction action = {};
    action.sa_handler = &ask_to_end;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
    for (const int signal : kSignals) {
        // What the user wants ignored, as nohup does, stays so.
        struct sigaction before = {};
        if (::sigaction(signal, nullptr, &before) == 0 && before.sa_handler != SIG_IGN) {
            ::sigaction(signal, &action, nullptr);
        }
    }
}

Interruption::~Interruption() {
    for (const int signal : kSignals) {
        struct sigaction now = {};
        if (::sigaction(signal, nullptr, &now) == 0 && now.sa_handler == &ask_to_end) ::signal(signal, SIG_DFL);
    }
    told = -1;
    if (fd_ >= 0) ::close(fd_);
}

bool Interruption::asked() const {
    return asked_by != 0;
}

void Interruption::end() const {
    const int signal = asked_by;
    ::signal(signal, SIG_DFL);
    ::raise(signal);
    std::_Exit(128 + signal);  // it is blocked
}

ReadFunction read_until(int fd, int stop, int other_stop) {
    return [read = read_from_descriptor(fd), fd, stop, other_stop](char* buffer, std::size_t size) -> ssize_t {
        pollfd ready[] = {{fd, POLLIN, 0}, {stop, POLLIN, 0}, {other_stop, POLLIN, 0}};
        while (::poll(ready, 3, -1) < 0) {
            if (errno != EINTR) return -1;
        }
        return ready[1].revents != 0 || ready[2].revents != 0 ? 0 : read(buffer, size);
    };
}

}  // namespace zr
