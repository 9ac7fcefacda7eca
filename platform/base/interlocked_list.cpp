// Interlocked singly linked lists.
//
// A thread that pops has to read what the first entry links to, and meanwhile another may pop that entry and give its
// memory back. So lists are locked, for a few instructions, with locks that lie outside of them: a list is plain data,
// and a fork finds the locks.

#include "interlocked_list.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <utility>

#include "platform/base.h"

namespace zr::platform {
namespace {

constexpr std::size_t kLocks = 32;

// Held for a few instructions. No std::mutex: a fork takes all of them, and a thread that has so many is more than the
// thread sanitizer keeps account of.
class alignas(64) ListLock {
public:
    void lock() noexcept {
        while (held_.test_and_set(std::memory_order_acquire)) {
            held_.wait(true, std::memory_order_relaxed);
        }
    }
    void unlock() noexcept {
        held_.clear(std::memory_order_release);
        held_.notify_one();
    }

private:
    std::atomic_flag held_;
};
ListLock locks[kLocks];

ListLock& lock_of(const SLIST_HEADER* list) noexcept {
    const auto address = reinterpret_cast<std::uintptr_t>(list);
    return locks[(address >> 4 ^ address >> 10) % kLocks];
}

}  // namespace

void lock_interlocked_lists() noexcept {
    for (ListLock& lock : locks) {
        lock.lock();
    }
}

void unlock_interlocked_lists() noexcept {
    for (ListLock& lock : locks) {
        lock.unlock();
    }
}

}  // namespace zr::platform

using zr::platform::lock_of;

void InitializeSListHead(PSLIST_HEADER list) {
    const std::lock_guard guard(lock_of(list));
    *list = {};
}

PSLIST_ENTRY InterlockedPushEntrySList(PSLIST_HEADER list, PSLIST_ENTRY entry) {
    const std::lock_guard guard(lock_of(list));
    entry->Next = list->Head;
    ++list->Depth;
    return std::exchange(list->Head, entry);
}

PSLIST_ENTRY InterlockedPopEntrySList(PSLIST_HEADER list) {
    const std::lock_guard guard(lock_of(list));
    const PSLIST_ENTRY first = list->Head;
    if (first == nullptr) return nullptr;
    list->Head = first->Next;
    --list->Depth;
    return first;
}

PSLIST_ENTRY InterlockedFlushSList(PSLIST_HEADER list) {
    const std::lock_guard guard(lock_of(list));
    list->Depth = 0;
    return std::exchange(list->Head, nullptr);
}

USHORT QueryDepthSList(PSLIST_HEADER list) {
    const std::lock_guard guard(lock_of(list));
    return static_cast<USHORT>(list->Depth);
}
