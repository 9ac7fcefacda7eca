#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/export.h"

namespace zr::platform {

// A thread of the platform's own: it has a name that tools show, takes no signals but those of its own faults, ends
// when it is told to, and is not there in a forked child, which may start it anew. start() and stop() are one thread's
// at a time, not the worker's own, and guarded by a lock, if by any, that the body does not take.
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

    // Whether a thread was started in this process that was not stopped.
    bool is_running() const noexcept;

    // For the body: whether it is to return. Whoever asks for that also ends what the body sleeps in.
    bool is_stopping() const noexcept { return stopping_.load(std::memory_order_acquire); }
    void ask_to_stop() noexcept { stopping_.store(true, std::memory_order_release); }

    // Asks, and returns when the body has. Not for the body, nor with a lock held that it takes.
    void stop() noexcept;

    // For the body, which is about to return unasked: the object has done with it, and may start another thread.
    void leave() noexcept;

    // Has done with a body that sleeps where nobody can wake it, and may start another thread. Should the body ever
    // wake, the last that it does is to call end_abandoned().
    void abandon() noexcept { started_ = false; }
    static void end_abandoned() noexcept;

private:
    static void* run(void* self);

    const char* const name_;
    Body body_ = nullptr;
    void* context_ = nullptr;
    std::atomic<bool> stopping_{false};
    std::atomic<std::uint32_t> returned_{0};
    bool started_ = false;
    std::uint32_t generation_ = 0;  // of the process that the thread is in
};

}  // namespace zr::platform
