#include <atomic>
#include <thread>

#include "windowing_support.h"

namespace {

using namespace windowing_test;

bool peek(MSG& message, HWND window = nullptr, UINT first = 0, UINT last = 0, UINT remove = PM_REMOVE) {
    return PeekMessageW(&message, window, first, last, remove) != FALSE;
}

const HWND kThreadOnly = reinterpret_cast<HWND>(static_cast<LONG_PTR>(-1));

}  // namespace

TEST(Posting, KeepsOrderAndContent) {
    const TestWindow window;
    for (UINT i = 0; i < 100; ++i)
        EXPECT_TRUE(PostMessageW(window, WM_APP + i, i, -static_cast<LPARAM>(i)));
    MSG message{};
    for (UINT i = 0; i < 100; ++i) {
        ASSERT_TRUE(peek(message));
        EXPECT_EQ(message.hwnd, window);
        EXPECT_EQ(message.message, WM_APP + i);
        EXPECT_EQ(message.wParam, i);
        EXPECT_EQ(message.lParam, -static_cast<LPARAM>(i));
        EXPECT_LE(GetTickCount() - message.time, 60'000u);
    }
    EXPECT_FALSE(peek(message));
}

TEST(Posting, CanBeLookedAtWithoutTaking) {
    MSG message{};
    EXPECT_TRUE(PostMessageW(nullptr, WM_APP, 1, 0));
    EXPECT_TRUE(peek(message, nullptr, 0, 0, PM_NOREMOVE));
    EXPECT_TRUE(peek(message, nullptr, 0, 0, PM_NOREMOVE));
    EXPECT_EQ(message.hwnd, nullptr);
    EXPECT_TRUE(peek(message));
    EXPECT_FALSE(peek(message, nullptr, 0, 0, PM_NOREMOVE));
}

TEST(Posting, IsFilteredByRangeAndWindow) {
    const TestWindow top;
    const TestWindow child({}, top);
    const TestWindow grandchild({}, child);
    const TestWindow other;
    PostMessageW(other, WM_APP + 1, 1, 0);
    PostMessageW(nullptr, WM_APP + 2, 2, 0);
    PostMessageW(grandchild, WM_APP + 3, 3, 0);
    PostMessageW(top, WM_APP + 4, 4, 0);
    MSG message{};
    EXPECT_FALSE(peek(message, nullptr, WM_APP + 5, WM_APP + 9));
    EXPECT_FALSE(peek(message, other, WM_APP + 2, WM_APP + 9));
    EXPECT_FALSE(peek(message, top, WM_APP + 1, WM_APP + 2));
    ASSERT_TRUE(peek(message, top));
    EXPECT_EQ(message.wParam, 3u);  // the child's child
    ASSERT_TRUE(peek(message, nullptr, WM_APP + 4, WM_APP + 4));
    EXPECT_EQ(message.wParam, 4u);
    ASSERT_TRUE(peek(message, kThreadOnly));
    EXPECT_EQ(message.wParam, 2u);
    EXPECT_FALSE(peek(message, kThreadOnly));
    ASSERT_TRUE(peek(message));
    EXPECT_EQ(message.wParam, 1u);
}

TEST(Posting, IsGoneWithItsWindow) {
    MSG message{};
    {
        const TestWindow window;
        PostMessageW(window, WM_APP, 0, 0);
        PostMessageW(nullptr, WM_APP + 1, 0, 0);
        PostMessageW(window, WM_APP, 0, 0);
    }
    ASSERT_TRUE(peek(message));
    EXPECT_EQ(message.message, WM_APP + 1);
    EXPECT_FALSE(peek(message));
}

TEST(Posting, IsLimited) {
    for (int i = 0; i < 10'000; ++i)
        ASSERT_TRUE(PostMessageW(nullptr, WM_APP, 0, 0)) << i;
    EXPECT_FALSE(PostMessageW(nullptr, WM_APP, 0, 0));
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_QUOTA);
    EXPECT_FALSE(PostThreadMessageW(GetCurrentThreadId(), WM_APP, 0, 0));
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_QUOTA);
    MSG message{};
    ASSERT_TRUE(peek(message));
    EXPECT_TRUE(PostMessageW(nullptr, WM_APP, 0, 0));
    int count = 0;
    while (peek(message))
        ++count;
    EXPECT_EQ(count, 10'000);
}

TEST(Posting, ToThreadsThatHaveAQueue) {
    EXPECT_FALSE(PostThreadMessageW(0, WM_APP, 0, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_THREAD_ID);
    DWORD ended = 0;
    on_thread([&] {
        ended = GetCurrentThreadId();
        EXPECT_TRUE(PostThreadMessageW(ended, WM_APP, 9, 0));  // that call gave it a queue
        MSG message{};
        EXPECT_TRUE(peek(message));
        EXPECT_EQ(message.wParam, 9u);
        EXPECT_EQ(message.hwnd, nullptr);
    });
    EXPECT_FALSE(PostThreadMessageW(ended, WM_APP, 0, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_THREAD_ID);
}

TEST(Posting, WakesAThreadThatWaits) {
    std::promise<DWORD> id;
    std::thread receiver([&] {
        MSG message{};
        PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE);
        id.set_value(GetCurrentThreadId());
        for (WPARAM i = 0; i < 1000; ++i) {
            ASSERT_EQ(GetMessageW(&message, nullptr, 0, 0), 1);
            ASSERT_EQ(message.wParam, i);
        }
        EXPECT_EQ(GetMessageW(&message, nullptr, 0, 0), 0);
        EXPECT_EQ(message.message, WM_QUIT);
        EXPECT_EQ(message.wParam, 12u);
    });
    const DWORD thread = id.get_future().get();
    for (WPARAM i = 0; i < 1000; ++i)
        ASSERT_TRUE(PostThreadMessageW(thread, WM_APP, i, 0));
    ASSERT_TRUE(PostThreadMessageW(thread, WM_QUIT, 12, 0));
    receiver.join();
}

TEST(Posting, FromManyThreadsLosesNothing) {
    constexpr int kSenders = 4;
    constexpr int kEach = 2000;
    std::vector<LPARAM> next(kSenders);
    int count = 0;
    const TestWindow window([&](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message != WM_APP) return DefWindowProcW(self, message, wparam, lparam);
        EXPECT_EQ(lparam, next[wparam]++);
        if (++count == kSenders * kEach) PostQuitMessage(0);
        return 0;
    });
    std::vector<std::thread> senders;
    for (int sender = 0; sender < kSenders; ++sender) {
        senders.emplace_back([&window, sender] {
            for (int i = 0; i < kEach; ++i) {
                ASSERT_TRUE(PostMessageW(window, WM_APP, static_cast<WPARAM>(sender), i));
            }
        });
    }
    pump();
    for (std::thread& sender : senders)
        sender.join();
    EXPECT_EQ(count, kSenders * kEach);
}

TEST(Quit, ComesAfterWhatIsPostedAndOnce) {
    const TestWindow window;
    PostQuitMessage(5);
    PostMessageW(window, WM_APP, 0, 0);
    MSG message{};
    EXPECT_EQ(GetMessageW(&message, nullptr, 0, 0), 1);
    EXPECT_EQ(message.message, WM_APP);
    ASSERT_TRUE(peek(message, nullptr, 0, 0, PM_NOREMOVE));
    EXPECT_EQ(message.message, WM_QUIT);
    EXPECT_EQ(GetMessageW(&message, nullptr, 0, 0), 0);
    EXPECT_EQ(message.wParam, 5u);
    EXPECT_FALSE(peek(message));
}

TEST(Quit, PassesEveryFilter) {
    const TestWindow window;
    const HWND filters[] = {nullptr, window, kThreadOnly};
    for (const HWND filter : filters) {
        MSG message{};
        PostQuitMessage(1);
        ASSERT_TRUE(peek(message, filter, WM_APP, WM_APP, PM_NOREMOVE));
        EXPECT_EQ(message.message, WM_QUIT);
        EXPECT_EQ(message.hwnd, nullptr);
        ASSERT_TRUE(peek(message, filter, WM_APP, WM_APP));
        EXPECT_EQ(message.wParam, 1u);
        EXPECT_FALSE(peek(message));
    }
}

// A loop over one window ends, with the window's messages handled before.
TEST(Quit, EndsALoopOverOneWindow) {
    std::vector<WPARAM> seen;
    const TestWindow other;
    const TestWindow window([&](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP) seen.push_back(wparam);
        if (message == WM_APP && wparam == 2) PostQuitMessage(7);
        return DefWindowProcW(self, message, wparam, lparam);
    });
    for (WPARAM i = 1; i <= 3; ++i)
        PostMessageW(window, WM_APP, i, 0);
    PostMessageW(other, WM_APP, 0, 0);
    MSG message{};
    while (GetMessageW(&message, window, 0, 0) > 0)
        DispatchMessageW(&message);
    EXPECT_EQ(message.message, WM_QUIT);
    EXPECT_EQ(message.wParam, 7u);
    EXPECT_EQ(seen, (std::vector<WPARAM>{1, 2, 3}));
    EXPECT_TRUE(peek(message, other));
}

