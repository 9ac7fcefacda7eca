#include "timer.h"

#include <algorithm>
#include <mutex>
#include <new>

#include "base/fail.h"
#include "engine.h"
#include "named/objects.h"
#include "names.h"
#include "platform/base.h"
#include "platform/kernel.h"

namespace zr::platform {
namespace {

constexpr std::int64_t kDueUnit = 100;                        // nanoseconds in what due times count in
constexpr std::int64_t kHostEpoch = 116'444'736'000'000'000;  // the host's first second, in these
constexpr std::int64_t kMostUnits = INT64_MAX / kDueUnit - 1;

}  // namespace

Due Due::from(const LARGE_INTEGER& when) noexcept {
    const std::int64_t given = when.QuadPart;
    if (given >= 0) return {DueClock::OfDay, std::clamp(given - kHostEpoch, -kMostUnits, kMostUnits) * kDueUnit};
    const std::int64_t now = now_by(DueClock::Monotonic);
    const std::int64_t interval = given < -kMostUnits ? kMostUnits : -given;
    return {DueClock::Monotonic, std::min(interval, (kNeverDue - 1 - now) / kDueUnit) * kDueUnit + now};
}

// The timers that are set by one clock. All with the timers' lock held.
struct TimerQueue {
    const DueClock clock;
    Timer::Set set{};

    static TimerQueue& of(DueClock clock) noexcept;

    std::int64_t next() const noexcept { return set.empty() ? kNeverDue : set.begin()->first; }
    void expire() noexcept {
        const std::int64_t now = now_by(clock);
        while (!set.empty() && set.begin()->first <= now) {
            Timer& timer = *set.begin()->second;
            const std::int64_t due = set.begin()->first;
            timer.node_ = set.extract(set.begin());
            timer.is_set_to_ = false;
            if (timer.period_ > 0) put_in(timer, next_due(due, timer.period_, now));
            timer.set();
        }
    }
    void put_in(Timer& timer, std::int64_t due) noexcept {
        timer.node_.key() = due;
        timer.at_ = set.insert(std::move(timer.node_));
        timer.is_set_to_ = true;
    }
};

namespace {

// Not one that belongs to a thread: a fork gives it back in the child.
FutexLock timers_lock;

// Never destroyed: threads may use them while the process exits.
struct TimerQueues {
    TimerQueue monotonic{DueClock::Monotonic};
    TimerQueue of_day{DueClock::OfDay};
};
alignas(TimerQueues) unsigned char timers_storage[sizeof(TimerQueues)];
TimerQueues& timer_queues = *new (timers_storage) TimerQueues;

}  // namespace

TimerQueue& TimerQueue::of(DueClock clock) noexcept {
    return clock == DueClock::Monotonic ? timer_queues.monotonic : timer_queues.of_day;
}

std::int64_t expire_timers(DueClock clock) noexcept {
    const std::lock_guard guard(timers_lock);
    TimerQueue& queue = TimerQueue::of(clock);
    queue.expire();
    return queue.next();
}

Ref<Timer> Timer::make(bool manual_reset) noexcept {
    try {
        Ref<Timer> timer = Ref<Timer>::adopt(new Timer(manual_reset));
        Set set;
        timer->node_ = set.extract(set.emplace(0, timer.get()));
        return timer;
    } catch (const std::bad_alloc&) {
        return {};
    }
}

Timer::~Timer() {
    cancel();
}

void Timer::take_out() noexcept {
    if (is_set_to_) node_ = TimerQueue::of(clock_).set.extract(at_);
    is_set_to_ = false;
}

void Timer::cancel() noexcept {
    const std::lock_guard guard(timers_lock);
    take_out();
}

DWORD Timer::set_due(Due due, std::int64_t period) noexcept {
    const std::lock_guard guard(timers_lock);
    if (const DWORD error = alarm_.begin(due.clock)) return error;
    TimerQueue& queue = TimerQueue::of(due.clock);
    take_out();
    reset();
    clock_ = due.clock;
    period_ = period;
    queue.put_in(*this, due.ns);
    queue.expire();
    const DWORD error = Alarm::of(clock_).ring_by(queue.next());
    if (error != ERROR_SUCCESS) take_out();
    return error;
}

// What is due by now counts, whether or not the alarm has rung.
Waitable::Attempt Timer::try_acquire(Thread&) noexcept {
    if (!is_set()) {
        const std::lock_guard guard(timers_lock);
        if (is_set_to_ && at_->first <= now_by(clock_)) TimerQueue::of(clock_).expire();
    }
    return try_take();
}

void lock_timers() noexcept {
    timers_lock.lock();
}

void unlock_timers() noexcept {
    timers_lock.unlock();
}

namespace {

DWORD set_timer(HANDLE handle, const LARGE_INTEGER& when, LONG period) noexcept {
    const std::int64_t interval = std::int64_t{period} * 1'000'000;
    const Pin pin(handle);
    const ObjectKind kind = pin ? pin.object()->kind() : ObjectKind::Other;
    if (kind == ObjectKind::Timer) return static_cast<Timer*>(pin.object())->set_due(Due::from(when), interval);
    if (kind != ObjectKind::NamedTimer) return ERROR_INVALID_HANDLE;
    return static_cast<named::NamedTimer*>(pin.object())->set_due(Due::from(when), interval);
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

HANDLE CreateWaitableTimerW(LPSECURITY_ATTRIBUTES, BOOL manual_reset, LPCWSTR name) {
    cancellation_point();
    if (is_name(name)) return named::create_timer(name, manual_reset != FALSE);
    SetLastError(ERROR_SUCCESS);
    const Ref<Timer> timer = Timer::make(manual_reset != FALSE);
    if (timer) return open_handle(*timer);
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}

HANDLE OpenWaitableTimerW(DWORD, BOOL, LPCWSTR name) {
    cancellation_point();
    return named::open_timer(name);
}

BOOL SetWaitableTimer(HANDLE timer, const LARGE_INTEGER* due, LONG period, PTIMERAPCROUTINE routine, LPVOID,
                      BOOL resume) {
    cancellation_point();
    if (!due || period < 0) return fail(ERROR_INVALID_PARAMETER, FALSE);
    if (routine) return fail(ERROR_NOT_SUPPORTED, FALSE);
    if (const DWORD error = set_timer(timer, *due, period)) return fail(error, FALSE);
    if (resume) SetLastError(ERROR_NOT_SUPPORTED);
    return TRUE;
}

BOOL CancelWaitableTimer(HANDLE handle) {
    cancellation_point();
    const Pin pin(handle);
    const ObjectKind kind = pin ? pin.object()->kind() : ObjectKind::Other;
    if (kind == ObjectKind::Timer) {
        static_cast<Timer*>(pin.object())->cancel();
        return TRUE;
    }
    if (kind == ObjectKind::NamedTimer && static_cast<named::NamedTimer*>(pin.object())->cancel()) return TRUE;
    return fail(ERROR_INVALID_HANDLE, FALSE);
}
