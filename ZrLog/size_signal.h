#pragma once

// Writing past the process's limit for files raises SIGXFSZ, which ends a program that knows nothing of it. While one
// of these lives the calling thread takes that signal as what it also is, an error of the call (EFBIG). How the process
// treats the signal otherwise is not touched.

#include <signal.h>
#include <time.h>

namespace zr::log {

class SizeSignal {
public:
    SizeSignal() noexcept {
        sigset_t pending;
        sigemptyset(&signal_);
        sigaddset(&signal_, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &signal_, &before_);
        sigpending(&pending);
        waiting_ = sigismember(&pending, SIGXFSZ) == 1;
    }
    ~SizeSignal() {
        constexpr timespec kNow{};
        if (!waiting_) sigtimedwait(&signal_, nullptr, &kNow);
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    SizeSignal(const SizeSignal&) = delete;
    SizeSignal& operator=(const SizeSignal&) = delete;

private:
    sigset_t signal_;
    sigset_t before_;
    bool waiting_ = false;  // one that was somebody else's
};

}  // namespace zr::log
