#include <algorithm>

#include "at_fork.h"
#include "engine.h"
#include "platform/kernel.h"

namespace zr::platform {
namespace {

// The word of a section: its owner (Thread::lock_id), and kQueued when a thread may be queued for it. Threads queue
// outside the section, keyed by its address, so a section is two plain numbers, owns nothing and can be copied as
// bytes.
constexpr DWORD kQueued = 0x80000000u;
constexpr int kSectionSpins = 60;
constexpr std::size_t kSectionBuckets = 64;

struct Waiter {
    const CRITICAL_SECTION* section;
    Thread* thread;
    Waiter* next = nullptr;
    std::atomic<bool> queued{true};
};

struct alignas(64) Bucket {
    FutexLock lock;
    Waiter* first = nullptr;

    void append(Waiter& waiter) noexcept {
        Waiter** link = &first;
        while (*link) {
            link = &(*link)->next;
        }
        *link = &waiter;
    }
    void remove(Waiter& waiter) noexcept {
        Waiter** link = &first;
        while (*link != &waiter) {
            link = &(*link)->next;
        }
        *link = waiter.next;
        waiter.next = nullptr;
    }
    Waiter* find(const CRITICAL_SECTION* section) noexcept {
        Waiter* waiter = first;
        while (waiter && waiter->section != section) {
            waiter = waiter->next;
        }
        return waiter;
    }
};

Bucket buckets[kSectionBuckets];

Bucket& bucket_of(const CRITICAL_SECTION* section) noexcept {
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(section);
    return buckets[(address >> 3 ^ address >> 9 ^ address >> 15) % kSectionBuckets];
}

std::atomic_ref<DWORD> word_of(CRITICAL_SECTION* section) noexcept {
    return std::atomic_ref<DWORD>(section->LockWord);
}

bool take(CRITICAL_SECTION* section, DWORD id, DWORD& seen) noexcept {
    seen = 0;
    if (!word_of(section).compare_exchange_strong(seen, id, std::memory_order_acquire, std::memory_order_relaxed)) {
        return false;
    }
    section->RecursionCount = 1;
    return true;
}

// Wakes the thread that has queued longest. The section may be gone already; its address is only a key.
void wake_next(const CRITICAL_SECTION* section) noexcept {
    Bucket& bucket = bucket_of(section);
    Wakeups wakeups;
    const std::lock_guard guard(bucket.lock);
    Waiter* waiter = bucket.find(section);
    if (!waiter) return;
    Thread& thread = *waiter->thread;
    bucket.remove(*waiter);
    ThreadAccess::notify(thread, wakeups);
    // Last: who sees it may go on without the lock, and end.
    waiter->queued.store(false, std::memory_order_release);
}

// Takes the section if it is free now, else queues for it. Who takes it here marks it when others are still queued.
bool take_or_queue(CRITICAL_SECTION* section, Bucket& bucket, Thread& self, Waiter& waiter) noexcept {
    const std::atomic_ref<DWORD> word = word_of(section);
    const std::lock_guard guard(bucket.lock);
    DWORD seen = word.load(std::memory_order_relaxed);
    for (;;) {
        const bool free = (seen & ~kQueued) == 0;
        const DWORD wanted = free ? self.lock_id() | (bucket.find(section) ? kQueued : 0) : seen | kQueued;
        if (word.compare_exchange_weak(seen, wanted, std::memory_order_acquire, std::memory_order_relaxed)) {
            if (free) return true;
            break;
        }
    }
    waiter.queued.store(true, std::memory_order_relaxed);
    ThreadAccess::begin_park(self);
    bucket.append(waiter);
    return false;
}

// Sleeps until the waiter is off the queue; false when the thread has to end instead.
bool sleep(Bucket& bucket, Thread& self, Waiter& waiter) noexcept {
    for (;;) {
        if (!ThreadAccess::must_end(self)) {
            ThreadAccess::park(self, Deadline::never());
            // Nobody asked the thread to end, so it was wake_next that notified, and is through with this thread.
            if (!ThreadAccess::end_requested(self) && !waiter.queued.load(std::memory_order_acquire)) return true;
        }
        const std::lock_guard guard(bucket.lock);
        const bool queued = waiter.queued.load(std::memory_order_relaxed);
        if (ThreadAccess::must_end(self)) {
            if (queued) bucket.remove(waiter);
            return false;
        }
        if (!queued) return true;
        ThreadAccess::begin_park(self);
    }
}

bool becomes_free(std::atomic_ref<DWORD> word) noexcept {
    for (int i = 0; i < kSectionSpins; ++i) {
        if (word.load(std::memory_order_relaxed) == 0) return true;
        cpu_relax();
    }
    return false;
}

void enter_contended(CRITICAL_SECTION* section, Thread& self) {
    Bucket& bucket = bucket_of(section);
    Waiter waiter{section, &self};
    DWORD seen = 0;
    if (becomes_free(word_of(section)) && take(section, self.lock_id(), seen)) return;
    // From here on only by way of the queue's lock: a thread that was woken has to mark the section for those behind
    // it.
    while (!take_or_queue(section, bucket, self, waiter)) {
        if (!sleep(bucket, self, waiter)) {
            wake_next(section);  // this thread may have been the one that was woken for the section
            cancellation_point();
        }
        becomes_free(word_of(section));
    }
    section->RecursionCount = 1;
}

}  // namespace

void at_fork::lock_sections() noexcept {
    for (Bucket& bucket : buckets) {
        bucket.lock.lock();
    }
}

void at_fork::unlock_sections() noexcept {
    for (Bucket& bucket : buckets) {
        bucket.lock.unlock();
    }
}

void at_fork::forget_section_queues() noexcept {
    for (Bucket& bucket : buckets) {
        bucket.first = nullptr;
    }
}

}  // namespace zr::platform

using namespace zr::platform;

void InitializeCriticalSection(CRITICAL_SECTION* section) {
    *section = {};
}

void DeleteCriticalSection(CRITICAL_SECTION* section) {
    *section = {};
}

void EnterCriticalSection(CRITICAL_SECTION* section) {
    Thread& self = ThreadAccess::current();
    if (ThreadAccess::must_end(self)) [[unlikely]]
        cancellation_point();
    DWORD seen = 0;
    if (take(section, self.lock_id(), seen)) return;
    if ((seen & ~kQueued) == self.lock_id()) {
        ++section->RecursionCount;
        return;
    }
    enter_contended(section, self);
}

BOOL TryEnterCriticalSection(CRITICAL_SECTION* section) {
    cancellation_point();
    const DWORD id = ThreadAccess::current().lock_id();
    DWORD seen = 0;
    if (take(section, id, seen)) return TRUE;
    if ((seen & ~kQueued) != id) return FALSE;
    ++section->RecursionCount;
    return TRUE;
}

void LeaveCriticalSection(CRITICAL_SECTION* section) {
    const std::atomic_ref<DWORD> word = word_of(section);
    const DWORD id = ThreadAccess::current().lock_id();
    if ((word.load(std::memory_order_relaxed) & ~kQueued) != id) return;
    if (--section->RecursionCount != 0) return;
    if ((word.exchange(0, std::memory_order_release) & kQueued) != 0) wake_next(section);
}
