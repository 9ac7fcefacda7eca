#pragma once

// The futex calls, and the small lock made of them that guards the family's own tables.

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>

#include "kernel/waitable.h"

namespace zr::platform {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t));

// Where time_t is 64 bits on a 32-bit machine, only the newer call takes such a timespec.
#if defined(SYS_futex_time64)
inline constexpr long kFutexCall = sizeof(time_t) > sizeof(long) ? SYS_futex_time64 : SYS_futex;
#else
inline constexpr long kFutexCall = SYS_futex;
#endif

// Who knows the word: the threads of this process, or all processes that map it.
enum class FutexScope : int { Private = FUTEX_PRIVATE_FLAG, Shared = 0 };

// Sleeps while the word holds `expected`. May return early; false only when the deadline has passed.
inline bool futex_wait(std::atomic<std::uint32_t>& word, std::uint32_t expected, Deadline deadline,
                       FutexScope scope = FutexScope::Private) noexcept {
    timespec until{};
    timespec* timeout = nullptr;
    if (deadline != Deadline::never()) {
        until.tv_sec = static_cast<time_t>(deadline.ns / 1'000'000'000);
        until.tv_nsec = static_cast<long>(deadline.ns % 1'000'000'000);
        timeout = &until;
    }
    const long result = syscall(kFutexCall, &word, FUTEX_WAIT_BITSET | static_cast<int>(scope), expected, timeout,
                                nullptr, FUTEX_BITSET_MATCH_ANY);
    return result == 0 || errno != ETIMEDOUT;
}

// How many to wake on a word that other processes map. A thread of theirs that was killed in its sleep is counted among
// the sleepers until it gets to run once more, even when the word has been given to another thread since.
inline constexpr int kEverybody = INT_MAX;

// The address is only a name here: waking a word that is gone meanwhile wakes nobody or somebody who looks again.
inline void futex_wake(const void* word, int count, FutexScope scope = FutexScope::Private) noexcept {
    syscall(kFutexCall, word, FUTEX_WAKE | static_cast<int>(scope), count, nullptr, nullptr, 0);
}

// What the word says that a thread sleeps on.
inline constexpr std::uint32_t kAwake = 0;
inline constexpr std::uint32_t kSleeping = 1;
inline constexpr std::uint32_t kNotified = 2;

inline void cpu_relax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    asm volatile("yield");
#endif
}

// A lock for short stretches without system calls inside. Spins a little before it sleeps.
class FutexLock {
public:
    constexpr FutexLock() noexcept = default;

    void lock() noexcept {
        std::uint32_t free = kFree;
        if (!state_.compare_exchange_strong(free, kHeld, std::memory_order_acquire, std::memory_order_relaxed)) {
            lock_contended();
        }
    }
    void unlock() noexcept {
        if (state_.exchange(kFree, std::memory_order_release) == kContended) futex_wake(&state_, 1);
    }

private:
    static constexpr std::uint32_t kFree = 0;
    static constexpr std::uint32_t kHeld = 1;
    static constexpr std::uint32_t kContended = 2;

    void lock_contended() noexcept;

    std::atomic<std::uint32_t> state_{kFree};
};

}  // namespace zr::platform
