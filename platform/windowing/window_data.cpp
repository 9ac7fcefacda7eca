#include <algorithm>
#include <cstring>

#include "platform/base.h"
#include "platform/windowing.h"
#include "window_access.h"

using namespace zr::platform;

namespace {

// NULL for an index that is not one of these.
std::atomic<LONG_PTR>* field(Window& window, int index) {
    switch (index) {
        case GWL_WNDPROC:
            return &window.procedure;
        case GWL_USERDATA:
            return &window.user_data;
        case GWL_ID:
            return &window.id;
        case GWL_STYLE:
            return &window.style;
        case GWL_EXSTYLE:
            return &window.ex_style;
        case GWL_HINSTANCE:
            return &window.instance;
        default:
            return nullptr;
    }
}

// The bytes of the window at an offset; NULL, with the error, where a pointer does not fit.
std::byte* extra_at(const Window& window, int index) {
    constexpr int kWidth = static_cast<int>(sizeof(LONG_PTR));
    if (index < 0 || index > window.extra_size - kWidth) {
        SetLastError(ERROR_INVALID_INDEX);
        return nullptr;
    }
    return window.extra.get() + index;
}

LONG_PTR read_extra(HWND handle, int index) {
    return with_window<std::shared_lock>(handle, [index](const Window& window) {
        LONG_PTR value = 0;
        if (index == GWL_HWNDPARENT) {
            value = window.parent ? reinterpret_cast<LONG_PTR>(window.parent->handle) : 0;
        } else if (const std::byte* at = extra_at(window, index)) {
            std::memcpy(&value, at, sizeof value);
        }
        return value;
    });
}

LONG_PTR write_extra(HWND handle, int index, LONG_PTR value) {
    return with_window<std::unique_lock>(handle, [index, value](const Window& window) {
        LONG_PTR before = 0;
        if (std::byte* at = extra_at(window, index)) {
            std::memcpy(&before, at, sizeof before);
            std::memcpy(at, &value, sizeof value);
        }
        return before;
    });
}

bool is_field(int index) {
    return index < 0 && index != GWL_HWNDPARENT;
}

}  // namespace

LONG_PTR GetWindowLongW(HWND window, int index) {
    if (!is_field(index)) return read_extra(window, index);
    return with_atomics(window, [index](Window& w) {
        const std::atomic<LONG_PTR>* at = field(w, index);
        if (!at) SetLastError(ERROR_INVALID_INDEX);
        return at ? at->load() : 0;
    });
}

LONG_PTR SetWindowLongW(HWND window, int index, LONG_PTR value) {
    if (!is_field(index)) return write_extra(window, index, value);
    return with_atomics(window, [index, value](Window& w) {
        std::atomic<LONG_PTR>* at = field(w, index);
        if (at && (index != GWL_WNDPROC || value != 0)) return at->exchange(value);
        SetLastError(at ? ERROR_INVALID_PARAMETER : ERROR_INVALID_INDEX);
        return LONG_PTR{0};
    });
}

LONG_PTR GetWindowLongPtrW(HWND window, int index) {
    return GetWindowLongW(window, index);
}

LONG_PTR SetWindowLongPtrW(HWND window, int index, LONG_PTR value) {
    return SetWindowLongW(window, index, value);
}

// ---- Titles ----

namespace {

std::size_t title_length(const Window& window) {
    return window.title ? wcslen(window.title.get()) : 0;
}

LRESULT set_title(HWND handle, const WCHAR* text) {
    std::unique_ptr<WCHAR[]> title;
    if (text && *text) {
        title = copy_text(text);
        if (!title) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return FALSE;
        }
    }
    return with_window<std::unique_lock>(handle, [&title](Window& window) {
        window.title.swap(title);
        return LRESULT{TRUE};
    });
}

LRESULT get_title(HWND handle, WCHAR* text, std::size_t capacity) {
    if (!text || capacity == 0) return 0;
    text[0] = 0;
    return with_window<std::shared_lock>(handle, [text, capacity](const Window& window) {
        const std::size_t length = std::min(title_length(window), capacity - 1);
        if (length > 0) std::copy_n(window.title.get(), length, text);
        text[length] = 0;
        return static_cast<LRESULT>(length);
    });
}

}  // namespace

BOOL SetWindowTextW(HWND window, LPCWSTR text) {
    return SendMessageW(window, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(text)) > 0 ? TRUE : FALSE;
}

int GetWindowTextW(HWND window, LPWSTR text, int capacity) {
    if (!text || capacity <= 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    text[0] = 0;
    return static_cast<int>(
        SendMessageW(window, WM_GETTEXT, static_cast<WPARAM>(capacity), reinterpret_cast<LPARAM>(text)));
}

int GetWindowTextLengthW(HWND window) {
    return static_cast<int>(SendMessageW(window, WM_GETTEXTLENGTH, 0, 0));
}

// ---- What procedures leave over ----

LRESULT DefWindowProcW(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    switch (message) {
        case WM_CLOSE:
            DestroyWindow(window);
            return 0;
        case WM_SETTEXT:
            return set_title(window, reinterpret_cast<const WCHAR*>(lparam));
        case WM_GETTEXT:
            return get_title(window, reinterpret_cast<WCHAR*>(lparam), wparam);
        case WM_GETTEXTLENGTH:
            return with_window<std::shared_lock>(window,
                                                 [](const Window& w) { return static_cast<LRESULT>(title_length(w)); });
        case WM_SETFONT:
            with_atomics(window, [wparam](Window& w) {
                w.font = static_cast<LONG_PTR>(wparam);
                return 0;
            });
            return 0;
        case WM_GETFONT:
            return with_atomics(window, [](const Window& w) { return static_cast<LRESULT>(w.font.load()); });
        default:
            return 0;
    }
}

LRESULT CallWindowProcW(WNDPROC procedure, HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    return procedure ? procedure(window, message, wparam, lparam) : 0;
}
