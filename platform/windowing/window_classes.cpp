#include <algorithm>
#include <new>

#include "desktop.h"
#include "kernel/thread.h"
#include "platform/base.h"
#include "platform/windowing.h"
#include "system_classes.h"

using zr::platform::Desktop;
using zr::platform::WindowClass;

namespace {

constexpr int kMostExtra = 0xFFFF;

bool is_valid(const WNDCLASSW* description) {
    return description && description->lpszClassName && !zr::platform::is_atom(description->lpszClassName) &&
           description->lpszClassName[0] && description->lpfnWndProc && description->cbClsExtra >= 0 &&
           description->cbClsExtra <= kMostExtra && description->cbWndExtra >= 0 &&
           description->cbWndExtra <= kMostExtra &&
           wcslen(description->lpszClassName) <= zr::platform::kLongestAtomName;
}

// The folded form of a class name; of an atom or NULL nothing is left to fold.
std::u16string folded(LPCWSTR name) {
    return zr::platform::is_atom(name) ? std::u16string() : zr::platform::fold_name(name);
}

ATOM add_class(Desktop& desktop, const WNDCLASSW& description) {
    const std::u16string key = folded(description.lpszClassName);
    std::u16string name(description.lpszClassName);
    const std::unique_lock guard(desktop.lock);
    if (desktop.find_own_class(description.hInstance, description.lpszClassName, key)) {
        SetLastError(ERROR_CLASS_ALREADY_EXISTS);
        return 0;
    }
    const ATOM atom = desktop.atoms.add(key);
    if (atom == 0) throw std::bad_alloc();
    WNDCLASSW kept = description;
    kept.lpszClassName = kept.lpszMenuName = nullptr;
    try {
        desktop.classes.emplace(std::pair(atom, Desktop::owner_of_classes(description.hInstance)),
                                WindowClass{kept, atom, 0, std::move(name), nullptr});
    } catch (...) {
        desktop.atoms.release(atom);
        throw;
    }
    return atom;
}

}  // namespace

ATOM RegisterClassW(const WNDCLASSW* window_class) {
    zr::platform::cancellation_point();
    if (!is_valid(window_class)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    try {
        return add_class(Desktop::get(), *window_class);
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }
}

BOOL UnregisterClassW(LPCWSTR name, HINSTANCE instance) {
    try {
        const std::u16string key = folded(name);
        Desktop& desktop = Desktop::get();
        const std::unique_lock guard(desktop.lock);
        const WindowClass* found = desktop.find_own_class(instance, name, key);
        if (!found || found->windows != 0) {
            SetLastError(found ? ERROR_CLASS_HAS_WINDOWS : ERROR_CLASS_DOES_NOT_EXIST);
            return FALSE;
        }
        const ATOM atom = found->atom;
        desktop.classes.erase({atom, Desktop::owner_of_classes(instance)});
        desktop.atoms.release(atom);
        return TRUE;
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
}

BOOL GetClassInfoW(HINSTANCE instance, LPCWSTR name, WNDCLASSW* window_class) {
    zr::platform::cancellation_point();
    if (!window_class) {
        SetLastError(ERROR_NOACCESS);
        return FALSE;
    }
    try {
        const std::u16string key = folded(name);
        Desktop& desktop = Desktop::get();
        zr::platform::add_system_classes(desktop);
        const std::shared_lock guard(desktop.lock);
        const WindowClass* found = desktop.find_class(instance, name, key);
        if (!found) {
            SetLastError(ERROR_CLASS_DOES_NOT_EXIST);
            return FALSE;
        }
        *window_class = found->registered;
        window_class->lpszClassName = name;
        return TRUE;
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
}

int GetClassNameW(HWND window, LPWSTR name, int capacity) {
    if (!name || capacity <= 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    Desktop& desktop = Desktop::get();
    const std::shared_lock guard(desktop.lock);
    const zr::platform::Window* found = desktop.table.find(window);
    if (!found && window != zr::platform::desktop_window()) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return 0;
    }
    const std::u16string_view full = found ? std::u16string_view(found->window_class->name) : u"#32769";
    const std::size_t length = std::min(full.size(), static_cast<std::size_t>(capacity) - 1);
    std::copy_n(full.data(), length, name);
    name[length] = 0;
    return static_cast<int>(length);
}

UINT RegisterWindowMessageW(LPCWSTR name) {
    if (zr::platform::is_atom(name) || !*name || wcslen(name) > zr::platform::kLongestAtomName) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    try {
        const std::u16string key = folded(name);
        Desktop& desktop = Desktop::get();
        const std::unique_lock guard(desktop.lock);
        const ATOM atom = desktop.atoms.add(key);
        if (atom == 0) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return atom;
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }
}
