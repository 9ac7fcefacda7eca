#pragma once

// Named events, mutexes, semaphores and timers: making and opening them, and what can be done with them.

#include "named/wait.h"
#include "timer.h"

namespace zr::platform::named {

class NamedEvent final : public Shared {
public:
    static constexpr ObjectKind kKind = ObjectKind::NamedEvent;
    static constexpr Kind kNamedKind = Kind::Event;

    NamedEvent() noexcept : Shared(kKind) {}

    // False in a forked child, for an event of its parent's.
    bool set() noexcept;
    bool reset() noexcept;
    bool pulse() noexcept;

protected:
    ~NamedEvent() override = default;
    Attempt try_acquire(Thread& self) noexcept override;
};

// While a thread of this process owns it, it hangs in the thread's list, and lives: by its handles, or from when the
// last one was closed by a reference that is kept for the owner.
class NamedMutex final : public Shared {
public:
    static constexpr ObjectKind kKind = ObjectKind::NamedMutex;
    static constexpr Kind kNamedKind = Kind::Mutex;

    NamedMutex() noexcept : Shared(kKind) {}

    // Gives up one hold; false when the calling thread is not the owner.
    bool unlock(Thread& self) noexcept;

    // What can be done without a lock and without waiting, else nothing is done and the answer is No, or false. The
    // caller keeps a handle open meanwhile (quick_pin.h). What `left` is set to is dropped after that, with drop_kept.
    Attempt try_lock(Thread& self) noexcept;
    bool try_unlock(Thread& self, Ref<NamedMutex>& left) noexcept;

    void drop_kept(const Thread& self) noexcept;

    static void abandon_all(Thread& self) noexcept;

    void taken_initially(Thread& self) noexcept { acquired(self); }

protected:
    ~NamedMutex() override = default;
    void acquired(Thread& self) noexcept override;
    Attempt try_acquire(Thread& self) noexcept override;
    void last_handle_closed() noexcept override;

private:
    Attempt take(std::uint64_t owner) noexcept;
    void enlist_owned(Thread& self) noexcept;
    void delist_owned(Thread& self) noexcept;
    // Whether nothing but its word decides: not so in a forked child, for a mutex of its parent's.
    bool is_simple_for(const NamedOwner& owner) const noexcept {
        return owner.session == &member_.session() && !without_handle_.load(std::memory_order_relaxed);
    }
    void give_up(Thread& self, std::uint64_t mark) noexcept;
    void keep_for_owner() noexcept;

    // Touched by the owner only.
    DWORD holds_ = 0;
    NamedMutex* previous_ = nullptr;
    NamedMutex* next_ = nullptr;

    std::atomic<bool> without_handle_{false};  // once was; written before the word is looked at
    DWORD kept_for_ = 0;                       // the thread that the reference is for. Guarded by the members' lock.
};

class NamedSemaphore final : public Shared {
public:
    static constexpr ObjectKind kKind = ObjectKind::NamedSemaphore;
    static constexpr Kind kNamedKind = Kind::Semaphore;

    NamedSemaphore() noexcept : Shared(kKind) {}