TEST(Quit, AsAPostedMessageHasNoWindow) {
    const TestWindow window;
    MSG message{};
    PostThreadMessageW(GetCurrentThreadId(), WM_QUIT, 2, 0);
    EXPECT_FALSE(peek(message, window));
    ASSERT_TRUE(peek(message, nullptr, WM_QUIT, WM_QUIT, PM_NOREMOVE));
    ASSERT_TRUE(peek(message, kThreadOnly, WM_APP, WM_APP));
    EXPECT_EQ(message.wParam, 2u);
}

TEST(Getting, ReportsErrors) {
    MSG message{};
    EXPECT_EQ(GetMessageW(nullptr, nullptr, 0, 0), -1);
    EXPECT_EQ(GetLastError(), ERROR_NOACCESS);
    EXPECT_EQ(GetMessageW(&message, reinterpret_cast<HWND>(0x77777), 0, 0), -1);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    SetLastError(0);
    EXPECT_FALSE(peek(message, reinterpret_cast<HWND>(0x77777)));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    EXPECT_FALSE(PeekMessageW(nullptr, nullptr, 0, 0, PM_REMOVE));
    const PumpThread other;
    EXPECT_EQ(GetMessageW(&message, other.window(), 0, 0), -1);
    EXPECT_EQ(GetLastError(), ERROR_WINDOW_OF_OTHER_THREAD);
    PostMessageW(nullptr, WM_APP, 0, 0);
    EXPECT_FALSE(peek(message, other.window()));
    EXPECT_TRUE(peek(message));
}

