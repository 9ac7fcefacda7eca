#include <sched.h>

#include "mutex.h"
#include "named/objects.h"
#include "platform/kernel.h"
#include "quick_pin.h"
#include "semaphore_object.h"

using namespace zr::platform;

namespace {

// A mutex, an event or a semaphore that can be taken at once.
Waitable::Attempt take_quickly(Thread& self, HANDLE handle) noexcept {
    const QuickPin quick(self, handle);
    if (Mutex* const mutex = quick.get<Mutex>()) return mutex->try_lock(self);
    if (Event* const event = quick.get<Event>()) return event->try_take();
    if (Semaphore* const semaphore = quick.get<Semaphore>()) return semaphore->try_take();
    if (named::NamedMutex* const mutex = quick.get<named::NamedMutex>()) return mutex->try_lock(self);
    return Waitable::Attempt::No;
}

bool is_taken_quickly(const Waitable& object) noexcept {
    return object.kind() <= ObjectKind::Semaphore || object.kind() == ObjectKind::NamedMutex;
}

}  // namespace

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    Thread& self = ThreadAccess::current();
    if (!ThreadAccess::must_end(self)) [[likely]] {
        const Waitable::Attempt attempt = take_quickly(self, handle);
        if (attempt == Waitable::Attempt::Taken) [[likely]]
            return WAIT_OBJECT_0;
        if (attempt == Waitable::Attempt::TakenAbandoned) return WAIT_ABANDONED;
    }
    const Pin pin(handle);
    Waitable* object = pin ? pin.object()->waitable() : nullptr;
    if (!object) {
        cancellation_point();
        report_invalid_handle();
        return WAIT_FAILED;
    }
    if (is_taken_quickly(*object)) note_use(pin);
    return wait(*object, Deadline::after(milliseconds)).code();
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL wait_all, DWORD milliseconds) {
    cancellation_point();
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || !handles) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    WaitSet set;
    for (DWORD i = 0; i < count; ++i) {
        if (!set.add(handles[i])) return WAIT_FAILED;
    }
    const WaitMode mode = wait_all != FALSE ? WaitMode::All : WaitMode::Any;
    if (mode == WaitMode::All && set.has_duplicates()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    return set.wait(mode, Deadline::after(milliseconds)).code();
}

void Sleep(DWORD milliseconds) {
    if (milliseconds == 0) {
        cancellation_point();
        sched_yield();
        return;
    }
    wait({}, WaitMode::Any, Deadline::after(milliseconds));
}
