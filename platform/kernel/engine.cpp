#include "engine.h"

#include <new>
#include <utility>

#include "base/forks.h"
#include "mutex.h"
#include "named/wait.h"
#include "platform/base.h"

namespace zr::platform {

FutexLock Engine::lock;

// The word and the lists. An object on which somebody waits has kHasWaiters in its word; from then on lock-free paths
// leave the word alone, so what is_signalled said still holds when acquire follows, for as many objects as a wait has.
void Engine::hold(Waitable& object) noexcept {
    object.word_.fetch_or(Waitable::kHasWaiters, std::memory_order_acq_rel);
}

void Engine::let_go(Waitable& object) noexcept {
    if (!object.first_) object.word_.fetch_and(~Waitable::kHasWaiters, std::memory_order_release);
}

void Engine::enlist(Thread& self, std::span<Waitable* const> objects, WaitMode mode, WaitBlock* blocks) noexcept {
    self.blocks_ = blocks;
    self.block_count_ = static_cast<std::uint32_t>(objects.size());
    self.wait_all_ = mode == WaitMode::All;
    for (std::size_t i = 0; i < objects.size(); ++i) {
        Waitable& object = *objects[i];
        blocks[i] = {&object, &self, object.last_, nullptr};
        (object.last_ ? object.last_->next : object.first_) = &blocks[i];
        object.last_ = &blocks[i];
        if (!self.yields_) ++object.firm_;
    }
    self.waiting_.store(true, std::memory_order_relaxed);
}

void Engine::delist(Thread& thread) noexcept {
    for (std::uint32_t i = 0; i < thread.block_count_; ++i) {
        WaitBlock& block = thread.blocks_[i];
        Waitable& object = *block.object;
        (block.previous ? block.previous->next : object.first_) = block.next;
        (block.next ? block.next->previous : object.last_) = block.previous;
        if (!thread.yields_) --object.firm_;
        let_go(object);
    }
    thread.block_count_ = 0;
    thread.yields_ = false;
}

bool Engine::is_satisfied(const Thread& thread) noexcept {
    for (std::uint32_t i = 0; i < thread.block_count_; ++i) {
        const Waitable& object = *thread.blocks_[i].object;
        if (!object.is_signalled(thread)) return false;
    }
    return true;
}

void Engine::complete(Thread& thread, std::uint32_t index, Wakeups& wakeups) noexcept {
    delist(thread);
    thread.satisfied_ = thread.wait_all_ ? 0 : index;
    if (thread.mixed_) {
        ThreadAccess::notify_anywhere(thread, wakeups);
    } else {
        ThreadAccess::notify(thread, wakeups);
    }
    // Last: who sees it may go on without the lock, and end.
    thread.waiting_.store(false, std::memory_order_release);
}

void Engine::serve(Waitable& object, Wakeups& wakeups) noexcept {
    WaitBlock* next = nullptr;
    for (WaitBlock* block = object.first_; block && !object.is_exhausted(); block = next) {
        Thread& thread = *block->thread;
        // Completing the thread's wait takes all its blocks off; the same object twice in one wait stands in a row.
        for (next = block->next; next && next->thread == &thread;) {
            next = next->next;
        }
        const auto index = static_cast<std::uint32_t>(block - thread.blocks_);
        if (thread.mixed_) {
            named::serve_mixed(thread, object, index, wakeups);
        } else if (take_for(thread, object, [] { return false; })) {
            complete(thread, index, wakeups);
        }
    }
}

// The attempts of a wait, before it sleeps. On success everything is taken and `result` says what.
bool Engine::take_at_once(Thread& self, std::span<Waitable* const> objects, WaitResult& result) noexcept {
    for (std::size_t i = 0; i < objects.size(); ++i) {
        const Waitable::Attempt attempt = objects[i]->try_acquire(self);
        if (attempt == Waitable::Attempt::No) continue;
        result.index = static_cast<std::uint32_t>(i);
        result.status =
            attempt == Waitable::Attempt::Taken ? WaitResult::Status::Satisfied : WaitResult::Status::Abandoned;
        return true;
    }
    return false;
}

bool Engine::take_any(Thread& self, std::span<Waitable* const> objects, WaitResult& result) noexcept {
    for (std::size_t i = 0; i < objects.size(); ++i) {
        Waitable& object = *objects[i];
        hold(object);
        if (!object.is_signalled(self)) continue;
        result.index = static_cast<std::uint32_t>(i);
        result.status = object.acquire(self) ? WaitResult::Status::Abandoned : WaitResult::Status::Satisfied;
        for (std::size_t held = 0; held <= i; ++held) {
            let_go(*objects[held]);
        }
        return true;
    }
    return false;
}

bool Engine::take_all(Thread& self, std::span<Waitable* const> objects, WaitResult& result) noexcept {
    bool ready = true;
    bool interrupted = false;
    for (Waitable* object : objects) {
        hold(*object);
        ready = ready && object->is_signalled(self);
        interrupted = interrupted || object->interrupts(self);
    }
    if (!ready && !interrupted) return false;
    result = {ready ? WaitResult::Status::Satisfied : WaitResult::Status::Interrupted, 0};
    for (Waitable* object : objects) {
        if (ready && object->acquire(self)) result.status = WaitResult::Status::Abandoned;
        let_go(*object);
    }
    return true;
}

// Sleeps until the wait that is enlisted is satisfied (true), or the deadline passes or the thread has to end (false).
bool Engine::sleep(Thread& self, Deadline deadline) noexcept {
    for (;;) {
        bool in_time = true;
        if (!ThreadAccess::must_end(self)) {
            in_time = ThreadAccess::park(self, deadline);
            // Nobody asked the thread to end, so it was the server of the wait that notified, and is through with it.
            if (in_time && !ThreadAccess::end_requested(self) && !self.waiting_.load(std::memory_order_acquire)) {
                return true;
            }
        }
        const std::lock_guard guard(lock);
        if (!self.waiting_.load(std::memory_order_relaxed)) return true;
        if (!in_time || ThreadAccess::must_end(self)) {
            delist(self);
            self.waiting_.store(false, std::memory_order_relaxed);
            return false;
        }
        ThreadAccess::begin_park(self);
    }
}

// A wait for objects of this process only, after the first attempts without the lock.
WaitResult Engine::wait_here(Thread& self, std::span<Waitable* const> objects, WaitMode mode, Deadline deadline) {
    WaitResult result{WaitResult::Status::TimedOut, 0};
    WaitBlock blocks[kMaxWait];
    {
        const std::lock_guard guard(lock);
        if (mode == WaitMode::All ? take_all(self, objects, result) : take_any(self, objects, result)) return result;
        if (deadline == Deadline::at_once()) {
            for (Waitable* object : objects) {
                let_go(*object);
            }
            return result;
        }
        ThreadAccess::begin_park(self);
        enlist(self, objects, mode, blocks);
    }
    if (sleep(self, deadline)) return completed(self, mode);
    cancellation_point();
    return result;
}

// What a wait came to that another thread of this process completed.
WaitResult Engine::completed(const Thread& self, WaitMode mode) noexcept {
    if (mode == WaitMode::All && self.interrupted_) return {WaitResult::Status::Interrupted, self.satisfied_};
    return {self.abandoned_ ? WaitResult::Status::Abandoned : WaitResult::Status::Satisfied, self.satisfied_};
}

bool Engine::has_named(std::span<Waitable* const> objects) noexcept {
    for (const Waitable* object : objects) {
        if (is_named(*object)) return true;
    }
    return false;
}

WaitResult Engine::wait(std::span<Waitable* const> objects, WaitMode mode, Deadline deadline) {
    cancellation_point();
    Thread& self = ThreadAccess::current();
    WaitResult result{WaitResult::Status::TimedOut, 0};
    // A wait for all of one object is a wait for that one.
    if (objects.size() <= 1) mode = WaitMode::Any;

    if (mode == WaitMode::All || !take_at_once(self, objects, result)) {
        resume_after_fork();
        if (objects.size() == 1 && objects[0]->kind() == ObjectKind::Mutex) {
            result = static_cast<Mutex*>(objects[0])->wait(self, deadline);
        } else if (has_named(objects)) {
            result = named::wait(self, objects, mode, deadline);
        } else {
            result = wait_here(self, objects, mode, deadline);
        }
    }
    if (result.status >= WaitResult::Status::TimedOut) return result;
    if (mode == WaitMode::All) {
        for (Waitable* object : objects) {
            object->acquired(self);
        }
    } else {
        objects[result.index]->acquired(self);
    }
    return result;
}

void Waitable::state_changed() noexcept {
    // A read-modify-write: either it sees the waiter's mark, or the waiter that marks later sees the caller's change.
    if ((word_.fetch_or(0, std::memory_order_acq_rel) & kHasWaiters) == 0) return;
    Wakeups wakeups;
    const std::lock_guard guard(Engine::lock);
    Engine::serve(*this, wakeups);
}

WaitResult wait(std::span<Waitable* const> objects, WaitMode mode, Deadline deadline) {
    return Engine::wait(objects, mode, deadline);
}

WaitResult wait(Waitable& object, Deadline deadline) {
    Waitable* const objects[] = {&object};
    return Engine::wait(objects, WaitMode::Any, deadline);
}

bool WaitSet::add(HANDLE handle) noexcept {
    Pin pin(handle);
    Waitable* object = pin ? pin.object()->waitable() : nullptr;
    if (!object) {
        report_invalid_handle();
        return false;
    }
    return add(*object, std::move(pin));
}

bool WaitSet::add(Waitable& object) noexcept {
    return add(object, Pin());
}

bool WaitSet::add(Waitable& object, Pin pin) noexcept {
    if (count_ == kMaxWait) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    objects_[count_] = &object;
    new (&pins_[count_]) Pin(std::move(pin));
    ++count_;
    return true;
}

bool WaitSet::has_duplicates() const noexcept {
    for (std::size_t i = 1; i < count_; ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            if (objects_[i] == objects_[j]) return true;
        }
    }
    return false;
}

}  // namespace zr::platform
