#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/export.h"

namespace zr::platform {

// A thread of the platform's own: it has a name that tools show, takes no signals but those of its own faults, ends
// when it is told to, and is not there in a forked child, which may start it anew. Its object is one thread's at a
// time, or guarded by a lock that the body does not take.
class ZRPLATFORM_API Worker {
public:
    // The name has 15 characters at most, and is kept for good.
    explicit constexpr Worker(const char* name) noexcept : name_(name) {}
    ~Worker() { stop(); }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Runs body(context) on a new thread; nothing when one runs. False when the host gives none. `stack` 0: the usual
    // size of stacks.
    using Body = void (*)(void* context);
    bool start(Body body, void* context, std::size_t stack = 0) noexcept;

    // Whether a thread was started in this process that stop() or leave() has not taken back.
    bool is_running() const noexcept;

    // For the body: whether it is to return. Whoever asks for that also ends what the body sleeps in.
    bool is_stopping() const noexcept { return stopping_.load(std::memory_order_acquire); }
    void ask_to_stop() noexcept { stopping_.store(true, std::memory_order_release); }

    // Asks, and returns when the body has. Called from the body's own thread it only asks, and lets the thread go.
    void stop() noexcept;
    // Lets the thread run on by itself; nobody waits for its end.
    void leave() noexcept;

private:
    const char* const name_;
    std::atomic<bool> stopping_{false};
    bool started_ = false;
    std::uint32_t generation_ = 0;  // of the process that the thread is in
    pthread_t thread_ = {};
};

}  // namespace zr::platform
