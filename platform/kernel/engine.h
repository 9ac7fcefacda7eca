#pragma once

// The engine's inside: its lock, the list of a wait's objects, and how a thread sleeps and is woken.

#include <mutex>

#include "futex.h"
#include "kernel/thread.h"
#include "kernel/waitable.h"

namespace zr::platform {

// One object of one thread's wait, linked into the object's list of waiters. Lives on the waiter's stack.
struct WaitBlock {
    Waitable* object;
    Thread* thread;
    WaitBlock* previous;
    WaitBlock* next;
};

// Threads to be woken once the lock is given back, so that they do not run into it.
class Wakeups {
public:
    Wakeups() noexcept = default;
    Wakeups(const Wakeups&) = delete;
    Wakeups& operator=(const Wakeups&) = delete;
    ~Wakeups() {
        for (std::uint32_t i = 0; i < count_; ++i) {
            futex_wake(words_[i], 1);
        }
    }
    void add(const void* word) noexcept {
        if (count_ < kRoom) {
            words_[count_++] = word;
        } else {
            futex_wake(word, 1);
        }
    }

private:
    static constexpr std::uint32_t kRoom = 16;
    const void* words_[kRoom];
    std::uint32_t count_ = 0;
};

// The calling thread's record, NULL until it is asked for.
extern constinit thread_local Thread* current_thread [[gnu::tls_model("initial-exec")]];

// What the family's sources may do with a thread's record.
struct ThreadAccess {
    static Thread& current() { return current_thread ? *current_thread : adopt_current(); }

    // Sleeping. begin_park, then make it known where wakers look, then park until it says notified. A notification
    // may be stale: the sleeper looks at what it waits for again. A waker that has taken the sleeper off its list and
    // notified it does not touch the record any more.
    static void begin_park(Thread& self) noexcept;
    static bool park(Thread& self, Deadline deadline) noexcept;  // false: the deadline has passed
    static void notify(Thread& thread, Wakeups& wakeups) noexcept;
    static void notify_anywhere(Thread& thread, Wakeups& wakeups) noexcept;  // whatever word it sleeps on
    static bool one_processor() noexcept;  // looking again is no use: nobody else runs meanwhile
    static bool spin(Thread& self, const std::atomic<std::uint32_t>& word) noexcept;

    // Sleeping on a word that other processes see, in place of the record's own. park_at before each such sleep, and
    // with NULL after it.
    static void park_at(Thread& self, std::atomic<std::uint32_t>* word) noexcept {
        self.park_at_.exchange(word, std::memory_order_acq_rel);
    }
    static bool park_on(Thread& self, std::atomic<std::uint32_t>& word, Deadline deadline, FutexScope scope) noexcept;
    static bool& mixed(Thread& thread) noexcept { return thread.mixed_; }
    static NamedOwner& named_owner(Thread& self) noexcept { return self.named_owner_; }
    static NamedSleeper& named_sleeper(Thread& thread) noexcept { return thread.named_sleeper_; }

    // Ending.
    static bool end_requested(const Thread& self) noexcept {
        return self.end_requested_.load(std::memory_order_acquire);
    }
    static bool must_end(const Thread& self) noexcept { return end_requested(self) && !self.ending_; }
    static bool has_ended(const Thread& thread) noexcept;
    static void request_end(Thread& thread, DWORD code) noexcept;
    [[noreturn]] static void end_current(Thread& self, DWORD code);  // unwinds
    static void finish(Thread& self) noexcept;                       // hooks, mutexes, signal
    static void give_up_all(Thread& self) noexcept;
    static bool is_unwinding(const Thread& self) noexcept { return self.unwinding_; }
    [[noreturn]] static void cut_off(Thread& self);  // leaves the rest of the stack as it is
    static void free_exit_stack() noexcept;
    static DWORD requested_code(const Thread& self) noexcept { return self.requested_code_.load(); }

    // Beginning. The calling thread becomes the record's, which has one reference for as long as the thread runs.
    static Thread* make() noexcept;
    static Thread& adopt_current();
    static void enter(Thread& self) noexcept;
    static void leave(Thread& self) noexcept;
    static void set_exit_code(Thread& self, DWORD code) noexcept { self.code_ = code; }
    static ThreadStart*& start(Thread& thread) noexcept { return thread.start_; }
    static Ref<Event>& gate(Thread& thread) noexcept { return thread.gate_; }
    static std::atomic<bool>& suspended(Thread& thread) noexcept { return thread.suspended_; }
    static DWORD wait_for_id(Thread& thread) noexcept;

