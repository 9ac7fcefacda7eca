#include <sched.h>

#include "platform/kernel.h"
#include "thread.h"
#include "waitable.h"

using namespace zr::platform;

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    const Pin pin(handle);
    Waitable* object = pin ? pin.object()->waitable() : nullptr;
    if (!object) {
        cancellation_point();
        report_invalid_handle();
        return WAIT_FAILED;
    }
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