// A procedure that is sent a message looks for others with a filter; the wait outside still sees what it waits for.
TEST(Getting, IsNotMisledByLooksInsideProcedures) {
    const TestWindow window([](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP) {
            MSG inner{};
            PostMessageW(self, WM_APP + 1, 0, 0);
            EXPECT_FALSE(peek(inner, self, WM_APP + 2, WM_APP + 2));
        }
        return DefWindowProcW(self, message, wparam, lparam);
    });
    for (int round = 0; round < 50; ++round) {
        std::thread sender([&window] { SendMessageW(window, WM_APP, 0, 0); });
        MSG message{};
        ASSERT_EQ(GetMessageW(&message, nullptr, 0, 0), 1);
        EXPECT_EQ(message.message, WM_APP + 1);
        sender.join();
    }
}

TEST(Dispatching, CallsTheProcedureOfTheWindow) {
    const TestWindow window([](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        return message == WM_APP ? 6 : DefWindowProcW(self, message, wparam, lparam);
    });
    MSG message{window, WM_APP, 0, 0, 0, {0, 0}};
    EXPECT_EQ(DispatchMessageW(&message), 6);
    EXPECT_FALSE(TranslateMessage(&message));
    message.hwnd = nullptr;
    EXPECT_EQ(DispatchMessageW(&message), 0);
    EXPECT_EQ(DispatchMessageW(nullptr), 0);
    EXPECT_EQ(GetLastError(), ERROR_NOACCESS);
    message.hwnd = reinterpret_cast<HWND>(0x44444);
    EXPECT_EQ(DispatchMessageW(&message), 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    const PumpThread other;
    message.hwnd = other.window();
    EXPECT_EQ(DispatchMessageW(&message), 0);
    EXPECT_EQ(GetLastError(), ERROR_WINDOW_OF_OTHER_THREAD);
}

TEST(Peeking, LooksAmongTheKindsAskedFor) {
    int handled = 0;
    const TestWindow window([&](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP + 1) ++handled;
        return DefWindowProcW(self, message, wparam, lparam);
    });
    MSG message{};
    PostMessageW(window, WM_APP, 0, 0);
    SetTimer(window, 1, 1, nullptr);
    on_thread([&] { EXPECT_TRUE(SendNotifyMessageW(window, WM_APP + 1, 0, 0)); });
    EXPECT_FALSE(peek(message, nullptr, 0, 0, PM_REMOVE | PM_QS_INPUT | PM_QS_PAINT));
    EXPECT_EQ(handled, 0);
    EXPECT_FALSE(peek(message, nullptr, 0, 0, PM_REMOVE | PM_QS_SENDMESSAGE));
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(HIWORD(GetQueueStatus(QS_POSTMESSAGE)), QS_POSTMESSAGE);
    ASSERT_TRUE(peek(message, nullptr, 0, 0, PM_REMOVE | PM_QS_POSTMESSAGE));
    EXPECT_EQ(message.message, WM_APP);
    while (!(GetQueueStatus(QS_TIMER) >> 16))
        Sleep(0);
    ASSERT_TRUE(peek(message, nullptr, 0, 0, PM_REMOVE | PM_QS_POSTMESSAGE));
    EXPECT_EQ(message.message, WM_TIMER);
    PostQuitMessage(0);
    EXPECT_FALSE(peek(message, nullptr, 0, 0, PM_REMOVE | PM_QS_SENDMESSAGE));
    EXPECT_TRUE(peek(message, nullptr, 0, 0, PM_REMOVE | PM_QS_POSTMESSAGE));
}

