#include "kernel/thread.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

#include <new>

#include "at_fork.h"
#include "base/forks.h"
#include "engine.h"
#include "mutex.h"
#include "named/objects.h"
#include "platform/kernel.h"
#include "quick_pin.h"
#include "tls.h"

namespace zr::platform {
namespace {

constexpr std::uint32_t kThreadBuckets = 256;
constexpr int kMaxHooks = 16;

FutexLock registry_lock;  // guards the table of running threads and requests to end
Thread* running[kThreadBuckets];

FutexLock hooks_lock;
ThreadExitHook hooks[kMaxHooks];
int hook_count = 0;

Thread*& bucket(DWORD id) noexcept {
    return running[id % kThreadBuckets];
}

// Called when a thread exits, after its C++ thread_local objects are gone.
const pthread_key_t exit_key = [] {
    pthread_key_t made{};
    pthread_key_create(&made, [](void* record) { ThreadAccess::leave(*static_cast<Thread*>(record)); });
    return made;
}();

// A thread is named in locks by its identifier and by how many forks its process is away from the first one: an
// identifier is used again, also while a child has locks that say who owned them in the parent.
constexpr int kTidBits = 22;  // the most that the kernel hands out
constexpr std::uint32_t kForkMask = 0xFF;

DWORD lock_id_of(DWORD id) noexcept {
    return (fork_generation() & kForkMask) << kTidBits | id;
}

std::atomic<Thread*> survivor{nullptr};  // the thread that this process was forked by
std::atomic<DWORD> survivors_lock_id{0};

ThreadExitHook hook_at(int index) noexcept {
    const std::lock_guard guard(hooks_lock);
    return hooks[index];
}

}  // namespace

constinit thread_local Thread* current_thread [[gnu::tls_model("initial-exec")]] = nullptr;

Thread::Thread() noexcept : Waitable(kKind), generation_(fork_generation()) {}

bool Thread::stayed_behind() const noexcept {
    return generation_ != fork_generation() && this != survivor.load(std::memory_order_relaxed);
}

DWORD Thread::exit_code() const noexcept {
    const DWORD code = exit_code_.load(std::memory_order_acquire);
    return code == STILL_ACTIVE && stayed_behind() ? ERROR_PROCESS_ABORTED : code;
}

bool Thread::is_signalled(const Thread&) const noexcept {
    return (word_.load(std::memory_order_acquire) & kEnded) != 0 || stayed_behind();
}

Waitable::Attempt Thread::try_acquire(Thread& self) noexcept {
    return is_signalled(self) ? Attempt::Taken : Attempt::No;
}

Thread& Thread::current() {
    return ThreadAccess::current();
}

Ref<Thread> Thread::find(DWORD id) noexcept {
    const std::lock_guard guard(registry_lock);
    for (Thread* thread = bucket(id); thread; thread = thread->next_) {
        if (thread->id() == id) return Ref<Thread>::retain(*thread);
    }
    return {};
}

Thread* ThreadAccess::make() noexcept {
    return new (std::nothrow) Thread;
}

Thread& ThreadAccess::adopt_current() {
    Thread* record = make();
    if (!record) {
        fputs("zrplatform: no memory for the record of a thread\n", stderr);
        abort();
    }
    enter(*record);
    return *record;
}

void ThreadAccess::enter(Thread& self) noexcept {
    current_thread = &self;
    self.quick_slot_ = claim_quick_slot();
    pthread_setspecific(exit_key, &self);
    const std::lock_guard guard(registry_lock);
    const DWORD id = static_cast<DWORD>(gettid());
    self.lock_id_ = lock_id_of(id);
    self.id_.store(id, std::memory_order_release);
    Thread*& first = bucket(id);
    self.next_ = first;
    first = &self;
    futex_wake(&self.id_, INT_MAX);
}

DWORD ThreadAccess::wait_for_id(Thread& thread) noexcept {
    DWORD id = thread.id();
    for (; id == 0; id = thread.id()) {
        futex_wait(thread.id_, 0, Deadline::never());
    }
    return id;
}

void ThreadAccess::while_running(const Thread& thread, void (*use)(const Thread& running)) noexcept {
    const std::lock_guard guard(registry_lock);
    const Thread* found = bucket(thread.id());
    while (found && found != &thread) {
        found = found->next_;
    }
    if (found) use(*found);
}

bool ThreadAccess::has_ended(const Thread& thread) noexcept {
    return thread.is_signalled(thread);
}

void ThreadAccess::request_end(Thread& thread, DWORD code) noexcept {
    if (thread.stayed_behind()) return;
    {
        const std::lock_guard guard(registry_lock);
        if (!thread.end_requested_.load(std::memory_order_relaxed)) {
            thread.requested_code_.store(code, std::memory_order_relaxed);
            thread.end_requested_.store(true, std::memory_order_release);
        }
    }
    Wakeups wakeups;
    notify_anywhere(thread, wakeups);
}

// What the thread owns and keeps.
void ThreadAccess::give_up_all(Thread& self) noexcept {
    Mutex::abandon_all(self);
    named::NamedMutex::abandon_all(self);
    named::forget_sleeper(self);
    free_tls_values(self.tls_);
    self.tls_ = nullptr;
}

bool ThreadAccess::stayed_behind(DWORD lock_id) noexcept {
    return lock_id >> kTidBits != (fork_generation() & kForkMask) &&
           lock_id != survivors_lock_id.load(std::memory_order_relaxed);
}

// The others' stacks are still as they were, but nothing keeps them so.
void ThreadAccess::survive_fork() noexcept {
    for (Thread*& first : running) {
        for (Thread* thread = first; thread; thread = thread->next_) {
            if (thread == current_thread || thread->block_count_ == 0) continue;
            Engine::delist(*thread);
            Engine::stop_waiting(*thread);
        }
        first = nullptr;
    }
    survivor.store(current_thread, std::memory_order_relaxed);
    if (!current_thread) return;
    Thread& self = *current_thread;
    survivors_lock_id.store(self.lock_id_, std::memory_order_relaxed);
    const DWORD id = static_cast<DWORD>(gettid());
    self.id_.store(id, std::memory_order_release);
    self.next_ = nullptr;
    bucket(id) = &self;
    self.named_owned_ = nullptr;
    self.named_owner_ = {};
    self.named_sleeper_ = {};
}

void at_fork::lock_threads() noexcept {
    registry_lock.lock();
    hooks_lock.lock();
}

void at_fork::unlock_threads() noexcept {
    hooks_lock.unlock();
    registry_lock.unlock();
}

// A hook may run code that ends the thread once more; the second time takes up where the first one was.
void ThreadAccess::finish(Thread& self) noexcept {
    self.ending_ = true;
    self.unwinding_ = false;
    if (self.hooks_left_ < 0) {
        const std::lock_guard guard(hooks_lock);
        self.hooks_left_ = hook_count;
    }
    while (self.hooks_left_ > 0) {
        hook_at(--self.hooks_left_)(self);
    }
    give_up_all(self);
    {
        const std::lock_guard guard(registry_lock);
        Thread** link = &bucket(self.id());
        while (*link != &self) {
            link = &(*link)->next_;
        }
        *link = self.next_;
    }
    self.exit_code_.store(self.code_, std::memory_order_release);
    Wakeups wakeups;
    const std::lock_guard guard(Engine::lock);
    self.word_.fetch_or(Thread::kEnded, std::memory_order_acq_rel);
    Engine::serve(self, wakeups);
}

void ThreadAccess::leave(Thread& self) noexcept {
    if (!has_ended(self)) finish(self);
    // What destructors of thread_local objects took after the end.
    give_up_all(self);
    free_exit_stack();
    give_back_quick_slot(self.quick_slot_);
    current_thread = nullptr;
    self.release();
}

void add_thread_exit_hook(ThreadExitHook hook) noexcept {
    const std::lock_guard guard(hooks_lock);
    if (hook_count == kMaxHooks) {
        fputs("zrplatform: too many thread exit hooks\n", stderr);
        abort();
    }
    hooks[hook_count++] = hook;
}

void cancellation_point() {
    Thread* const self = current_thread;
    if (self && ThreadAccess::must_end(*self)) ThreadAccess::end_current(*self, ThreadAccess::requested_code(*self));
}

}  // namespace zr::platform

DWORD GetCurrentThreadId() {
    return zr::platform::ThreadAccess::current().id();
}

HANDLE GetCurrentThread() {
    return reinterpret_cast<HANDLE>(ULONG_PTR{65});
}
