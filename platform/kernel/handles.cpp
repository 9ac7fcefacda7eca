#include "kernel/handle_table.h"
#include "kernel/thread.h"
#include "platform/kernel.h"

using namespace zr::platform;

BOOL CloseHandle(HANDLE object) {
    if (object == GetCurrentThread() || object == GetCurrentProcess()) return TRUE;
    return close_handle(object) ? TRUE : FALSE;
}

BOOL DuplicateHandle(HANDLE source_process, HANDLE source, HANDLE target_process, HANDLE* target, DWORD, BOOL,
                     DWORD options) {
    cancellation_point();
    if (source_process != GetCurrentProcess() || target_process != GetCurrentProcess()) {
        SetLastError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    const bool close_source = (options & DUPLICATE_CLOSE_SOURCE) != 0;
    const Pin pin(source);
    if (!pin) {
        report_invalid_handle();
        return FALSE;
    }
    // Who wants no copy to be told of and the source closed wants it closed.
    const bool wants_copy = target || !close_source;
    const HANDLE copy = wants_copy ? open_handle(*pin.object()) : nullptr;
    if (target) *target = copy;
    if (close_source) CloseHandle(source);
    return copy || !wants_copy ? TRUE : FALSE;
}
