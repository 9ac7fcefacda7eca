#include "named/robust_lock.h"

#include <sys/syscall.h>
#include <unistd.h>

#include "futex.h"

namespace zr::platform::named {
namespace {

// Held for a microsecond as a rule: less than falling asleep costs.
constexpr int kTries = 100;

// What the kernel knows this thread by, asked once.
struct Self {
    robust_list_head* list;
    std::uint32_t id;
};
thread_local Self this_thread{};
thread_local robust_list_head nobody_reads{};  // stands in where there is no list

const Self& self() noexcept {
    if (this_thread.list != nullptr) return this_thread;
    std::size_t size = 0;
    const bool there = syscall(SYS_get_robust_list, 0, &this_thread.list, &size) == 0 && this_thread.list != nullptr;
    if (!there) this_thread.list = &nobody_reads;
    this_thread.id = static_cast<std::uint32_t>(gettid());
    return this_thread;
}

// The kernel adds the offset, and then has the word. Addresses wrap around as the kernel's own sums do.
robust_list* entry_of(const robust_list_head& list, const std::atomic<std::uint32_t>& word) noexcept {
    const auto address = reinterpret_cast<std::uintptr_t>(&word) - static_cast<std::uintptr_t>(list.futex_offset);
    return reinterpret_cast<robust_list*>(address);
}

// What the kernel reads when this thread ends is written in this order.
void set_pending(robust_list_head& list, robust_list* entry) noexcept {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    *const_cast<robust_list* volatile*>(&list.list_op_pending) = entry;
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

}  // namespace

bool RobustLock::try_take(std::uint32_t holder, Found& found) noexcept {
    std::uint32_t seen = word_.load(std::memory_order_relaxed);
    while ((seen & FUTEX_TID_MASK) == 0) {
        if (!word_.compare_exchange_weak(seen, holder | (seen & FUTEX_WAITERS), std::memory_order_acquire,
                                         std::memory_order_relaxed))
            continue;
        found = (seen & FUTEX_OWNER_DIED) != 0 ? Found::Left : Found::Free;
        return true;
    }
    return false;
}

RobustLock::Found RobustLock::take() noexcept {
    const Self& thread = self();
    set_pending(*thread.list, entry_of(*thread.list, word_));
    Found found = Found::Free;
    for (int i = 0; i < kTries; ++i) {
        if (try_take(thread.id, found)) return found;
        cpu_relax();
    }
    for (;;) {
        std::uint32_t seen = word_.load(std::memory_order_relaxed);
        if ((seen & FUTEX_TID_MASK) != 0 &&
            ((seen & FUTEX_WAITERS) != 0 ||
             word_.compare_exchange_strong(seen, seen | FUTEX_WAITERS, std::memory_order_relaxed))) {
            futex_wait(word_, seen | FUTEX_WAITERS, Deadline::never(), FutexScope::Shared);
        }
        // Others may sleep as this one did, of whom nobody else knows.
        if (try_take(thread.id | FUTEX_WAITERS, found)) return found;
    }
}

void RobustLock::give_back() noexcept {
    if ((word_.exchange(0, std::memory_order_release) & FUTEX_WAITERS) != 0) futex_wake(&word_, 1, FutexScope::Shared);
    set_pending(*self().list, nullptr);
}

void RobustLock::wake_waiters() const noexcept {
    futex_wake(&word_, kEverybody, FutexScope::Shared);
}

void forget_thread() noexcept {
    this_thread = {};
}

void LifeHold::begin(std::atomic<std::uint32_t>& word) noexcept {
    head_.list.next = &entry_;
    entry_.next = &head_.list;
    head_.futex_offset =
        static_cast<long>(reinterpret_cast<std::uintptr_t>(&word) - reinterpret_cast<std::uintptr_t>(&entry_));
    self();
    if (syscall(SYS_set_robust_list, &head_, sizeof head_) == 0) this_thread.list = &head_;
    word.store(this_thread.id, std::memory_order_release);
}

}  // namespace zr::platform::named
