#pragma once

// What there is to a window. Atomics may be read by the owning thread without the desktop's lock; everything else is
// read under the lock, and changed with it held exclusively.

#include <atomic>
#include <cstddef>
#include <memory>

#include "message_queue.h"

namespace zr::platform {

struct WindowClass;

// What a class of the platform's own keeps in a window: goes with it. The owning thread's alone.
struct WindowData {
    WindowData() = default;
    WindowData(const WindowData&) = delete;
    WindowData& operator=(const WindowData&) = delete;
    virtual ~WindowData() = default;
};

inline constexpr int kDeepestWindow = 100;  // levels of parents

struct Window {
    HWND handle = nullptr;
    Ref<MessageQueue> queue;
    WindowClass* window_class = nullptr;

    std::atomic<LONG_PTR> procedure{0};
    std::atomic<LONG_PTR> user_data{0};
    std::atomic<LONG_PTR> id{0};
    std::atomic<LONG_PTR> style{0};
    std::atomic<LONG_PTR> ex_style{0};
    std::atomic<LONG_PTR> instance{0};
    std::atomic<LONG_PTR> font{0};

    std::unique_ptr<std::byte[]> extra;
    int extra_size = 0;
    std::unique_ptr<WCHAR[]> title;  // NULL: empty
    std::unique_ptr<WindowData> data;
    RECT place{0, 0, 0, 0};  // in the client area of its parent

    Window* parent = nullptr;
    Window* first_child = nullptr;
    Window* last_child = nullptr;
    Window* previous = nullptr;  // siblings
    Window* next = nullptr;
    int depth = 0;

    Window* previous_own = nullptr;  // windows of one thread
    Window* next_own = nullptr;

    bool destroying = false;  // WM_DESTROY has been or is being handled
    SendRequest doom;         // asks the owning thread to destroy it; here so that asking cannot fail
};

// A copy of a text, with its NUL. NULL when memory is short.
std::unique_ptr<WCHAR[]> copy_text(const WCHAR* text) noexcept;

inline LRESULT call_procedure(LONG_PTR procedure, HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    return reinterpret_cast<WNDPROC>(procedure)(window, message, wparam, lparam);
}

}  // namespace zr::platform
