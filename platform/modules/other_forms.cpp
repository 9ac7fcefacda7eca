// Loading and finding, in the other forms that there are of these calls.

#include <new>

#include "base/utf.h"
#include "kernel/thread.h"
#include "platform/base.h"
#include "platform/modules.h"

HMODULE LoadLibraryExW(LPCWSTR path, HANDLE file, DWORD flags) {
    constexpr DWORD without_running = DONT_RESOLVE_DLL_REFERENCES | LOAD_LIBRARY_AS_DATAFILE;
    if (file || (flags & ~(without_running | LOAD_WITH_ALTERED_SEARCH_PATH)) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if ((flags & without_running) != 0) {
        SetLastError(ERROR_NOT_SUPPORTED);
        return nullptr;
    }
    return LoadLibraryW(path);
}

FARPROC GetProcAddressA(HMODULE module, LPCSTR name) {
    zr::platform::cancellation_point();
    try {
        const bool is_ordinal = name && (reinterpret_cast<UINT_PTR>(name) >> 16) == 0;
        // The module is looked at all the same, and nothing is called by the empty name.
        const std::u16string wide = zr::platform::host_to_wide(is_ordinal || !name ? "" : name);
        return GetProcAddressW(module, name ? wide.c_str() : nullptr);
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
}
