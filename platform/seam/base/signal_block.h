#pragma once

// Signals are the program's own threads' business: a thread that is started while one of these lives takes none, but
// for those that a fault of its own raises: the host would end the process there and then if they were blocked.

#include <pthread.h>
#include <signal.h>

namespace zr::platform {

class SignalBlock {
public:
    SignalBlock() noexcept {
        sigset_t all;
        sigfillset(&all);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
            sigdelset(&all, fault);
        }
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

private:
    sigset_t before_;
};

}  // namespace zr::platform
