// Named timers. When one is due, and by which clock, lies with it in the region; every process that has it open sleeps
// until then, and who comes first signals it. So it does not matter which of them lives, or who set it.

#include <algorithm>

#include "kernel/worker.h"
#include "named/objects.h"
#include "named/queue.h"
#include "named/timer_watch.h"
#include "platform/base.h"

namespace zr::platform::named {

// The timers that this process has open, and the threads that wait until one is due by a clock.
struct TimerWatch {
    explicit TimerWatch(DueClock by, const char* name) : clock(by), worker(name) {}

    const DueClock clock;
    Worker worker;

    static NamedTimer* first;  // guarded by the members' lock
    static TimerWatch& of(DueClock clock) noexcept;

    bool run() noexcept {
        constexpr std::size_t kStack = 128 * 1024;
        return worker.start(&TimerWatch::serve, this, kStack);
    }
    static void serve(void* watch) noexcept;
    std::int64_t expire(Session& session) noexcept;

    static void add(NamedTimer& timer) noexcept {
        timer.listed_ = true;
        timer.next_ = first;
        if (first) first->previous_ = &timer;
        first = &timer;
    }
    static void remove(NamedTimer& timer) noexcept {
        (timer.previous_ ? timer.previous_->next_ : first) = timer.next_;
        if (timer.next_) timer.next_->previous_ = timer.previous_;
        timer.listed_ = false;
    }
};

NamedTimer* TimerWatch::first = nullptr;

namespace {

// Never destroyed: its threads use it while the process exits.
struct Watches {
    TimerWatch monotonic{DueClock::Monotonic, "zr-named-timer"};
    TimerWatch of_day{DueClock::OfDay, "zr-named-day"};
};
alignas(Watches) unsigned char watches_storage[sizeof(Watches)];
Watches& watches = *new (watches_storage) Watches;

}  // namespace

TimerWatch& TimerWatch::of(DueClock clock) noexcept {
    return clock == DueClock::Monotonic ? watches.monotonic : watches.of_day;
}

// Signals what is due; when the next one is. A timer by the other clock has that one's thread begin, should the timer
// have been set by another process.
std::int64_t TimerWatch::expire(Session& session) noexcept {
    std::int64_t next = kNeverDue;
    bool other = false;
    const std::lock_guard guard(Member::lock());
    if (Session::current() != &session) return next;
    {
        const SessionHold hold(session);
        const std::int64_t now = now_by(clock);
        for (NamedTimer* timer = first; timer; timer = timer->next_) {
            if (!timer->member_.is_valid()) continue;
            timer->expire(clock, now, next);
            const std::uint32_t set_by = timer->member_.object().protection;
            other = other || (set_by != kNotSet && set_by != static_cast<std::uint32_t>(clock));
        }
    }
    if (other) of(clock == DueClock::Monotonic ? DueClock::OfDay : DueClock::Monotonic).run();
    return next;
}

void TimerWatch::serve(void* context) noexcept {
    TimerWatch& watch = *static_cast<TimerWatch*>(context);
    Session& session = *Session::current();
    std::atomic<std::uint32_t>& bell = session.region().header().timers;
    for (;;) {
        const std::uint32_t heard = bell.load(std::memory_order_acquire);
        sleep_until(bell, heard, watch.clock, watch.expire(session), FutexScope::Shared);
    }
}

bool watch_timers() noexcept {
    const std::lock_guard guard(Member::lock());
    if (TimerWatch::of(DueClock::Monotonic).run()) return true;
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return false;
}

void NamedTimer::enlist() noexcept {
    if (listed_) return;
    TimerWatch::add(*this);
    // It may have been set long ago, by others.
    std::atomic<std::uint32_t>& bell = member_.session().region().header().timers;
    bell.fetch_add(1, std::memory_order_release);
    futex_wake(&bell, kEverybody, FutexScope::Shared);
}

NamedTimer::~NamedTimer() {
    const std::lock_guard guard(Member::lock());
    if (listed_) TimerWatch::remove(*this);
}

// A kill in between has it signalled once more rather than not at all.
void NamedTimer::expire(DueClock clock, std::int64_t now, std::int64_t& next) noexcept {
    named::Object& object = member_.object();
    if (object.protection != static_cast<std::uint32_t>(clock)) return;
    auto due = static_cast<std::int64_t>(object.contents);
    if (due <= now) {
        word().fetch_or(kSignalled, std::memory_order_acq_rel);
        serve(member_.session().region(), member_.index());
        if (object.size == 0) {
            object.protection = kNotSet;
            return;
        }
        due = next_due(due, static_cast<std::int64_t>(object.size), now);
        object.contents = static_cast<std::uint64_t>(due);
    }
    next = std::min(next, due);
}

DWORD NamedTimer::set_due(Due due, std::int64_t period) noexcept {
    if (!member_.is_valid()) return ERROR_INVALID_HANDLE;
    const std::lock_guard guard(Member::lock());
    if (!TimerWatch::of(due.clock).run()) return ERROR_NOT_ENOUGH_MEMORY;
    Region& region = member_.session().region();
    {
        const SessionHold hold(member_.session());
        named::Object& object = member_.object();
        object.protection = kNotSet;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        word().fetch_and(~kSignalled, std::memory_order_acq_rel);
        object.contents = static_cast<std::uint64_t>(due.ns);
        object.size = static_cast<std::uint64_t>(period);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        object.protection = static_cast<std::uint32_t>(due.clock);
        std::int64_t next = kNeverDue;
        expire(due.clock, now_by(due.clock), next);
        region.header().timers.fetch_add(1, std::memory_order_release);
    }
    futex_wake(&region.header().timers, kEverybody, FutexScope::Shared);
    return ERROR_SUCCESS;
}

bool NamedTimer::cancel() noexcept {
    if (!member_.is_valid()) return false;
    const SessionHold hold(member_.session());
    member_.object().protection = kNotSet;
    return true;
}

Waitable::Attempt NamedTimer::try_acquire(Thread&) noexcept {
    if (!member_.is_valid()) return Attempt::No;
    std::uint64_t seen = word().load(std::memory_order_acquire);
    if ((seen & kSignalled) == 0) {
        // What is due by now counts, whether or not a thread that sees to it has run.
        const std::lock_guard guard(Member::lock());
        const SessionHold hold(member_.session());
        std::int64_t next = kNeverDue;
        expire(DueClock::Monotonic, now_by(DueClock::Monotonic), next);
        expire(DueClock::OfDay, now_by(DueClock::OfDay), next);
        seen = word().load(std::memory_order_acquire);
    }
    if (member_.object().manual_reset != 0) return (seen & kSignalled) != 0 ? Attempt::Taken : Attempt::No;
    if (seen != (member_.base() | kSignalled)) return Attempt::No;
    return word().compare_exchange_strong(seen, member_.base(), std::memory_order_acq_rel, std::memory_order_relaxed)
               ? Attempt::Taken
               : Attempt::No;
}

}  // namespace zr::platform::named
