// The forms of the class functions that know a small icon.

#include "desktop.h"
#include "platform/base.h"
#include "platform/windowing.h"

using zr::platform::Desktop;
using zr::platform::WindowClass;

namespace {

// use(class) under the exclusive lock, unless the class has gone meanwhile.
template <class Use>
void with_class(HINSTANCE instance, LPCWSTR name, Use use) {
    const std::u16string key = zr::platform::is_atom(name) ? std::u16string() : zr::platform::fold_name(name);
    Desktop& desktop = Desktop::get();
    const std::unique_lock guard(desktop.lock);
    if (WindowClass* const found = desktop.find_class(instance, name, key)) use(*found);
}

BOOL refuse() {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
}

}  // namespace

ATOM RegisterClassExW(const WNDCLASSEXW* window_class) {
    if (!window_class || window_class->cbSize != sizeof *window_class) {
        refuse();
        return 0;
    }
    const WNDCLASSW plain{window_class->style,        window_class->lpfnWndProc,   window_class->cbClsExtra,
                          window_class->cbWndExtra,   window_class->hInstance,     window_class->hIcon,
                          window_class->hCursor,      window_class->hbrBackground, window_class->lpszMenuName,
                          window_class->lpszClassName};
    const ATOM atom = RegisterClassW(&plain);
    if (atom != 0) {
        with_class(plain.hInstance, MAKEINTATOM(atom),
                   [&](WindowClass& made) { made.small_icon = window_class->hIconSm; });
    }
    return atom;
}

BOOL GetClassInfoExW(HINSTANCE instance, LPCWSTR name, WNDCLASSEXW* window_class) {
    if (!window_class) {
        SetLastError(ERROR_NOACCESS);
        return FALSE;
    }
    if (window_class->cbSize != sizeof *window_class) return refuse();
    WNDCLASSW plain{};
    if (!GetClassInfoW(instance, name, &plain)) return FALSE;
    HICON small_icon = nullptr;
    try {
        with_class(instance, name, [&](const WindowClass& found) { small_icon = found.small_icon; });
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    *window_class = {sizeof *window_class, plain.style,        plain.lpfnWndProc,   plain.cbClsExtra,
                     plain.cbWndExtra,     plain.hInstance,    plain.hIcon,         plain.hCursor,
                     plain.hbrBackground,  plain.lpszMenuName, plain.lpszClassName, small_icon};
    return TRUE;
}