    // use(thread) while it cannot end; nothing when it has.
    static void while_running(const Thread& thread, void (*use)(const Thread& running)) noexcept;
    static int priority(const Thread& thread) noexcept { return thread.priority_.load(); }
    static void set_priority(Thread& thread, int priority) noexcept;
    static void begin_priority(Thread& self) noexcept;

    static bool& yields(Thread& thread) noexcept { return thread.yields_; }
    static std::uint32_t& passed_over(Thread& thread) noexcept { return thread.passed_over_; }
    static QuickSlot* quick_slot(const Thread& self) noexcept { return self.quick_slot_; }

    static Mutex*& owned(Thread& self) noexcept { return self.owned_; }
    static named::NamedMutex*& named_owned(Thread& self) noexcept { return self.named_owned_; }

    // In the child of a fork, with the table of threads and the engine locked: the calling thread is the only one.
    static void survive_fork() noexcept;
    // Whether the owner that a lock names stayed behind in a process that this one was forked from.
    static bool stayed_behind(DWORD lock_id) noexcept;
    static TlsValues*& tls(Thread& self) noexcept { return self.tls_; }
};

class Engine {
public:
    // Guards every object's list of waiters and every word with kHasWaiters set.
    static FutexLock lock;

    static WaitResult wait(std::span<Waitable* const> objects, WaitMode mode, Deadline deadline);

    // Lets go everybody who can go on now that the object has changed. With the lock held.
    static void serve(Waitable& object, Wakeups& wakeups) noexcept;

    // What waits for named objects are made of (named_wait.cpp). With the lock held.
    static bool is_signalled(const Waitable& object, const Thread& thread) noexcept {
        return object.is_signalled(thread);
    }
    static bool interrupts(const Waitable& object, const Thread& thread) noexcept { return object.interrupts(thread); }
    static bool acquire(Waitable& object, Thread& thread) noexcept { return object.acquire(thread); }
    static void hold(Waitable& object) noexcept;
    static void let_go(Waitable& object) noexcept;
    static void enlist(Thread& self, std::span<Waitable* const> objects, WaitMode mode, WaitBlock* blocks) noexcept;
    static void delist(Thread& thread) noexcept;
    static void complete(Thread& thread, std::uint32_t index, Wakeups& wakeups) noexcept;
    // Takes what the thread's wait asks for, now that this object has changed; false when the wait has to go on. What a
    // wait for all has of named objects, `acquire_named` takes; it says whether one was abandoned.
    template <class AcquireNamed>
    static bool take_for(Thread& thread, Waitable& object, AcquireNamed acquire_named) noexcept {
        if (!thread.wait_all_) {
            if (!object.is_signalled(thread)) return false;
            thread.abandoned_ = object.acquire(thread);
            return true;
        }
        thread.interrupted_ = object.interrupts(thread);
        if (thread.interrupted_) return true;
        if (!is_satisfied(thread)) return false;
        thread.abandoned_ = acquire_named();
        for (std::uint32_t i = 0; i < thread.block_count_; ++i) {
            Waitable& each = *thread.blocks_[i].object;
            if (!is_named(each)) thread.abandoned_ |= each.acquire(thread);
        }
        return true;
    }
    static bool is_named(const Waitable& object) noexcept {
        return object.kind() >= ObjectKind::NamedEvent && object.kind() <= ObjectKind::NamedTimer;
    }
    static bool is_completed(const Thread& self) noexcept { return !self.waiting_.load(std::memory_order_acquire); }
    static void stop_waiting(Thread& self) noexcept { self.waiting_.store(false, std::memory_order_relaxed); }
    static WaitResult completed(const Thread& self, WaitMode mode) noexcept;

private:
    static bool take_at_once(Thread& self, std::span<Waitable* const> objects, WaitResult& result) noexcept;
    static bool take_any(Thread& self, std::span<Waitable* const> objects, WaitResult& result) noexcept;
    static bool take_all(Thread& self, std::span<Waitable* const> objects, WaitResult& result) noexcept;
    static bool sleep(Thread& self, Deadline deadline) noexcept;
    static bool is_satisfied(const Thread& thread) noexcept;
    static bool has_named(std::span<Waitable* const> objects) noexcept;
    static WaitResult wait_here(Thread& self, std::span<Waitable* const> objects, WaitMode mode, Deadline deadline);
};

}  // namespace zr::platform
