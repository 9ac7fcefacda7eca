#pragma once

#include <utility>

#include "engine.h"

namespace zr::platform {

// A mutex: the word says who owns it (Thread::lock_id), 0 when it is free. While it is owned it hangs in its owner's
// list, which only the owner touches, and lives: by its handles, or when there are none left by a reference that kKept
// stands for.
//
// Who waits for a mutex alone yields: a release leaves the mutex free, calls the first of those who wait, and whoever
// is quickest has it; only when the first has been passed over a few times, is it handed over. While the called thread
// is on its way the word is not marked with kHasWaiters, so that those who pass take the quick way. A mutex for which
// others wait too, or that was abandoned, is handed over at once.
class Mutex final : public Waitable {
public:
    static constexpr ObjectKind kKind = ObjectKind::Mutex;

    Mutex() noexcept : Waitable(kKind) {}

    // Gives up one hold; false when the calling thread is not the owner.
    bool unlock(Thread& self) noexcept;

    // What can be done without a lock and without waiting, else nothing is done and the answer is No, or false. Who
    // takes it so without holding a handle open (quick_pin.h) looks after that whether it has to be kept.
    Attempt try_lock(Thread& self) noexcept {
        const Attempt attempt = take_free(self);
        if (attempt != Attempt::No) [[likely]] {
            link_owned(self);
            return attempt;
        }
        if (owner() != self.lock_id()) return Attempt::No;
        ++holds_;
        return Attempt::Taken;
    }
    bool try_unlock(Thread& self) noexcept;

    // The calling thread ends and leaves all that it owns to others.
    static void abandon_all(Thread& self) noexcept;

    void take_initially(Thread& self) noexcept;  // a new mutex that nobody else knows

    // Waits for this mutex alone, after the first attempt without the lock.
    WaitResult wait(Thread& self, Deadline deadline);

protected:
    ~Mutex() override = default;
    bool is_signalled(const Thread& waiter) const noexcept override;
    bool acquire(Thread& waiter) noexcept override;
    bool is_exhausted() const noexcept override;
    void acquired(Thread& self) noexcept override;
    Attempt try_acquire(Thread& self) noexcept override;
    void last_handle_closed() noexcept override;

private:
    static constexpr std::uint32_t kKept = 0x40000000u;
    static constexpr std::uint32_t kOwner = kKept - 1;

    DWORD owner() const noexcept { return word_.load(std::memory_order_acquire) & kOwner; }
    Attempt take_free(Thread& self) noexcept {
        std::uint32_t word = 0;
        if (!word_.compare_exchange_strong(word, self.lock_id(), std::memory_order_acquire,
                                           std::memory_order_relaxed)) {
            return Attempt::No;
        }
        holds_ = 1;
        if (!abandoned_) [[likely]]
            return Attempt::Taken;
        abandoned_ = false;
        return Attempt::TakenAbandoned;
    }
    bool is_left_behind() const noexcept {
        const DWORD now = owner();
        return now != 0 && ThreadAccess::stayed_behind(now);
    }
    void link_owned(Thread& self) noexcept {
        listed_ = true;
        Mutex*& first = ThreadAccess::owned(self);
        previous_ = nullptr;
        next_ = first;
        if (first) first->previous_ = this;
        first = this;
    }
    void enlist_owned(Thread& self) noexcept;
    void delist_owned(Thread& self) noexcept;
    void keep_while_owned() noexcept;
    void give_up(Thread& self, bool abandoned) noexcept;
    void pass_on(Wakeups& wakeups) noexcept;

    Attempt spin(Thread& self) noexcept;
    bool take_held(Thread& self, WaitResult& result) noexcept;
    bool sleep(Thread& self, Deadline deadline, WaitResult& result) noexcept;

    // Written by the owner, or for it while it sleeps.
    DWORD holds_ = 0;
    bool listed_ = false;
    bool abandoned_ = false;
    Mutex* previous_ = nullptr;
    Mutex* next_ = nullptr;

    Thread* called_ = nullptr;  // was woken and has not looked yet. Guarded by the engine's lock.
};

}  // namespace zr::platform
