#pragma once

// Clocks, and what wakes the host's thread (kernel/host_events.h) when something is due by one of them.

#include <cstdint>

#include "base/host_fd.h"
#include "futex.h"
#include "kernel/host_events.h"

namespace zr::platform {

// By which clock something is due: one that nobody sets, or that of the day.
enum class DueClock : std::uint32_t { Monotonic, OfDay };

inline constexpr std::int64_t kNeverDue = INT64_MAX;

std::int64_t now_by(DueClock clock) noexcept;  // in nanoseconds

// The alarm of a clock. It rings when the first timer by that clock is due, signals what is due, and is set to the
// next. The host sets it off, also when the clock is set. It is there while somebody uses it, and a little longer.
class Alarm final : public HostSource {
public:
    static Alarm& of(DueClock clock) noexcept;

    explicit Alarm(DueClock clock) noexcept : clock_(clock) {}

    // The calling user needs it from now on, until end(). An error code when the host gives no thread, or no
    // descriptor.
    DWORD begin() noexcept;
    void end() noexcept;

    // Rings at that time, if not before. For users; may be called with the locks held that guard what is due.
    DWORD ring_by(std::int64_t ns) noexcept;

    // At a fork.
    void lock() noexcept { lock_.lock(); }
    void unlock() noexcept { lock_.unlock(); }
    void forget() noexcept;  // the descriptor, which is the parent's too. With the lock held.
    void resume() noexcept;

protected:
    void ready() noexcept override;

private:
    DWORD open() noexcept;
    DWORD set(std::int64_t ns) noexcept;

    const DueClock clock_;
    FutexLock lock_;
    HostFd timer_;
    std::int64_t ns_ = kNeverDue;  // to which it is set
    std::uint32_t users_ = 0;
};

// One user of alarms, of one at a time.
class AlarmUse {
public:
    AlarmUse() noexcept = default;
    ~AlarmUse() {
        if (alarm_) alarm_->end();
    }
    AlarmUse(const AlarmUse&) = delete;
    AlarmUse& operator=(const AlarmUse&) = delete;

    DWORD begin(DueClock clock) noexcept;  // Alarm::begin

private:
    Alarm* alarm_ = nullptr;
};

}  // namespace zr::platform
