#include <sched.h>

#include <algorithm>
#include <chrono>

#include "engine.h"

namespace zr::platform {
namespace {

// How often to look before sleeping. Falling asleep and being woken costs a few microseconds where processors do not
// rest, and 20 to 30 where they do or belong to a virtual machine, so looking longer than that never pays. Threads
// whose answers come quickly look longer, others hardly at all, with a longer look now and then to find out whether
// that has changed; ever more seldom while it has not.
constexpr std::chrono::nanoseconds kSpinLongest{25'000};
constexpr std::uint32_t kSpinLeast = 4;
constexpr std::uint32_t kProbeOften = 16;
constexpr std::uint32_t kProbeSeldom = 4096;

const bool one = [] {
    cpu_set_t set;
    return sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) == 1;
}();

// How many looks that is: a pause is some 1 to 60 ns, as the processor has it. Of a few measurements the quickest was
// interrupted least.
const std::uint32_t spin_most = [] {
    using Clock = std::chrono::steady_clock;
    constexpr int kLooks = 32;
    constexpr std::uint32_t kMost = 25'000;
    auto quickest = Clock::duration::max();
    const std::atomic<std::uint32_t> word{kAwake};
    for (int measurement = 0; measurement < 4; ++measurement) {
        const Clock::time_point begin = Clock::now();
        for (int i = 0; i < kLooks && word.load(std::memory_order_acquire) != kNotified; ++i) {
            cpu_relax();
        }
        quickest = std::min(quickest, Clock::now() - begin);
    }
    const auto looks = kSpinLongest * kLooks / std::max(quickest, Clock::duration{1});
    return std::clamp(static_cast<std::uint32_t>(looks), kSpinLeast, kMost);
}();

}  // namespace

bool ThreadAccess::one_processor() noexcept {
    return one;
}

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

// Looks for a while whether the thread is notified before it has gone to sleep.
bool ThreadAccess::spin(Thread& self, const std::atomic<std::uint32_t>& word) noexcept {
    if (one_processor()) return false;
    const bool probe = --self.probe_in_ == 0;
    const std::uint32_t limit = probe ? spin_most : std::min(spin_most, self.spin_ * 2 + kSpinLeast);
    std::uint32_t spun = 0;
    for (; spun < limit && word.load(std::memory_order_acquire) != kNotified; ++spun) {
        cpu_relax();
    }
    const bool notified = spun < limit;
    if (notified) {
        self.spin_ = (self.spin_ * 7 + spun + 7) / 8;
        self.probe_every_ = kProbeOften;
    } else {
        self.spin_ -= self.spin_ / 4;
        if (probe) self.probe_every_ = std::min(kProbeSeldom, self.probe_every_ * 2);
    }
    if (probe) self.probe_in_ = self.probe_every_;
    return notified;
}

bool ThreadAccess::park(Thread& self, Deadline deadline) noexcept {
    return park_on(self, self.parking_, deadline, FutexScope::Private);
}

bool ThreadAccess::park_on(Thread& self, std::atomic<std::uint32_t>& word, Deadline deadline,
                           FutexScope scope) noexcept {
    if (spin(self, word)) return true;
    std::uint32_t seen = kAwake;
    if (!word.compare_exchange_strong(seen, kSleeping, std::memory_order_acq_rel)) return true;
    while (futex_wait(word, kSleeping, deadline, scope)) {
        if (word.load(std::memory_order_acquire) == kNotified) return true;
    }
    seen = kSleeping;
    return !word.compare_exchange_strong(seen, kAwake, std::memory_order_acq_rel);
}

void ThreadAccess::notify(Thread& thread, Wakeups& wakeups) noexcept {
    if (thread.parking_.exchange(kNotified, std::memory_order_acq_rel) == kSleeping) wakeups.add(&thread.parking_);
}

// The thread says first where it will sleep and then looks once more; this says first what there is to see and then
// looks where it sleeps. Both by a read-modify-write of one word, so that one of the two sees the other.
void ThreadAccess::notify_anywhere(Thread& thread, Wakeups& wakeups) noexcept {
    std::atomic<std::uint32_t>* word = thread.park_at_.load(std::memory_order_relaxed);
    while (!thread.park_at_.compare_exchange_weak(word, word, std::memory_order_acq_rel)) {
    }
    if (!word) return notify(thread, wakeups);
    if (word->exchange(kNotified, std::memory_order_acq_rel) == kSleeping)
        futex_wake(word, kEverybody, FutexScope::Shared);
}

}  // namespace zr::platform
