// The change notifications, for as long as nobody listens to the changes.

#include "platform/base.h"
#include "platform/registry.h"

HANDLE CeFindFirstRegChange(HKEY, BOOL, DWORD) {
    SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    return INVALID_HANDLE_VALUE;
}
BOOL CeFindNextRegChange(HANDLE) {
    SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    return FALSE;
}
BOOL CeFindCloseRegChange(HANDLE) {
    SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    return FALSE;
}