// What is not looked for stays news.
TEST(Peeking, MakesOldOnlyTheKindsAskedFor) {
    MSG message{};
    PostMessageW(nullptr, WM_APP, 0, 0);
    EXPECT_FALSE(peek(message, nullptr, 0, 0, PM_NOREMOVE | PM_QS_SENDMESSAGE));
    EXPECT_EQ(GetQueueStatus(QS_POSTMESSAGE), QS_POSTMESSAGE << 16 | QS_POSTMESSAGE);
}

TEST(QueueStatus, RefusesUnknownKinds) {
    PostMessageW(nullptr, WM_APP, 0, 0);
    for (const UINT flags : {0x200u, 0x2000u, 0x80000000u, QS_ALLINPUT | 0x10000u}) {
        SetLastError(0);
        EXPECT_EQ(GetQueueStatus(flags), 0u);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_FLAGS);
    }
    EXPECT_EQ(GetQueueStatus(QS_ALLINPUT), QS_POSTMESSAGE << 16 | QS_POSTMESSAGE);
    EXPECT_EQ(GetQueueStatus(0), 0u);
}

// Also when a message comes while the status is asked for.
TEST(QueueStatus, TellsOfEachMessageAsNews) {
    MSG message{};
    peek(message);
    const DWORD thread = GetCurrentThreadId();
    constexpr int kRounds = 20000;
    std::atomic<int> wanted = 0;
    std::thread poster([&] {
        for (int round = 1; round <= kRounds; ++round) {
            while (wanted.load() < round) {
            }
            PostThreadMessageW(thread, WM_APP, 0, 0);
        }
    });
    int untold = 0;
    for (int round = 1; round <= kRounds; ++round) {
        wanted.store(round);
        DWORD status = 0;
        bool told = false;
        while (HIWORD(status) == 0) {
            status = GetQueueStatus(QS_POSTMESSAGE);
            told = told || LOWORD(status) != 0;
        }
        untold += told ? 0 : 1;
        EXPECT_TRUE(peek(message));
    }
    poster.join();
    EXPECT_EQ(untold, 0);
}

// Unlike QS_POSTMESSAGE it stays news until somebody has looked at all messages.
TEST(QueueStatus, RemembersPostedMessagesThatAFilterPassedOver) {
    const TestWindow window;
    MSG message{};
    PostMessageW(nullptr, WM_APP, 0, 0);
    EXPECT_FALSE(peek(message, window));
    EXPECT_FALSE(peek(message, nullptr, WM_APP + 1, WM_APP + 1));
    EXPECT_EQ(GetQueueStatus(QS_POSTMESSAGE | QS_ALLPOSTMESSAGE),
              (QS_POSTMESSAGE | QS_ALLPOSTMESSAGE) << 16 | QS_ALLPOSTMESSAGE);
    PostMessageW(nullptr, WM_APP, 0, 0);
    EXPECT_TRUE(peek(message, nullptr, 0, 0, PM_NOREMOVE));
    EXPECT_EQ(LOWORD(GetQueueStatus(QS_POSTMESSAGE | QS_ALLPOSTMESSAGE)), 0);
    EXPECT_TRUE(peek(message));
    EXPECT_TRUE(peek(message));
    EXPECT_EQ(GetQueueStatus(QS_POSTMESSAGE | QS_ALLPOSTMESSAGE), 0u);
}

TEST(QueueStatus, TellsWhatIsThereAndWhatIsNew) {
    MSG message{};
    EXPECT_EQ(GetQueueStatus(QS_ALLINPUT), 0u);
    PostMessageW(nullptr, WM_APP, 0, 0);
    PostMessageW(nullptr, WM_APP, 0, 0);
    EXPECT_EQ(GetQueueStatus(QS_TIMER), 0u);
    EXPECT_EQ(GetQueueStatus(QS_ALLINPUT), QS_POSTMESSAGE << 16 | QS_POSTMESSAGE);
    EXPECT_EQ(GetQueueStatus(QS_ALLINPUT), QS_POSTMESSAGE << 16);
    EXPECT_TRUE(peek(message));
    EXPECT_EQ(GetQueueStatus(QS_ALLINPUT), QS_POSTMESSAGE << 16);
    EXPECT_TRUE(peek(message));
    EXPECT_EQ(GetQueueStatus(QS_ALLINPUT), 0u);
}
