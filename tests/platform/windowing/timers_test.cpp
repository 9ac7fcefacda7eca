#include <algorithm>

#include "windowing_support.h"

namespace {

using namespace windowing_test;

DWORD now() {
    return GetTickCount();
}

// The next WM_TIMER; every wait here is for a message.
MSG next_timer() {
    MSG message{};
    EXPECT_EQ(GetMessageW(&message, nullptr, WM_TIMER, WM_TIMER), 1);
    return message;
}

}  // namespace

TEST(Timers, OfAWindowSendItTimerMessages) {
    std::vector<WPARAM> seen;
    const TestWindow window([&](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_TIMER) seen.push_back(wparam);
        return DefWindowProcW(self, message, wparam, lparam);
    });
    const DWORD start = now();
    EXPECT_EQ(SetTimer(window, 3, 10, nullptr), 3u);
    for (int i = 0; i < 3; ++i) {
        const MSG message = next_timer();
        EXPECT_EQ(message.hwnd, window);
        EXPECT_EQ(message.lParam, 0);
        DispatchMessageW(&message);
    }
    EXPECT_GE(now() - start, 29u);
    EXPECT_EQ(seen, (std::vector<WPARAM>{3, 3, 3}));
    EXPECT_TRUE(KillTimer(window, 3));
    EXPECT_FALSE(KillTimer(window, 3));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(Timers, WithoutWindowCallTheirProcedure) {
    static std::vector<UINT_PTR> called;
    called.clear();
    const TIMERPROC procedure = [](HWND window, UINT message, UINT_PTR timer, DWORD time) {
        EXPECT_EQ(window, nullptr);
        EXPECT_EQ(message, WM_TIMER);
        EXPECT_LE(GetTickCount() - time, 60'000u);
        EXPECT_TRUE(KillTimer(nullptr, timer));
        called.push_back(timer);
        if (called.size() == 11) PostQuitMessage(0);
    };
    std::vector<UINT_PTR> set;
    for (UINT i = 0; i < 11; ++i)
        set.push_back(SetTimer(nullptr, 0, 11 - i, procedure));
    std::sort(set.begin(), set.end());
    EXPECT_EQ(std::adjacent_find(set.begin(), set.end()), set.end());
    EXPECT_NE(set.front(), 0u);
    pump();
    std::sort(called.begin(), called.end());
    EXPECT_EQ(called, set);
}

TEST(Timers, AreReplacedBySettingThemAgain) {
    const TestWindow window;
    const TIMERPROC procedure = [](HWND, UINT, UINT_PTR, DWORD) {};
    SetTimer(window, 1, USER_TIMER_MAXIMUM, nullptr);
    EXPECT_EQ(SetTimer(window, 1, 1, procedure), 1u);
    EXPECT_EQ(next_timer().lParam, reinterpret_cast<LPARAM>(procedure));
    // One that is due already starts anew.
    while (!(GetQueueStatus(QS_TIMER) >> 16))
        Sleep(0);
    SetTimer(window, 1, USER_TIMER_MAXIMUM, nullptr);
    MSG message{};
    EXPECT_FALSE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));

    const UINT_PTR first = SetTimer(nullptr, 0, USER_TIMER_MAXIMUM, procedure);
    EXPECT_EQ(SetTimer(nullptr, first, 1, procedure), first);
    EXPECT_EQ(next_timer().wParam, first);
    const UINT_PTR second = SetTimer(nullptr, first + 100, USER_TIMER_MAXIMUM, procedure);
    EXPECT_NE(second, first);
    EXPECT_TRUE(KillTimer(nullptr, first));
    EXPECT_TRUE(KillTimer(nullptr, second));
}

TEST(Timers, ComeAfterEverythingElseAndOnce) {
    const TestWindow window;
    SetTimer(window, 1, 1, nullptr);
    const TestEvent never;
    EXPECT_FALSE(never.wait(10));  // many periods pass
    PostMessageW(window, WM_APP, 0, 0);
    PostQuitMessage(0);
    MSG message{};
    EXPECT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.message, WM_APP);
    EXPECT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.message, WM_QUIT);
    SetTimer(window, 2, USER_TIMER_MAXIMUM, nullptr);
    EXPECT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE));
    EXPECT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE));
    EXPECT_EQ(message.message, WM_TIMER);
    EXPECT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.message, WM_TIMER);
    SetTimer(window, 1, 60'000, nullptr);
    EXPECT_FALSE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
}

// What a look has shown is in the queue, and neither killing nor setting the timer anew takes it out again.
TEST(Timers, AMessageThatWasShownStays) {
    const TestWindow window;
    MSG message{};
    const auto show = [&] {
        while (!PeekMessageW(&message, window, 0, 0, PM_NOREMOVE))
            Sleep(0);
        EXPECT_EQ(message.message, WM_TIMER);
        message = {};
    };
    const auto take_once = [&](UINT_PTR timer) {
        ASSERT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
        EXPECT_EQ(message.hwnd, window);
        EXPECT_EQ(message.message, WM_TIMER);
        EXPECT_EQ(message.wParam, timer);
        EXPECT_FALSE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
    };
    SetTimer(window, 1, 1, nullptr);
    show();
    EXPECT_TRUE(KillTimer(window, 1));
    take_once(1);
    SetTimer(window, 2, 1, nullptr);
    show();
    EXPECT_EQ(SetTimer(window, 2, 60'000, nullptr), 2u);
    take_once(2);
    EXPECT_TRUE(KillTimer(window, 2));
    EXPECT_FALSE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
    {
        const TestWindow passing;
        SetTimer(passing, 3, 1, nullptr);
        while (!PeekMessageW(&message, passing, 0, 0, PM_NOREMOVE))
            Sleep(0);
        EXPECT_TRUE(KillTimer(passing, 3));
    }
    EXPECT_FALSE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));  // a window takes its messages along
}