    // Gives `count`, which is positive; an error code.
    DWORD release_count(LONG count, LONG* before) noexcept;

protected:
    ~NamedSemaphore() override = default;
    Attempt try_acquire(Thread& self) noexcept override;
};

inline Waitable::Attempt NamedMutex::take(std::uint64_t owner) noexcept {
    std::uint64_t seen = member_.base();
    if (word().compare_exchange_strong(seen, member_.base() | owner, std::memory_order_acq_rel,
                                       std::memory_order_relaxed)) [[likely]]
        return Attempt::Taken;
    if ((seen & kOwner) == owner) return Attempt::Taken;
    if (seen != (member_.base() | kAbandoned)) return Attempt::No;
    return word().compare_exchange_strong(seen, member_.base() | owner, std::memory_order_acq_rel,
                                          std::memory_order_relaxed)
               ? Attempt::TakenAbandoned
               : Attempt::No;
}

inline void NamedMutex::enlist_owned(Thread& self) noexcept {
    NamedMutex*& first = ThreadAccess::named_owned(self);
    previous_ = nullptr;
    next_ = first;
    if (first) first->previous_ = this;
    first = this;
}

inline void NamedMutex::delist_owned(Thread& self) noexcept {
    (previous_ ? previous_->next_ : ThreadAccess::named_owned(self)) = next_;
    if (next_) next_->previous_ = previous_;
}

// Who closes the last handle comes after the caller has let go of it, and so finds the owner that it has to keep it
// for.
inline Waitable::Attempt NamedMutex::try_lock(Thread& self) noexcept {
    const NamedOwner& owner = ThreadAccess::named_owner(self);
    if (!is_simple_for(owner)) [[unlikely]]
        return Attempt::No;
    const Attempt attempt = take(owner.id);
    if (attempt != Attempt::No && holds_++ == 0) enlist_owned(self);
    return attempt;
}

inline bool NamedMutex::try_unlock(Thread& self, Ref<NamedMutex>& left) noexcept {
    const NamedOwner& owner = ThreadAccess::named_owner(self);
    std::uint64_t owned = member_.base() | owner.id;
    if (!is_simple_for(owner) || word().load(std::memory_order_relaxed) != owned) [[unlikely]]
        return false;
    if (holds_ > 1) {
        --holds_;
        return true;
    }
    // All of it before the word, as the next owner may be there at once.
    delist_owned(self);
    holds_ = 0;
    if (!word().compare_exchange_strong(owned, member_.base(), std::memory_order_acq_rel, std::memory_order_relaxed)) {
        holds_ = 1;
        enlist_owned(self);
        return false;
    }
    // One that was the last handle for a moment, before this one was opened, may have been closed just now.
    if (without_handle_.load(std::memory_order_relaxed)) [[unlikely]]
        left = Ref<NamedMutex>::retain(*this);
    return true;
}

// Signalled when it is due by every process that has it open, so by those that are left whoever set it.
class NamedTimer final : public Shared {
public:
    static constexpr ObjectKind kKind = ObjectKind::NamedTimer;
    static constexpr Kind kNamedKind = Kind::Timer;

    NamedTimer() noexcept : Shared(kKind) {}

    // Resets it, and sets it when it is due; an error code. `period` 0: once.
    DWORD set_due(Due due, std::int64_t period) noexcept;
    bool cancel() noexcept;  // false in a forked child, for a timer of its parent's

    // It has become a member: from now on this process signals it. With the members' lock held, and while the caller
    // uses the alarm of the day's clock.
    void enlist() noexcept;

protected:
    ~NamedTimer() override;
    Attempt try_acquire(Thread& self) noexcept override;

private:
    friend struct OpenTimers;

    void expire(DueClock clock, std::int64_t now, std::int64_t& next) noexcept;

    // In the list of this process's. Guarded by the members' lock.
    AlarmUse alarm_;
    bool listed_ = false;
    NamedTimer* previous_ = nullptr;
    NamedTimer* next_ = nullptr;
};

// What CreateEventW and its like do with a name; NULL with the last error set.
HANDLE create_event(std::u16string_view name, bool manual_reset, bool signalled) noexcept;
HANDLE create_mutex(std::u16string_view name, bool owned) noexcept;
HANDLE create_semaphore(std::u16string_view name, LONG initial, LONG most) noexcept;
HANDLE create_timer(std::u16string_view name, bool manual_reset) noexcept;
// What OpenEventW and its like do.
HANDLE open_event(LPCWSTR name) noexcept;
HANDLE open_mutex(LPCWSTR name) noexcept;
HANDLE open_semaphore(LPCWSTR name) noexcept;
HANDLE open_timer(LPCWSTR name) noexcept;

}  // namespace zr::platform::named
