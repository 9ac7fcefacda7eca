#pragma once

// A process may have a limit for the size of files (RLIMIT_FSIZE). Writing past it raises SIGXFSZ, which ends a program
// that knows nothing of it. While one of these lives, calls of this thread that write fail with EFBIG instead, and
// nothing else happens: how the process treats the signal is not touched, nor is one that somebody else sent. Costs a
// system call where there is no limit; one within another costs nothing.

#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <time.h>

#include <cerrno>

namespace zr {

class WithinSizeLimit {
public:
    WithinSizeLimit() noexcept {
        if (depth_++ != 0) return;
        rlimit limit{};
        limited_ = getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY;
        if (!limited_) return;
        sigset_t pending;
        sigemptyset(&signal_);
        sigaddset(&signal_, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &signal_, &before_);
        sigpending(&pending);
        waited_ = sigismember(&pending, SIGXFSZ) == 1;
    }
    ~WithinSizeLimit() {
        --depth_;
        if (!limited_) return;
        constexpr timespec kNow{};
        const int error = errno;
        if (!waited_) sigtimedwait(&signal_, nullptr, &kNow);
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
        errno = error;
    }
    WithinSizeLimit(const WithinSizeLimit&) = delete;
    WithinSizeLimit& operator=(const WithinSizeLimit&) = delete;

private:
    static inline thread_local int depth_ = 0;

    sigset_t signal_;
    sigset_t before_;
    bool limited_ = false;
    bool waited_ = false;  // one was pending already
};

}  // namespace zr
