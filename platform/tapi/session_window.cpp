#include "session_window.h"

#include <new>

#include "exchange.h"
#include "platform/kernel.h"

namespace zr::platform {
namespace {

constexpr const WCHAR* kWindowClass = u"zr.calls";
constexpr UINT kEndMessage = kLookMessage + 1;

LRESULT look(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    if (message == kLookMessage) {
        Exchange::deliver(static_cast<HLINEAPP>(wparam));
        return 0;
    }
    if (message == kEndMessage) {
        DestroyWindow(window);
        return 0;
    }
    return DefWindowProcW(window, message, wparam, lparam);
}

}  // namespace

HWND make_session_window() {
    HWND window = CreateWindowExW(0, kWindowClass, nullptr, 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
    if (window != nullptr) return window;
    WNDCLASSW made{};
    made.lpfnWndProc = look;
    made.lpszClassName = kWindowClass;
    RegisterClassW(&made);
    return CreateWindowExW(0, kWindowClass, nullptr, 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
}

void end_session_window(HWND window, DWORD thread) {
    if (thread == GetCurrentThreadId()) {
        DestroyWindow(window);
    } else {
        PostMessageW(window, kEndMessage, 0, 0);
    }
}

}  // namespace zr::platform
