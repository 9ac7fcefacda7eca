// How a mutex goes from its owner to those who wait for it alone.

#include "mutex.h"

namespace zr::platform {
namespace {

constexpr int kMutexSpins = 60;
constexpr std::uint32_t kMostPassedOver = 8;

WaitResult result_of(bool abandoned) noexcept {
    return {abandoned ? WaitResult::Status::Abandoned : WaitResult::Status::Satisfied, 0};
}

}  // namespace

// Looks for a while whether the mutex becomes free. Falling asleep and being woken takes longer than most holds.
Waitable::Attempt Mutex::spin(Thread& self) noexcept {
    if (ThreadAccess::one_processor()) return Attempt::No;
    for (int i = 0; i < kMutexSpins; ++i) {
        if (word_.load(std::memory_order_relaxed) == 0) {
            const Attempt attempt = take_free(self);
            if (attempt != Attempt::No) return attempt;
        }
        cpu_relax();
    }
    return Attempt::No;
}

// The mutex was given up, or left free by who should have had it. The word is marked; with the engine's lock held.
void Mutex::pass_on(Wakeups& wakeups) noexcept {
    if (!first_) {
        Engine::let_go(*this);
        return;
    }
    Thread& first = *first_->thread;
    if (firm_ != 0 || abandoned_ || ThreadAccess::passed_over(first) >= kMostPassedOver) {
        called_ = nullptr;
        Engine::serve(*this, wakeups);
        return;
    }
    if (!called_) {
        called_ = &first;
        ++ThreadAccess::passed_over(first);
        ThreadAccess::notify(first, wakeups);
    }
    word_.fetch_and(~kHasWaiters, std::memory_order_release);
}

// Takes the mutex if it is free or the thread's own. The word is marked; with the engine's lock held.
bool Mutex::take_held(Thread& self, WaitResult& result) noexcept {
    if (!is_signalled(self)) return false;
    result = result_of(acquire(self));
    return true;
}

WaitResult Mutex::wait(Thread& self, Deadline deadline) {
    WaitResult result{WaitResult::Status::TimedOut, 0};
    const bool at_once = deadline == Deadline::at_once();
    if (!at_once) {
        const Attempt attempt = spin(self);
        if (attempt != Attempt::No) return result_of(attempt == Attempt::TakenAbandoned);
    }
    WaitBlock block;
    {
        const std::lock_guard guard(Engine::lock);
        Engine::hold(*this);
        if (take_held(self, result) || at_once) {
            Engine::let_go(*this);
            return result;
        }
        ThreadAccess::begin_park(self);
        ThreadAccess::yields(self) = true;
        ThreadAccess::passed_over(self) = 0;
        Waitable* const objects[] = {this};
        Engine::enlist(self, objects, WaitMode::Any, &block);
    }
    if (!sleep(self, deadline, result)) cancellation_point();
    return result;
}

// Sleeps until the mutex is the thread's (true), or the deadline passes or the thread has to end (false). The thread
// keeps its place in the queue while it looks whether it comes first.
bool Mutex::sleep(Thread& self, Deadline deadline, WaitResult& result) noexcept {
    for (;;) {
        bool in_time = true;
        Attempt attempt = Attempt::No;
        if (!ThreadAccess::must_end(self)) {
            in_time = ThreadAccess::park(self, deadline);
            const bool awaited = in_time && !ThreadAccess::end_requested(self);
            if (awaited && Engine::is_completed(self)) {
                result = Engine::completed(self, WaitMode::Any);
                return true;
            }
            if (awaited) attempt = spin(self);
        }
        Wakeups wakeups;
        const std::lock_guard guard(Engine::lock);
        if (Engine::is_completed(self)) {
            result = Engine::completed(self, WaitMode::Any);
            return true;
        }
        if (called_ == &self) called_ = nullptr;
        Engine::hold(*this);
        const bool end = ThreadAccess::must_end(self);
        bool mine = attempt != Attempt::No;
        if (mine) {
            result = result_of(attempt == Attempt::TakenAbandoned);
        } else if (!end) {
            mine = take_held(self, result);
        }
        if (!mine && in_time && !end) {
            ThreadAccess::begin_park(self);
            continue;
        }
        Engine::delist(self);
        Engine::stop_waiting(self);
        // Who was called and does not come any more calls the next one.
        if (!mine && owner() == 0) pass_on(wakeups);
        return mine;
    }
}

}  // namespace zr::platform
