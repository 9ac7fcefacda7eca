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
    if (!target && !close_source) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const Pin pin(source);
    if (!pin) {
        report_invalid_handle();
        return FALSE;
    }
    HANDLE copy = nullptr;
    if (target) copy = *target = open_handle(*pin.object());
    if (close_source) CloseHandle(source);
    return !target || copy ? TRUE : FALSE;
}
