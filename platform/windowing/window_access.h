#pragma once

// How the functions get at a window: without the lock where it is the calling thread's own, else under it.

#include <mutex>
#include <shared_mutex>

#include "desktop.h"
#include "platform/base.h"

namespace zr::platform {

inline Window* own_window(HWND window) {
    return Desktop::get().table.find_own(window, MessageQueue::existing());
}

// Calls use(Window&) under the lock, shared (std::shared_lock) or exclusive (std::unique_lock). Without such a window:
// ERROR_INVALID_WINDOW_HANDLE and a value-initialised result.
template <template <class> class Lock, class Use>
auto with_window(HWND window, Use use) -> decltype(use(std::declval<Window&>())) {
    {
        Desktop& desktop = Desktop::get();
        const Lock<std::shared_mutex> guard(desktop.lock);
        if (Window* found = desktop.table.find(window)) return use(*found);
    }
    SetLastError(ERROR_INVALID_WINDOW_HANDLE);
    return {};
}

// For what is atomic in a window.
template <class Use>
auto with_atomics(HWND window, Use use) -> decltype(use(std::declval<Window&>())) {
    if (Window* own = own_window(window)) return use(*own);
    return with_window<std::shared_lock>(window, use);
}

}  // namespace zr::platform
