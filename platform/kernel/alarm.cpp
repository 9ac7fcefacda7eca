#include "alarm.h"

#include <sys/timerfd.h>

#include <algorithm>
#include <limits>
#include <mutex>
#include <new>

#include "base/file_mark.h"
#include "base/host_error.h"
#include "named/timer_watch.h"
#include "timer.h"

namespace zr::platform {
namespace {

constexpr DWORD kLingers = 1000;  // milliseconds: timers that come and go do not start the host's thread each time
constexpr DWORD kRetries = 100;

clockid_t host_clock(DueClock clock) noexcept {
    return clock == DueClock::Monotonic ? CLOCK_MONOTONIC : CLOCK_REALTIME;
}

int mark_of(DueClock clock) noexcept {
    return clock == DueClock::Monotonic ? 2 : 3;
}

// Never destroyed: threads may use them while the process exits.
struct Alarms {
    Alarm monotonic{DueClock::Monotonic};
    Alarm of_day{DueClock::OfDay};
};
alignas(Alarms) unsigned char alarms_storage[sizeof(Alarms)];
Alarms& alarms = *new (alarms_storage) Alarms;

}  // namespace

std::int64_t now_by(DueClock clock) noexcept {
    timespec time{};
    clock_gettime(host_clock(clock), &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

Alarm& Alarm::of(DueClock clock) noexcept {
    return clock == DueClock::Monotonic ? alarms.monotonic : alarms.of_day;
}

// What is due may have been set while there was no alarm: it is called at once to look.
DWORD Alarm::open() noexcept {
    timer_ = HostFd(above_standard(timerfd_create(host_clock(clock_), TFD_CLOEXEC | TFD_NONBLOCK)));
    if (timer_) mark_file(timer_.get(), mark_of(clock_));
    DWORD error = timer_ ? watch_host(*this, timer_.get()) : error_from_errno(errno);
    if (error == ERROR_SUCCESS) {
        call_host_source(*this, Deadline::at_once());
    } else {
        timer_ = HostFd();
    }
    ns_ = kNeverDue;
    return error;
}

// A program may have closed the timer.
DWORD Alarm::set(std::int64_t ns) noexcept {
    itimerspec when{};
    const std::int64_t most = std::numeric_limits<time_t>::max();
    if (ns != kNeverDue) {
        when.it_value.tv_sec = static_cast<time_t>(std::clamp<std::int64_t>(ns / 1'000'000'000, 0, most));
        when.it_value.tv_nsec = std::max(static_cast<long>(ns % 1'000'000'000), 1L);
    }
    while (!has_mark(timer_.get(), mark_of(clock_)) ||
           timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &when, nullptr) != 0) {
        static_cast<void>(timer_.detach());
        if (const DWORD error = open()) {
            call_host_source(*this, Deadline::after(kRetries));
            return error;
        }
    }
    ns_ = ns;
    return ERROR_SUCCESS;
}

DWORD Alarm::begin() noexcept {
    const std::lock_guard guard(lock_);
    if (!timer_) {
        if (const DWORD error = open()) return error;
    }
    ++users_;
    return ERROR_SUCCESS;
}

void Alarm::end() noexcept {
    const std::lock_guard guard(lock_);
    if (--users_ == 0) call_host_source(*this, Deadline::after(kLingers));
}

DWORD Alarm::ring_by(std::int64_t ns) noexcept {
    const std::lock_guard guard(lock_);
    return ns < ns_ ? set(ns) : DWORD{ERROR_SUCCESS};
}

void Alarm::ready() noexcept {
    {
        const std::lock_guard guard(lock_);
        if (users_ == 0) {
            unwatch_host(*this);
            if (!has_mark(timer_.get(), mark_of(clock_))) static_cast<void>(timer_.detach());
            timer_ = HostFd();
            return;
        }
        if (set(kNeverDue) != ERROR_SUCCESS) return;
    }
    ring_by(expire_timers(clock_));
    if (clock_ == DueClock::OfDay) named::look_at_timers();
}

void Alarm::forget() noexcept {
    if (timer_) timer_.close();
    ns_ = kNeverDue;
}

void Alarm::resume() noexcept {
    const std::lock_guard guard(lock_);
    if (users_ > 0 && !timer_) open();
}

DWORD AlarmUse::begin(DueClock clock) noexcept {
    Alarm& alarm = Alarm::of(clock);
    if (const DWORD error = alarm.begin()) return error;
    if (alarm_) alarm_->end();
    alarm_ = &alarm;
    return ERROR_SUCCESS;
}

}  // namespace zr::platform
