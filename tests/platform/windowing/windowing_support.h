#pragma once

// Windows whose procedure is a function object, and threads that pump.

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "platform/base.h"
#include "platform/diagnostics.h"
#include "platform/kernel.h"
#include "platform/windowing.h"

namespace windowing_test {

using Handler = std::function<LRESULT(HWND, UINT, WPARAM, LPARAM)>;

inline constexpr const WCHAR* kClass = u"windowing.test";

inline LRESULT procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    if (message == WM_CREATE) {
        SetWindowLongW(window, GWL_USERDATA,
                       reinterpret_cast<LONG_PTR>(reinterpret_cast<CREATESTRUCTW*>(lparam)->lpCreateParams));
    }
    const auto* handler = reinterpret_cast<const Handler*>(GetWindowLongW(window, GWL_USERDATA));
    return handler && *handler ? (*handler)(window, message, wparam, lparam)
                               : DefWindowProcW(window, message, wparam, lparam);
}

inline void register_class() {
    WNDCLASSW description{};
    description.lpfnWndProc = procedure;
    description.lpszClassName = kClass;
    if (RegisterClassW(&description) == 0) {
        ASSERT_EQ(GetLastError(), ERROR_CLASS_ALREADY_EXISTS);
    }
}

// The handler must outlive the window.
inline HWND make_window(const Handler* handler, HWND parent = nullptr) {
    register_class();
    return CreateWindowExW(0, kClass, nullptr, 0, 0, 0, 0, 0, parent, nullptr, nullptr, const_cast<Handler*>(handler));
}

// A window on the current thread.
class TestWindow {
public:
    explicit TestWindow(Handler handler = {}, HWND parent = nullptr)
        : handler_(std::move(handler)), window_(make_window(&handler_, parent)) {
        EXPECT_NE(window_, nullptr);
    }
    ~TestWindow() {
        if (IsWindow(window_)) {
            EXPECT_TRUE(DestroyWindow(window_));
        }
    }
    TestWindow(const TestWindow&) = delete;
    TestWindow& operator=(const TestWindow&) = delete;
    operator HWND() const { return window_; }  // NOLINT(google-explicit-constructor)

private:
    Handler handler_;
    HWND window_;
};

// GetMessageW and DispatchMessageW until WM_QUIT; its exit code.
inline WPARAM pump() {
    MSG message{};
    while (GetMessageW(&message, nullptr, 0, 0) > 0)
        DispatchMessageW(&message);
    return message.wParam;
}

// Everything that is in the queue now.
inline void drain() {
    MSG message{};
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE))
        DispatchMessageW(&message);
}

// A thread with a window, pumping until the object ends.
class PumpThread {
public:
    explicit PumpThread(Handler handler = {}) : handler_(std::move(handler)) {
        std::promise<HWND> made;
        auto window = made.get_future();
        thread_ = std::thread([this, &made] {
            id_ = GetCurrentThreadId();
            const HWND own = make_window(&handler_);
            made.set_value(own);
            pump();
            if (IsWindow(own)) DestroyWindow(own);
        });
        window_ = window.get();
    }
    ~PumpThread() { end(); }
    PumpThread(const PumpThread&) = delete;
    PumpThread& operator=(const PumpThread&) = delete;

    void end() {
        if (!thread_.joinable()) return;
        PostThreadMessageW(id_, WM_QUIT, 0, 0);
        thread_.join();
    }
    HWND window() const { return window_; }
    DWORD id() const { return id_; }

private:
    Handler handler_;
    std::thread thread_;
    HWND window_ = nullptr;
    DWORD id_ = 0;
};

// A kernel event that closes with its object.
class TestEvent {
public:
    explicit TestEvent(bool manual_reset = true, bool set = false)
        : event_(CreateEventW(nullptr, manual_reset, set, nullptr)) {}
    ~TestEvent() { CloseHandle(event_); }
    TestEvent(const TestEvent&) = delete;
    TestEvent& operator=(const TestEvent&) = delete;
    void set() const { SetEvent(event_); }
    bool wait(DWORD milliseconds = INFINITE) const {
        return WaitForSingleObject(event_, milliseconds) == WAIT_OBJECT_0;
    }
    operator HANDLE() const { return event_; }  // NOLINT(google-explicit-constructor)

private:
    HANDLE event_;
};

// Runs something on a thread of its own and waits for it.
template <class Function>
void on_thread(Function function) {
    std::thread(function).join();
}

}  // namespace windowing_test
