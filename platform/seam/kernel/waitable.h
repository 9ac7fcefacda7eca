#pragma once

// The wait engine: one wait serves every kind of object, mixed.
//
// A family makes its own kind of object by deriving from Waitable (a message queue) or, where set and reset are all it
// needs, from Event (a change notification). To wait:
//
//     WaitSet set;
//     if (!set.add(handle)) return WAIT_FAILED;         // pins the handle for the length of the wait
//     set.add(my_queue);                                // objects that have no handle mix in
//     WaitResult r = set.wait(WaitMode::Any, Deadline::after(milliseconds));
//     return r.code();                                  // WAIT_OBJECT_0 + index, WAIT_ABANDONED_0 + index,
//     WAIT_TIMEOUT
//
// Guarantees: what a wait takes (an auto-reset event's signal, a mutex's ownership) is taken by exactly one waiter; a
// wait for all takes everything at one instant or nothing; waiters are served in the order they came; when several
// objects of a wait for any are signalled the lowest index counts; timeouts are monotonic.
//
// Every wait is a cancellation point (see thread.h): do not wait with a lock held that is not released by unwinding.

#include <atomic>
#include <compare>
#include <cstdint>
#include <span>

#include "kernel/handle_table.h"
#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

class Thread;
class Mutex;
struct WaitBlock;

// The longest list that one wait takes: MAXIMUM_WAIT_OBJECTS handles and the caller's message queue.
inline constexpr std::size_t kMaxWait = 65;

// A point of the monotonic clock.
struct Deadline {
    std::int64_t ns;

    static constexpr Deadline never() noexcept { return {INT64_MAX}; }
    static constexpr Deadline at_once() noexcept { return {INT64_MIN}; }
    ZRPLATFORM_API static Deadline after(DWORD milliseconds) noexcept;  // 0: at once; INFINITE: never
    ZRPLATFORM_API static std::int64_t now() noexcept;                  // nanoseconds of the monotonic clock

    friend constexpr auto operator<=>(const Deadline&, const Deadline&) = default;
};

class ZRPLATFORM_API Waitable : public Object {
public:
    Waitable* waitable() noexcept final { return this; }

    // Tells the engine that is_signalled may have turned true: waiters that can go on do. Cheap when nobody waits.
    // Change your state first. No lock of yours may be held that is_signalled or acquire take.
    void state_changed() noexcept;

    // What came of trying to take an object without a lock.
    enum class Attempt { No, Taken, TakenAbandoned };

protected:
    using Object::Object;
    ~Waitable() override = default;

    // Would a wait of this thread be satisfied now? Called with the engine's lock held, by any thread: read atomics,
    // take no lock, call nothing of the engine.
    virtual bool is_signalled(const Thread& waiter) const noexcept = 0;

    // Does the object, whatever the others say, interrupt a wait for all? Called like is_signalled.
    virtual bool interrupts(const Thread& waiter) const noexcept {
        static_cast<void>(waiter);
        return false;
    }

    // Take what a satisfied wait of this thread takes. Called like is_signalled, right after it said yes and with the
    // same lock still held. True when what was taken had been abandoned.
    virtual bool acquire(Thread& waiter) noexcept {
        static_cast<void>(waiter);
        return false;
    }

    // After acquire: is nothing left that could satisfy another waiter? Spares looking at the rest of them.
    virtual bool is_exhausted() const noexcept { return false; }

    // Bookkeeping after acquire: on the waiter's own thread, with no lock held, before its wait returns.
    virtual void acquired(Thread& self) noexcept { static_cast<void>(self); }

    // The first, lock-free attempt of a wait for one or for any. Yes means is_signalled and acquire happened; No may
    // be said at any time and leads to the attempt with the lock held.
    virtual Attempt try_acquire(Thread& self) noexcept {
        static_cast<void>(self);
        return Attempt::No;
    }

    // The word that objects with a lock-free path keep their state in. While kHasWaiters is set, only a holder of the
    // engine's lock changes the word; lock-free paths compare-and-swap from values without it.
    static constexpr std::uint32_t kHasWaiters = 0x80000000u;
    std::atomic<std::uint32_t> word_{0};

private:
    friend class Engine;
    friend class Mutex;

    WaitBlock* first_ = nullptr;  // guarded by the engine's lock
    WaitBlock* last_ = nullptr;
    std::uint32_t firm_ = 0;  // how many of the blocks are of threads that do not yield
};

// An event, and the base of what is an event with something behind it.
class ZRPLATFORM_API Event : public Waitable {
public:
    static constexpr ObjectKind kKind = ObjectKind::Event;

    Event(bool manual_reset, bool signalled, ObjectKind kind = kKind) noexcept;

    Event* event() noexcept override { return this; }
    void set() noexcept;
    void reset() noexcept;
    void pulse() noexcept;
    // The lock-free attempts of setting it and of a wait; otherwise nothing is done and the answer is false, or No.
    bool try_set() noexcept;
    Attempt try_take() noexcept;
    bool is_set() const noexcept { return (word_.load(std::memory_order_acquire) & kSignalled) != 0; }

protected:
    ~Event() override = default;
    bool is_signalled(const Thread& waiter) const noexcept override;
    bool acquire(Thread& waiter) noexcept override;
    bool is_exhausted() const noexcept override;
    Attempt try_acquire(Thread& self) noexcept override;

private:
    static constexpr std::uint32_t kSignalled = 1;
    const bool manual_reset_;
};

enum class WaitMode { Any, All };

struct WaitResult {
    enum class Status { Satisfied, Abandoned, TimedOut, Interrupted, Failed };
    Status status;        // Failed: nothing was waited for, the last error is set
    std::uint32_t index;  // which object; 0 for a wait for all

    // The value that the wait functions return.
    constexpr DWORD code() const noexcept {
        switch (status) {
            case Status::Satisfied:
                return WAIT_OBJECT_0 + index;
            case Status::Abandoned:
                return WAIT_ABANDONED_0 + index;
            case Status::Failed:
                return WAIT_FAILED;
            default:
                return WAIT_TIMEOUT;
        }
    }
};

// Waits until one or all of the objects are signalled for the calling thread, at most kMaxWait of them. No object at
// all: waits for the deadline. The caller keeps the objects alive. For All no object may be given twice.
ZRPLATFORM_API WaitResult wait(std::span<Waitable* const> objects, WaitMode mode, Deadline deadline);
ZRPLATFORM_API WaitResult wait(Waitable& object, Deadline deadline);

// The objects of one wait, their handles pinned.
class ZRPLATFORM_API WaitSet {
public:
    WaitSet() noexcept {}
    ~WaitSet() {
        for (std::size_t i = 0; i < count_; ++i) {
            pins_[i].~Pin();
        }
    }
    WaitSet(const WaitSet&) = delete;
    WaitSet& operator=(const WaitSet&) = delete;

    bool add(HANDLE handle) noexcept;  // false with ERROR_INVALID_HANDLE or, when full, ERROR_INVALID_PARAMETER
    bool add(Waitable& object) noexcept;
    std::size_t size() const noexcept { return count_; }
    bool has_duplicates() const noexcept;
    WaitResult wait(WaitMode mode, Deadline deadline) { return platform::wait({objects_, count_}, mode, deadline); }

private:
    bool add(Waitable& object, Pin pin) noexcept;

    std::size_t count_ = 0;
    Waitable* objects_[kMaxWait];
    union {  // only the first count_ are alive: most waits are short
        Pin pins_[kMaxWait];
    };
};

}  // namespace zr::platform
