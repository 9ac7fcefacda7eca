// Moving windows in the tree, and enabling them.

#include <algorithm>

#include "kernel/thread.h"
#include "platform/windowing.h"
#include "window_access.h"

using namespace zr::platform;

namespace {

// How many levels there are below the window.
int height(const Window& window) {
    int most = 0;
    for (const Window* child = window.first_child; child; child = child->next) {
        most = std::max(most, height(*child) + 1);
    }
    return most;
}

void set_depth(Window& window, int depth) {
    window.depth = depth;
    for (Window* child = window.first_child; child; child = child->next) {
        set_depth(*child, depth + 1);
    }
}

// A child whose parent has gone, and whose own thread has not come round to destroying it.
bool is_orphan(const Window& window) {
    return window.doom.kind == SendRequest::Kind::Destroy;
}

bool is_usable(const Window* window) {
    return window && !window->destroying && !is_orphan(*window);
}

// An error code. Under the exclusive lock.
DWORD move(Desktop& desktop, HWND handle, HWND parent_handle, HWND& before) {
    Window* const window = desktop.table.find(handle);
    const bool to_top = !parent_handle || parent_handle == HWND_MESSAGE || parent_handle == desktop_window();
    Window* const parent = to_top ? nullptr : desktop.table.find(parent_handle);
    if (!is_usable(window) || (!to_top && !is_usable(parent))) return ERROR_INVALID_WINDOW_HANDLE;
    if (parent == window || (parent && is_below(window, parent))) return ERROR_INVALID_PARAMETER;
    if (parent && parent->depth + 1 + height(*window) > kDeepestWindow) return ERROR_INVALID_PARAMETER;
    before = window->parent ? window->parent->handle : desktop_window();
    desktop.unlink(*window);
    desktop.link(*window, parent);
    set_depth(*window, window->depth);
    return ERROR_SUCCESS;
}

}  // namespace

HWND GetDesktopWindow() {
    return desktop_window();
}

HWND SetParent(HWND window, HWND parent) {
    cancellation_point();
    HWND before = nullptr;
    DWORD error = ERROR_SUCCESS;
    {
        Desktop& desktop = Desktop::get();
        const std::unique_lock guard(desktop.lock);
        error = move(desktop, window, parent, before);
    }
    if (error != ERROR_SUCCESS) SetLastError(error);
    return before;
}

BOOL EnableWindow(HWND window, BOOL enable) {
    cancellation_point();
    constexpr LONG_PTR disabled = WS_DISABLED;
    if (!with_atomics(window, [](const Window&) { return true; })) return FALSE;
    if (!enable && IsWindowEnabled(window)) SendMessageW(window, WM_CANCELMODE, 0, 0);
    const LONG_PTR before = with_atomics(
        window, [enable](Window& w) { return enable ? w.style.fetch_and(~disabled) : w.style.fetch_or(disabled); });
    const bool was_disabled = (before & disabled) != 0;
    if (was_disabled == (enable != FALSE)) SendMessageW(window, WM_ENABLE, enable ? TRUE : FALSE, 0);
    return was_disabled ? TRUE : FALSE;
}

BOOL IsWindowEnabled(HWND window) {
    return with_atomics(window, [](const Window& w) { return (w.style.load() & WS_DISABLED) == 0 ? TRUE : FALSE; });
}
