#pragma once

// The record of a thread, its end, and the point at which another thread can end it.

#include <atomic>
#include <cstdint>

#include "kernel/waitable.h"

namespace zr::platform {

namespace named {
class Session;
class NamedMutex;
}  // namespace named

// Where a thread sleeps that waits for named objects: its place among all processes' sleepers.
struct NamedSleeper {
    named::Session* session = nullptr;
    std::uint32_t index = 0;
};

// How named mutexes say that a thread owns them, from when it took one for the first time.
struct NamedOwner {
    const named::Session* session = nullptr;
    std::uint64_t id = 0;
};

// Where families hang what they keep per thread.
enum class ThreadSlot { Windowing, Com, Shell, Count };

// Every thread that calls the platform has a record, made by CreateThread or at the thread's first call, and signalled
// when the thread has ended. References keep the record, not the thread.
class ZRPLATFORM_API Thread final : public Waitable {
public:
    static constexpr ObjectKind kKind = ObjectKind::Thread;

    // The calling thread.
    static Thread& current();
    // The running thread with this identifier, empty if there is none.
    static Ref<Thread> find(DWORD id) noexcept;

    DWORD id() const noexcept { return id_.load(std::memory_order_acquire); }
    // What the locks of this process say of their owner. It outlives a fork, as the locks do that the thread owns.
    DWORD lock_id() const noexcept { return lock_id_; }
    DWORD exit_code() const noexcept;

    // A pointer of a family's own, NULL at first. Its family frees what it points to in a thread exit hook.
    std::atomic<void*>& slot(ThreadSlot which) noexcept { return slots_[static_cast<int>(which)]; }

private:
    friend class Engine;
    friend struct ThreadAccess;

    Thread() noexcept;
    ~Thread() override = default;
    bool is_signalled(const Thread& waiter) const noexcept override;
    Attempt try_acquire(Thread& self) noexcept override;

    static constexpr std::uint32_t kEnded = 1;  // in the word

    // Whether the thread stayed behind in a process that this one was forked from.
    bool stayed_behind() const noexcept;

    std::atomic<DWORD> id_{0};
    DWORD lock_id_ = 0;
    const std::uint32_t generation_;     // of the process that made it
    std::atomic<DWORD> exit_code_{259};  // STILL_ACTIVE
    std::atomic<void*> slots_[static_cast<int>(ThreadSlot::Count)] = {};

    // How the thread began: a routine of CreateThread's caller, or nothing for a thread that others made.
    struct ThreadStart* start_ = nullptr;
    Ref<Event> gate_;  // a thread created suspended waits for it
    std::atomic<bool> suspended_{false};
    std::atomic<int> priority_{3};  // THREAD_PRIORITY_NORMAL

    // Asked to end by another thread. Ending: it is past the point of no return and nothing interrupts it any more.
    std::atomic<bool> end_requested_{false};
    std::atomic<DWORD> requested_code_{0};
    DWORD code_ = 0;
    bool ending_ = false;
    bool unwinding_ = false;
    int hooks_left_ = -1;

    // The wait under way. The parking word is what the thread sleeps on; the others are guarded by the engine's lock.
    std::atomic<std::uint32_t> parking_{0};
    std::atomic<bool> waiting_{false};
    // Another word, in memory that processes share, while it waits for named objects.
    std::atomic<std::atomic<std::uint32_t>*> park_at_{nullptr};
    bool mixed_ = false;  // waits for named objects along with others
    bool wait_all_ = false;
    bool abandoned_ = false;
    bool interrupted_ = false;
    bool yields_ = false;            // others may take the mutex first
    std::uint32_t passed_over_ = 0;  // how often they were let
    std::uint32_t satisfied_ = 0;    // index of the object that ended the wait
    std::uint32_t block_count_ = 0;
    WaitBlock* blocks_ = nullptr;

    // Touched by the thread itself only.
    std::uint32_t spin_ = 0;       // how long it paid lately to look again before sleeping
    std::uint32_t probe_in_ = 16;  // after how many more waits to look longer once
    std::uint32_t probe_every_ = 16;
    struct QuickSlot* quick_slot_ = nullptr;
    class Mutex* owned_ = nullptr;
    named::NamedMutex* named_owned_ = nullptr;
    NamedOwner named_owner_;
    NamedSleeper named_sleeper_;
    struct TlsValues* tls_ = nullptr;

    Thread* next_ = nullptr;  // in the table of running threads
};

// Called on every thread that ends and has a record: one that CreateThread made, by return, ExitThread or
// TerminateThread, and any other when it exits. Runs on that thread with no lock held, before its mutexes are abandoned
// and its record is signalled; the hook may call the platform, and wait. Hooks run last added first. The main thread's
// hooks do not run when the process exits. At most 16 hooks; they cannot be removed.
using ThreadExitHook = void (*)(Thread& self);
ZRPLATFORM_API void add_thread_exit_hook(ThreadExitHook hook) noexcept;

// Ends the calling thread here if TerminateThread asked for it: does not return then, the stack is unwound. Call it on
// entry of platform functions that do not otherwise wait, with no lock held, and never from those that give something
// back (release, close, delete, free): those run while the stack is unwound.
ZRPLATFORM_API void cancellation_point();

}  // namespace zr::platform
