// Named timers. When one is due, and by which clock, lies with it in the region; every process that has it open sleeps
// until then, and who comes first signals it. So it does not matter which of them lives, or who set it.

#include "named/timer_watch.h"

#include <algorithm>

#include "named/objects.h"
#include "named/queue.h"
#include "platform/base.h"

namespace zr::platform::named {

// The timers that this process has open. Guarded by the members' lock.
struct OpenTimers {
    static NamedTimer* first;

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
    static void expire(Session& session, std::int64_t& next, std::int64_t& next_of_day) noexcept {
        const SessionHold hold(session);
        const std::int64_t now = now_by(DueClock::Monotonic);
        const std::int64_t now_of_day = now_by(DueClock::OfDay);
        for (NamedTimer* timer = first; timer; timer = timer->next_) {
            if (!timer->member_.is_valid()) continue;
            timer->expire(DueClock::Monotonic, now, next);
            timer->expire(DueClock::OfDay, now_of_day, next_of_day);
        }
    }
};

NamedTimer* OpenTimers::first = nullptr;

Deadline expire_named_timers(Session& session) noexcept {
    std::int64_t next = kNeverDue;
    std::int64_t next_of_day = kNeverDue;
    {
        const std::lock_guard guard(Member::lock());
        if (OpenTimers::first && Session::current() == &session) OpenTimers::expire(session, next, next_of_day);
    }
    Alarm::of(DueClock::OfDay).ring_by(next_of_day);
    static_assert(kNeverDue == Deadline::never().ns);
    return {next};
}

void look_at_timers() noexcept {
    Session* const session = Session::current();
    if (session) call_timer_watch(session->region(), session->place());
}

// It may have been set long ago, by others.
void NamedTimer::enlist() noexcept {
    if (listed_) return;
    alarm_.begin(DueClock::OfDay);
    OpenTimers::add(*this);
    call_timer_watch(member_.session().region(), member_.session().place());
}

NamedTimer::~NamedTimer() {
    const std::lock_guard guard(Member::lock());
    if (listed_) OpenTimers::remove(*this);
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
    Region& region = member_.session().region();
    ProcessSet open;
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
        open = object.open;
    }
    call_timer_watches(region, open);
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
