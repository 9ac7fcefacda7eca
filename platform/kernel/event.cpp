#include <new>
#include <utility>

#include "named/objects.h"
#include "names.h"
#include "platform/kernel.h"
#include "quick_pin.h"

namespace zr::platform {

Event::Event(bool manual_reset, bool signalled, ObjectKind kind) noexcept
    : Waitable(kind), manual_reset_(manual_reset) {
    word_.store(signalled ? kSignalled : 0, std::memory_order_relaxed);
}

bool Event::try_set() noexcept {
    std::uint32_t word = word_.load(std::memory_order_relaxed);
    while ((word & kHasWaiters) == 0) {
        // Also when it is set already: who takes the signal has to see what the setter did before.
        if (word_.compare_exchange_weak(word, kSignalled, std::memory_order_acq_rel, std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

void Event::set() noexcept {
    if (try_set()) return;
    Wakeups wakeups;
    const std::lock_guard guard(Engine::lock);
    word_.fetch_or(kSignalled, std::memory_order_acq_rel);
    Engine::serve(*this, wakeups);
}

void Event::reset() noexcept {
    std::uint32_t word = word_.load(std::memory_order_relaxed);
    while ((word & kHasWaiters) == 0) {
        if (word_.compare_exchange_weak(word, 0, std::memory_order_acq_rel, std::memory_order_relaxed)) return;
    }
    const std::lock_guard guard(Engine::lock);
    word_.fetch_and(~kSignalled, std::memory_order_acq_rel);
}

void Event::pulse() noexcept {
    Wakeups wakeups;
    const std::lock_guard guard(Engine::lock);
    word_.fetch_or(kSignalled, std::memory_order_acq_rel);
    Engine::serve(*this, wakeups);
    word_.fetch_and(~kSignalled, std::memory_order_acq_rel);
}

bool Event::is_signalled(const Thread&) const noexcept {
    return is_set();
}

bool Event::acquire(Thread&) noexcept {
    if (!manual_reset_) word_.fetch_and(~kSignalled, std::memory_order_acq_rel);
    return false;
}

bool Event::is_exhausted() const noexcept {
    return !is_set();
}

Waitable::Attempt Event::try_take() noexcept {
    if (manual_reset_) return is_set() ? Attempt::Taken : Attempt::No;
    std::uint32_t word = kSignalled;
    if (word_.load(std::memory_order_relaxed) != kSignalled) return Attempt::No;
    return word_.compare_exchange_strong(word, 0, std::memory_order_acq_rel, std::memory_order_relaxed) ? Attempt::Taken
                                                                                                        : Attempt::No;
}

Waitable::Attempt Event::try_acquire(Thread&) noexcept {
    return try_take();
}

namespace {

using named::NamedEvent;

BOOL modify(HANDLE handle, void (Event::*action)() noexcept, bool (NamedEvent::*named_action)() noexcept) {
    cancellation_point();
    Pin pin(handle);
    if (Event* const event = pin ? pin.object()->event() : nullptr) {
        if (event->kind() == ObjectKind::Event) note_use(pin);
        (event->*action)();
        return TRUE;
    }
    const Pinned<NamedEvent> event(std::move(pin));
    if (event && (event.get()->*named_action)()) return TRUE;
    report_invalid_handle();
    return FALSE;
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

HANDLE CreateEventW(LPSECURITY_ATTRIBUTES, BOOL manual_reset, BOOL initial_state, LPCWSTR name) {
    cancellation_point();
    if (is_name(name)) return named::create_event(name, manual_reset != FALSE, initial_state != FALSE);
    SetLastError(ERROR_SUCCESS);
    const Ref<Event> event = Ref<Event>::adopt(new (std::nothrow) Event(manual_reset != FALSE, initial_state != FALSE));
    if (!event) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return open_handle(*event);
}

HANDLE OpenEventW(DWORD, BOOL, LPCWSTR name) {
    cancellation_point();
    return named::open_event(name);
}

BOOL SetEvent(HANDLE handle) {
    Thread& self = ThreadAccess::current();
    if (!ThreadAccess::must_end(self)) [[likely]] {
        const QuickPin quick(self, handle);
        Event* const event = quick.get<Event>();
        if (event && event->try_set()) return TRUE;
    }
    return modify(handle, &Event::set, &NamedEvent::set);
}

BOOL ResetEvent(HANDLE event) {
    return modify(event, &Event::reset, &NamedEvent::reset);
}

BOOL PulseEvent(HANDLE event) {
    return modify(event, &Event::pulse, &NamedEvent::pulse);
}

BOOL EventModify(HANDLE event, DWORD action) {
    switch (action) {
        case EVENT_PULSE:
            return PulseEvent(event);
        case EVENT_RESET:
            return ResetEvent(event);
        case EVENT_SET:
            return SetEvent(event);
        default:
            SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
    }
}
