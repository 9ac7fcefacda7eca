#include "kernel/thread.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <iterator>
#include <new>

#include "engine.h"
#include "mutex.h"
#include "named/objects.h"
#include "platform/kernel.h"
#include "quick_pin.h"
#include "tls.h"

namespace zr::platform {
namespace {

constexpr std::uint32_t kBuckets = 256;
constexpr int kMaxHooks = 16;

FutexLock registry_lock;  // guards the table of running threads and requests to end
Thread* running[kBuckets];

FutexLock hooks_lock;
ThreadExitHook hooks[kMaxHooks];
int hook_count = 0;

Thread*& bucket(DWORD id) noexcept {
    return running[id % kBuckets];
}

// Called when a thread exits, after its C++ thread_local objects are gone.
pthread_key_t exit_key() noexcept {
    static const pthread_key_t key = [] {
        pthread_key_t made{};
        pthread_key_create(&made, [](void* record) { ThreadAccess::leave(*static_cast<Thread*>(record)); });
        return made;
    }();
    return key;
}

ThreadExitHook hook_at(int index) noexcept {
    const std::lock_guard guard(hooks_lock);
    return hooks[index];
}

}  // namespace

constinit thread_local Thread* current_thread [[gnu::tls_model("initial-exec")]] = nullptr;

bool Thread::is_signalled(const Thread&) const noexcept {
    return (word_.load(std::memory_order_acquire) & kEnded) != 0;
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
    pthread_setspecific(exit_key(), &self);
    const std::lock_guard guard(registry_lock);
    const DWORD id = static_cast<DWORD>(gettid());
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

bool ThreadAccess::has_ended(const Thread& thread) noexcept {
    return thread.is_signalled(thread);
}

void ThreadAccess::request_end(Thread& thread, DWORD code) noexcept {
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

void ThreadAccess::before_fork() noexcept {
    registry_lock.lock();
    Engine::lock.lock();
    lock_handles();
}

void ThreadAccess::after_fork(bool in_child) noexcept {
    if (in_child && current_thread) {
        Thread& self = *current_thread;
        std::fill(std::begin(running), std::end(running), nullptr);
        const DWORD id = static_cast<DWORD>(gettid());
        self.id_.store(id, std::memory_order_release);
        self.next_ = nullptr;
        bucket(id) = &self;
        self.named_owned_ = nullptr;
        self.named_sleeper_ = {};
    }
    unlock_handles();
    Engine::lock.unlock();
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
