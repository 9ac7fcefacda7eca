#include "platform/cursor.h"

#include <algorithm>
#include <atomic>

#include "platform/base.h"

namespace {

std::atomic<HCURSOR> current{nullptr};

bool is_system_cursor(UINT_PTR number) {
    static const UINT_PTR all[] = {32512, 32513, 32514, 32515, 32516, 32642, 32643,
                                   32644, 32645, 32646, 32648, 32649, 32650, 32651};
    return std::ranges::binary_search(all, number);
}

// A cursor's handle is its number: it means nothing more, and is no pointer.
UINT_PTR number_of(HCURSOR cursor) {
    return reinterpret_cast<UINT_PTR>(cursor);
}

}  // namespace

HCURSOR LoadCursorW(HINSTANCE instance, LPCWSTR name) {
    const auto number = reinterpret_cast<UINT_PTR>(name);
    if (instance == nullptr && is_system_cursor(number)) return reinterpret_cast<HCURSOR>(number);
    SetLastError(ERROR_RESOURCE_NAME_NOT_FOUND);
    return nullptr;
}

HCURSOR SetCursor(HCURSOR cursor) {
    if (cursor != nullptr && !is_system_cursor(number_of(cursor))) {
        SetLastError(ERROR_INVALID_CURSOR_HANDLE);
        return nullptr;
    }
    return current.exchange(cursor);
}

HCURSOR GetCursor() {
    return current;
}
