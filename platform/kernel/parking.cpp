#include <sched.h>

#include "engine.h"

namespace zr::platform {
namespace {

constexpr std::uint32_t kAwake = 0;
constexpr std::uint32_t kSleeping = 1;
constexpr std::uint32_t kNotified = 2;

// How often to look before sleeping. Falling asleep and being woken costs a few microseconds, so looking longer than
// that never pays. Threads whose answers come quickly look longer, others hardly at all, with a longer look now and
// then to find out whether that has changed.
constexpr std::uint32_t kSpinLeast = 4;
constexpr std::uint32_t kSpinMost = 200;
constexpr std::uint32_t kProbeEvery = 32;

bool one_processor() noexcept {
    cpu_set_t set;
    return sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) == 1;
}

}  // namespace

void FutexLock::lock_contended() noexcept {
    for (int i = 0; i < 100; ++i) {
        std::uint32_t free = kFree;
        if (state_.load(std::memory_order_relaxed) == kFree &&
            state_.compare_exchange_weak(free, kHeld, std::memory_order_acquire, std::memory_order_relaxed)) {
            return;
        }
        cpu_relax();
    }
    while (state_.exchange(kContended, std::memory_order_acquire) != kFree) {
        futex_wait(state_, kContended, Deadline::never());
    }
}

void ThreadAccess::begin_park(Thread& self) noexcept {
    // An exchange, so that whoever notified before this is seen with everything that it did.
    self.parking_.exchange(kAwake, std::memory_order_acq_rel);
}

bool ThreadAccess::park(Thread& self, Deadline deadline) noexcept {
    static const bool alone = one_processor();
    const bool probe = self.spin_misses_ % kProbeEvery == kProbeEvery - 1;
    const std::uint32_t limit = alone ? 0 : probe ? kSpinMost : std::min(kSpinMost, self.spin_ * 2 + kSpinLeast);
    for (std::uint32_t spun = 0; spun < limit; ++spun) {
        if (self.parking_.load(std::memory_order_acquire) == kNotified) {
            self.spin_ = (self.spin_ * 7 + spun + 7) / 8;
            self.spin_misses_ = 0;
            return true;
        }
        cpu_relax();
    }
    self.spin_ -= self.spin_ / 4;
    ++self.spin_misses_;

    std::uint32_t seen = kAwake;
    if (!self.parking_.compare_exchange_strong(seen, kSleeping, std::memory_order_acq_rel)) return true;
    while (futex_wait(self.parking_, kSleeping, deadline)) {
        if (self.parking_.load(std::memory_order_acquire) == kNotified) return true;
    }
    seen = kSleeping;
    return !self.parking_.compare_exchange_strong(seen, kAwake, std::memory_order_acq_rel);
}

void ThreadAccess::notify(Thread& thread, Wakeups& wakeups) noexcept {
    if (thread.parking_.exchange(kNotified, std::memory_order_acq_rel) == kSleeping) wakeups.add(&thread.parking_);
}

}  // namespace zr::platform
