// The tree of windows, classes with a small icon, and sending with a callback.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "platform/windowing/windowing_support.h"

using namespace windowing_test;

namespace {

TEST(ClassesEx, KeepTheSmallIcon) {
    WNDCLASSEXW description{};
    description.cbSize = sizeof description;
    description.lpfnWndProc = DefWindowProcW;
    description.cbWndExtra = 8;
    description.lpszClassName = u"parity.ex";
    description.hIcon = reinterpret_cast<HICON>(UINT_PTR{16});
    description.hIconSm = reinterpret_cast<HICON>(UINT_PTR{32});
    const ATOM atom = RegisterClassExW(&description);
    ASSERT_NE(atom, 0);
    WNDCLASSEXW found{};
    found.cbSize = sizeof found;
    EXPECT_TRUE(GetClassInfoExW(nullptr, u"Parity.EX", &found));
    EXPECT_EQ(found.hIconSm, description.hIconSm);
    EXPECT_EQ(found.hIcon, description.hIcon);
    EXPECT_EQ(found.cbWndExtra, 8);
    EXPECT_EQ(found.cbSize, sizeof found);
    WNDCLASSW plain{};
    EXPECT_TRUE(GetClassInfoW(nullptr, u"parity.ex", &plain));
    EXPECT_EQ(RegisterClassExW(&description), 0);
    EXPECT_EQ(GetLastError(), ERROR_CLASS_ALREADY_EXISTS);
    const HWND window = CreateWindowW(MAKEINTATOM(atom), u"", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    EXPECT_NE(window, nullptr);
    EXPECT_TRUE(DestroyWindow(window));
    EXPECT_TRUE(UnregisterClassW(u"parity.ex", nullptr));
    EXPECT_FALSE(GetClassInfoExW(nullptr, u"parity.ex", &found));
    EXPECT_EQ(GetLastError(), ERROR_CLASS_DOES_NOT_EXIST);
}

TEST(ClassesEx, AnotherSizeIsRefused) {
    WNDCLASSEXW description{};
    description.cbSize = sizeof(WNDCLASSW);
    description.lpfnWndProc = DefWindowProcW;
    description.lpszClassName = u"parity.ex";
    EXPECT_EQ(RegisterClassExW(&description), 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegisterClassExW(nullptr), 0);
    EXPECT_FALSE(GetClassInfoExW(nullptr, u"parity.ex", &description));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(DesktopWindow, IsTheRootOfAll) {
    const HWND desktop = GetDesktopWindow();
    EXPECT_TRUE(IsWindow(desktop));
    WCHAR name[16] = {};
    EXPECT_EQ(GetClassNameW(desktop, name, 16), 6);
    EXPECT_EQ(std::u16string(name), u"#32769");
    const TestWindow first;
    const TestWindow second;
    EXPECT_EQ(GetWindow(desktop, GW_CHILD), first);
    register_class();
    const HWND child = CreateWindowExW(0, kClass, nullptr, WS_CHILD, 0, 0, 0, 0, desktop, nullptr, nullptr, nullptr);
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(GetParent(child), nullptr);
    EXPECT_EQ(GetWindow(second, GW_HWNDNEXT), child);
    EXPECT_TRUE(DestroyWindow(child));
    EXPECT_FALSE(DestroyWindow(desktop));
    SetLastError(NO_ERROR);
    EXPECT_FALSE(PostMessageW(desktop, WM_APP, 0, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
}

TEST(SetParent, MovesAWindowWithAllBelowIt) {
    const TestWindow a;
    const TestWindow b;
    const TestWindow child({}, a);
    const TestWindow grandchild({}, child);
    EXPECT_EQ(SetParent(child, b), HWND{a});
    EXPECT_EQ(GetParent(child), HWND{b});
    EXPECT_TRUE(IsChild(b, grandchild));
    EXPECT_FALSE(IsChild(a, grandchild));
    EXPECT_EQ(GetWindow(a, GW_CHILD), nullptr);
    EXPECT_EQ(SetParent(child, nullptr), HWND{b});
    EXPECT_EQ(GetParent(child), nullptr);
    EXPECT_EQ(SetParent(child, a), GetDesktopWindow());
    EXPECT_EQ(SetParent(child, GetDesktopWindow()), HWND{a});
    EXPECT_EQ(SetParent(child, a), GetDesktopWindow());
}

TEST(SetParent, GoesWithTheNewParent) {
    auto a = std::make_unique<TestWindow>();
    auto b = std::make_unique<TestWindow>();
    const TestWindow child({}, *a);
    ASSERT_EQ(SetParent(child, *b), HWND{*a});
    a.reset();
    EXPECT_TRUE(IsWindow(child));
    b.reset();
    EXPECT_FALSE(IsWindow(child));
}

TEST(SetParent, RefusesWhatIsNoTree) {
    const TestWindow a;
    const TestWindow child({}, a);
    SetLastError(NO_ERROR);
    EXPECT_EQ(SetParent(a, child), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(SetParent(a, a), nullptr);
    SetLastError(NO_ERROR);
    EXPECT_EQ(SetParent(a, reinterpret_cast<HWND>(UINT_PTR{0x77770001})), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    SetLastError(NO_ERROR);
    EXPECT_EQ(SetParent(GetDesktopWindow(), a), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    // A hundred levels below the topmost are the most, those that are moved along included.
    std::vector<std::unique_ptr<TestWindow>> chain;
    chain.push_back(std::make_unique<TestWindow>());
    for (int i = 0; i < 99; ++i) {
        chain.push_back(std::make_unique<TestWindow>(Handler{}, *chain.back()));
    }
    EXPECT_EQ(SetParent(a, *chain.back()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(SetParent(a, *chain[98]), GetDesktopWindow());
    EXPECT_EQ(SetParent(a, nullptr), HWND{*chain[98]});
    while (!chain.empty()) {
        chain.pop_back();
    }
}

TEST(EnableWindow, TellsTheWindowOfAChange) {
    std::vector<std::pair<UINT, WPARAM>> told;
    const TestWindow window([&](HWND self, UINT message, WPARAM wparam, LPARAM lparam) {
        if (message == WM_ENABLE || message == WM_CANCELMODE) told.emplace_back(message, wparam);
        return DefWindowProcW(self, message, wparam, lparam);
    });
    EXPECT_TRUE(IsWindowEnabled(window));
    EXPECT_FALSE(EnableWindow(window, TRUE));
    EXPECT_TRUE(told.empty());
    EXPECT_FALSE(EnableWindow(window, FALSE));
    EXPECT_FALSE(IsWindowEnabled(window));
    EXPECT_NE(GetWindowLongW(window, GWL_STYLE) & WS_DISABLED, 0);
    EXPECT_TRUE(EnableWindow(window, FALSE));
    EXPECT_TRUE(EnableWindow(window, TRUE));
    EXPECT_TRUE(IsWindowEnabled(window));
    const std::vector<std::pair<UINT, WPARAM>> expected{{WM_CANCELMODE, 0}, {WM_ENABLE, 0}, {WM_ENABLE, 1}};
    EXPECT_EQ(told, expected);
    SetLastError(NO_ERROR);
    EXPECT_FALSE(EnableWindow(reinterpret_cast<HWND>(UINT_PTR{0x77770001}), FALSE));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    EXPECT_FALSE(IsWindowEnabled(nullptr));
}

struct Answer {
    HWND window;
    UINT message;
    ULONG_PTR data;
    LRESULT result;
    DWORD thread;
};
thread_local std::vector<Answer> answers;

void note(HWND window, UINT message, ULONG_PTR data, LRESULT result) {
    answers.push_back({window, message, data, result, GetCurrentThreadId()});
}

TEST(SendMessageCallback, ToAnOwnWindowIsCalledAtOnce) {
    answers.clear();
    const TestWindow window([](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        return message == WM_APP ? static_cast<LRESULT>(wparam) + 1 : DefWindowProcW(self, message, wparam, lparam);
    });
    EXPECT_TRUE(SendMessageCallbackW(window, WM_APP, 41, 0, note, 7));
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].window, window);
    EXPECT_EQ(answers[0].message, WM_APP);
    EXPECT_EQ(answers[0].data, 7u);
    EXPECT_EQ(answers[0].result, 42);
}

TEST(SendMessageCallback, FromAnotherThreadIsCalledWhenTheSenderLooksIntoItsQueue) {
    answers.clear();
    const TestEvent handled(false);
    const PumpThread other([&](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message != WM_APP) return DefWindowProcW(self, message, wparam, lparam);
        EXPECT_TRUE(InSendMessage());
        handled.set();
        return static_cast<LRESULT>(wparam) * 2;
    });
    EXPECT_TRUE(SendMessageCallbackW(other.window(), WM_APP, 21, 0, note, 5));
    EXPECT_TRUE(handled.wait());
    EXPECT_TRUE(answers.empty());
    // The answer wakes who waits for what is sent.
    EXPECT_EQ(MsgWaitForMultipleObjectsEx(0, nullptr, INFINITE, QS_SENDMESSAGE, MWMO_INPUTAVAILABLE), WAIT_OBJECT_0);
    drain();
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].result, 42);
    EXPECT_EQ(answers[0].data, 5u);
    EXPECT_EQ(answers[0].thread, GetCurrentThreadId());
}

TEST(SendMessageCallback, AnswersComeInTheOrderOfTheirMessages) {
    answers.clear();
    constexpr ULONG_PTR kCount = 500;
    const PumpThread other([](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        return message == WM_APP ? static_cast<LRESULT>(wparam) : DefWindowProcW(self, message, wparam, lparam);
    });
    for (ULONG_PTR i = 0; i < kCount; ++i) {
        ASSERT_TRUE(SendMessageCallbackW(other.window(), WM_APP, i, 0, note, i));
    }
    while (answers.size() < kCount) {
        MSG message;
        MsgWaitForMultipleObjectsEx(0, nullptr, INFINITE, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
        PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE);
    }
    for (ULONG_PTR i = 0; i < kCount; ++i) {
        EXPECT_EQ(answers[i].data, i);
        EXPECT_EQ(answers[i].result, static_cast<LRESULT>(i));
    }
}

TEST(SendMessageCallback, AReplyBeforeTheEndIsTheAnswer) {
    answers.clear();
    const PumpThread other([](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message != WM_APP) return DefWindowProcW(self, message, wparam, lparam);
        EXPECT_TRUE(ReplyMessage(3));
        EXPECT_FALSE(ReplyMessage(4));
        return 5;
    });
    ASSERT_TRUE(SendMessageCallbackW(other.window(), WM_APP, 0, 0, note, 0));
    while (answers.empty()) {
        MSG message;
        MsgWaitForMultipleObjectsEx(0, nullptr, INFINITE, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
        PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE);
    }
    EXPECT_EQ(answers[0].result, 3);
}

TEST(SendMessageCallback, AWindowThatGoesAnswersZero) {
    answers.clear();
    const TestEvent blocked(false);
    const TestEvent go_on;
    PumpThread other([&](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP + 1) {
            blocked.set();
            WaitForSingleObject(go_on, INFINITE);
            DestroyWindow(self);
            return 9;
        }
        return DefWindowProcW(self, message, wparam, lparam);
    });
    ASSERT_TRUE(PostMessageW(other.window(), WM_APP + 1, 0, 0));
    ASSERT_TRUE(blocked.wait());
    ASSERT_TRUE(SendMessageCallbackW(other.window(), WM_APP, 0, 0, note, 1));
    go_on.set();
    while (answers.empty()) {
        MSG message;
        MsgWaitForMultipleObjectsEx(0, nullptr, INFINITE, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
        PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE);
    }
    EXPECT_EQ(answers[0].result, 0);
    EXPECT_EQ(answers.size(), 1u);
}

TEST(SendMessageCallback, ASenderThatEndsIsNotCalled) {
    std::atomic<int> seen{0};
    PumpThread other([&](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP) ++seen;
        return DefWindowProcW(self, message, wparam, lparam);
    });
    on_thread([&] { EXPECT_TRUE(SendMessageCallbackW(other.window(), WM_APP, 0, 0, note, 1)); });
    SendMessageW(other.window(), WM_NULL, 0, 0);
    EXPECT_EQ(seen, 1);
}

TEST(SendMessageCallback, RefusesWhatCannotBe) {
    SetLastError(NO_ERROR);
    EXPECT_FALSE(SendMessageCallbackW(reinterpret_cast<HWND>(UINT_PTR{0x77770001}), WM_APP, 0, 0, note, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    const TestWindow window;
    EXPECT_FALSE(SendMessageCallbackW(window, WM_APP, 0, 0, nullptr, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

}  // namespace
