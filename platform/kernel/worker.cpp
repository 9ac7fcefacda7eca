#include "kernel/worker.h"

#include <memory>
#include <new>

#include "base/forks.h"
#include "base/signal_block.h"

namespace zr::platform {
namespace {

struct Start {
    const char* name;
    Worker::Body body;
    void* context;
};

void* run(void* argument) {
    const Start start = *static_cast<const Start*>(argument);
    delete static_cast<const Start*>(argument);
    pthread_setname_np(pthread_self(), start.name);
    start.body(start.context);
    return nullptr;
}

}  // namespace

bool Worker::is_running() const noexcept {
    return started_ && generation_ == fork_generation();
}

bool Worker::start(Body body, void* context, std::size_t stack) noexcept {
    if (is_running()) return true;
    std::unique_ptr<Start> start(new (std::nothrow) Start{name_, body, context});
    pthread_attr_t attributes;
    if (!start || pthread_attr_init(&attributes) != 0) return false;
    stopping_.store(false, std::memory_order_relaxed);
    bool good = stack == 0 || pthread_attr_setstacksize(&attributes, stack) == 0;
    if (good) {
        const SignalBlock no_signals;
        good = pthread_create(&thread_, &attributes, run, start.get()) == 0;
    }
    pthread_attr_destroy(&attributes);
    if (!good) return false;
    static_cast<void>(start.release());  // the thread's own
    started_ = true;
    generation_ = fork_generation();
    return true;
}

void Worker::stop() noexcept {
    if (!is_running()) return;
    ask_to_stop();
    started_ = false;
    if (pthread_equal(thread_, pthread_self())) {
        pthread_detach(thread_);
    } else {
        pthread_join(thread_, nullptr);
    }
}

void Worker::leave() noexcept {
    if (!is_running()) return;
    started_ = false;
    pthread_detach(thread_);
}

}  // namespace zr::platform