TEST(Timers, DoNotMakeUpForMissedPeriods) {
    const TestWindow window;
    SetTimer(window, 1, 20, nullptr);
    const TestEvent never;
    EXPECT_FALSE(never.wait(110));
    MSG message{};
    EXPECT_TRUE(PeekMessageW(&message, window, 0, 0, PM_REMOVE));
    const DWORD taken = now();
    next_timer();
    EXPECT_LE(taken, now());
    KillTimer(window, 1);
}

TEST(Timers, GoWithTheirWindowAndWhenKilled) {
    MSG message{};
    {
        const TestWindow window;
        SetTimer(window, 1, 1, nullptr);
        SetTimer(window, 2, 1, nullptr);
        next_timer();
        while (!(GetQueueStatus(QS_TIMER) >> 16))
            Sleep(0);
    }
    EXPECT_EQ(GetQueueStatus(QS_TIMER) >> 16, 0u);
    EXPECT_FALSE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
    const UINT_PTR timer = SetTimer(nullptr, 0, 1, nullptr);
    EXPECT_EQ(next_timer().wParam, timer);
    while (!(GetQueueStatus(QS_TIMER) >> 16))
        Sleep(0);
    EXPECT_TRUE(KillTimer(nullptr, timer));
    EXPECT_FALSE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
}

TEST(Timers, AreFilteredByWindow) {
    const TestWindow top;
    const TestWindow child({}, top);
    const TestWindow other;
    SetTimer(other, 1, 1, nullptr);
    SetTimer(child, 2, 1, nullptr);
    MSG message{};
    EXPECT_EQ(GetMessageW(&message, top, 0, 0), 1);
    EXPECT_EQ(message.hwnd, child);
    EXPECT_FALSE(PeekMessageW(&message, nullptr, WM_APP, WM_APP, PM_REMOVE));
    EXPECT_EQ(GetMessageW(&message, other, 0, 0), 1);
    EXPECT_EQ(message.wParam, 1u);
}

TEST(Timers, BelongToTheThreadOfTheWindow) {
    const PumpThread other;
    EXPECT_EQ(SetTimer(other.window(), 1, 1, nullptr), 0u);
    EXPECT_EQ(GetLastError(), ERROR_WINDOW_OF_OTHER_THREAD);
    EXPECT_FALSE(KillTimer(other.window(), 1));
    EXPECT_EQ(GetLastError(), ERROR_WINDOW_OF_OTHER_THREAD);
    on_thread([] { EXPECT_FALSE(KillTimer(nullptr, 1)); });
}

TEST(Timers, TakeUnusualNumbers) {
    const TestWindow window;
    EXPECT_EQ(SetTimer(window, 0, 0, nullptr), 1u);  // identifier 0, period 1
    const MSG message = next_timer();
    EXPECT_EQ(message.wParam, 0u);
    EXPECT_TRUE(KillTimer(window, 0));
    EXPECT_NE(SetTimer(window, UINTPTR_MAX, 0xFFFFFFFF, nullptr), 0u);
    EXPECT_TRUE(KillTimer(window, UINTPTR_MAX));
}

TEST(Timers, MaySetAndKillTimersInTheirProcedure) {
    static int calls;
    calls = 0;
    static TIMERPROC procedure;
    procedure = [](HWND, UINT, UINT_PTR timer, DWORD) {
        EXPECT_TRUE(KillTimer(nullptr, timer));
        EXPECT_TRUE(KillTimer(nullptr, SetTimer(nullptr, 0, 1, procedure)));
        if (++calls == 20) {
            PostQuitMessage(0);
        } else {
            EXPECT_NE(SetTimer(nullptr, 0, 1, procedure), 0u);
        }
    };
    SetTimer(nullptr, 0, 1, procedure);
    pump();
    EXPECT_EQ(calls, 20);
}

TEST(Timers, ByTheHundredThousandAllComeInOrder) {
    constexpr UINT kCount = 100'000;
    const TestWindow window;
    for (UINT i = 0; i < kCount; ++i)
        ASSERT_NE(SetTimer(window, i + 1, 60'000 + i % 1000, nullptr), 0u);
    MSG message{};
    EXPECT_FALSE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
    for (UINT i = 0; i < kCount; ++i)
        ASSERT_NE(SetTimer(window, i + 1, 1, nullptr), 0u);
    std::vector<bool> seen(kCount);
    for (UINT i = 0; i < kCount; ++i) {
        message = next_timer();
        const UINT_PTR timer = message.wParam - 1;
        ASSERT_LT(timer, kCount);
        ASSERT_FALSE(seen[timer]);
        seen[timer] = true;
        ASSERT_TRUE(KillTimer(window, message.wParam));
    }
    EXPECT_FALSE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
}
