#include "kernel/worker.h"

#include <pthread.h>

#include "base/forks.h"
#include "base/signal_block.h"
#include "futex.h"

namespace zr::platform {

namespace {

constinit thread_local bool has_left = false;

}  // namespace

void* Worker::run(void* argument) {
    Worker& self = *static_cast<Worker*>(argument);
    pthread_setname_np(pthread_self(), self.name_);
    self.body_(self.context_);
    if (has_left) return nullptr;
    // From here on the object may be gone.
    self.returned_.store(1, std::memory_order_release);
    futex_wake(&self.returned_, INT_MAX);
    return nullptr;
}

bool Worker::is_running() const noexcept {
    return started_ && generation_ == fork_generation();
}

bool Worker::start(Body body, void* context, std::size_t stack) noexcept {
    if (is_running()) return true;
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) return false;
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    body_ = body;
    context_ = context;
    stopping_.store(false, std::memory_order_relaxed);
    returned_.store(0, std::memory_order_relaxed);
    bool good = stack == 0 || pthread_attr_setstacksize(&attributes, stack) == 0;
    if (good) {
        const SignalBlock no_signals;
        pthread_t thread{};
        good = pthread_create(&thread, &attributes, &Worker::run, this) == 0;
    }
    pthread_attr_destroy(&attributes);
    started_ = good;
    generation_ = fork_generation();
    return good;
}

void Worker::stop() noexcept {
    if (!is_running()) return;
    ask_to_stop();
    while (returned_.load(std::memory_order_acquire) == 0) {
        futex_wait(returned_, 0, Deadline::never());
    }
    started_ = false;
}

void Worker::end_abandoned() noexcept {
    has_left = true;
}

void Worker::leave() noexcept {
    has_left = true;
    started_ = false;
}

}  // namespace zr::platform
