#pragma once

// Signals are the program's own threads' business: a thread that is started while one of these lives takes none.

#include <pthread.h>
#include <signal.h>

namespace zr::platform {

class SignalBlock {
public:
    SignalBlock() noexcept {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

private:
    sigset_t before_;
};

}  // namespace zr::platform
