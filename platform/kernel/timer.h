#pragma once

// Waitable timers, and when they are due.

#include <map>

#include "alarm.h"
#include "kernel/waitable.h"

namespace zr::platform {

// When a timer is due as SetWaitableTimer says it: at a time of the day or, when negative, after an interval.
struct Due {
    DueClock clock;
    std::int64_t ns;

    static Due from(const LARGE_INTEGER& when) noexcept;
};

// When something is due next that was due before now, every `period` nanoseconds. It may have been due so long ago that
// the time since then is no std::int64_t.
constexpr std::int64_t next_due(std::int64_t due, std::int64_t period, std::int64_t now) noexcept {
    const auto step = static_cast<std::uint64_t>(period);
    const std::uint64_t since = static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(due);
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(now) + (step - since % step));
}

// Signals the unnamed timers that are due by the clock; when the next one is.
std::int64_t expire_timers(DueClock clock) noexcept;

// An event that is set when it is due. An alarm sees to that, from when the timer is first set.
class Timer final : public Event {
public:
    static constexpr ObjectKind kKind = ObjectKind::Timer;

    static Ref<Timer> make(bool manual_reset) noexcept;  // empty without memory

    Event* event() noexcept override { return nullptr; }  // nothing that SetEvent may set

    // Resets it, and sets it when it is due; an error code. `period` 0: once.
    DWORD set_due(Due due, std::int64_t period) noexcept;
    void cancel() noexcept;

protected:
    ~Timer() override;
    Attempt try_acquire(Thread& self) noexcept override;

private:
    friend struct TimerQueue;
    using Set = std::multimap<std::int64_t, Timer*>;

    explicit Timer(bool manual_reset) noexcept : Event(manual_reset, false, kKind) {}
    void take_out() noexcept;

    // Guarded by the timers' lock.
    Set::node_type node_;  // while it is not set
    Set::iterator at_;     // while it is
    bool is_set_to_ = false;
    AlarmUse alarm_;
    DueClock clock_ = DueClock::Monotonic;
    std::int64_t period_ = 0;
};

// At a fork.
void lock_timers() noexcept;
void unlock_timers() noexcept;

}  // namespace zr::platform
