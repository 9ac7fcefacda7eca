#include <atomic>

#include "windowing_support.h"

namespace {

using namespace windowing_test;

DWORD wait_with(std::vector<HANDLE> handles, DWORD milliseconds, DWORD mask, DWORD flags = 0) {
    return MsgWaitForMultipleObjectsEx(static_cast<DWORD>(handles.size()), handles.data(), milliseconds, mask, flags);
}

void post_to_self() {
    ASSERT_TRUE(PostMessageW(nullptr, WM_APP, 0, 0));
}

}  // namespace

TEST(MessageWait, EndsForHandlesAndForInput) {
    const TestEvent first;
    const TestEvent second(false);
    EXPECT_EQ(wait_with({first, second}, 0, QS_ALLINPUT), WAIT_TIMEOUT);
    second.set();
    EXPECT_EQ(wait_with({first, second}, INFINITE, QS_ALLINPUT), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(wait_with({first, second}, 1, QS_ALLINPUT), WAIT_TIMEOUT);
    post_to_self();
    EXPECT_EQ(wait_with({first, second}, INFINITE, QS_ALLINPUT), WAIT_OBJECT_0 + 2);
    first.set();
    post_to_self();
    EXPECT_EQ(wait_with({first, second}, INFINITE, QS_ALLINPUT), WAIT_OBJECT_0);  // the lowest
}

TEST(MessageWait, WithoutHandlesWaitsForInput) {
    EXPECT_EQ(MsgWaitForMultipleObjectsEx(0, nullptr, 1, QS_ALLINPUT, 0), WAIT_TIMEOUT);
    post_to_self();
    EXPECT_EQ(MsgWaitForMultipleObjectsEx(0, nullptr, INFINITE, QS_ALLINPUT, 0), WAIT_OBJECT_0);
    post_to_self();
    EXPECT_TRUE(WaitMessage());
    EXPECT_EQ(MsgWaitForMultipleObjectsEx(0, nullptr, 1, 0, MWMO_ALERTABLE), WAIT_TIMEOUT);
}

TEST(MessageWait, CountsInputOnceUnlessAskedForWhatIsThere) {
    MSG message{};
    post_to_self();
    EXPECT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE));
    EXPECT_EQ(wait_with({}, 0, QS_ALLINPUT), WAIT_TIMEOUT);
    EXPECT_EQ(wait_with({}, 0, QS_ALLINPUT, MWMO_INPUTAVAILABLE), WAIT_OBJECT_0);
    EXPECT_EQ(wait_with({}, 0, QS_ALLINPUT, MWMO_INPUTAVAILABLE), WAIT_OBJECT_0);
    post_to_self();
    EXPECT_EQ(wait_with({}, 0, QS_ALLINPUT), WAIT_OBJECT_0);
    EXPECT_EQ(wait_with({}, 0, QS_ALLINPUT), WAIT_TIMEOUT);  // it has been reported
    post_to_self();
    GetQueueStatus(QS_POSTMESSAGE);
    EXPECT_EQ(wait_with({}, 0, QS_ALLINPUT), WAIT_TIMEOUT);
}

TEST(MessageWait, SeesOnlyTheKindsAskedFor) {
    post_to_self();
    EXPECT_EQ(wait_with({}, 0, QS_TIMER | QS_SENDMESSAGE), WAIT_TIMEOUT);
    EXPECT_EQ(wait_with({}, 0, QS_POSTMESSAGE), WAIT_OBJECT_0);
    SetTimer(nullptr, 0, 1, nullptr);
    EXPECT_EQ(wait_with({}, 20, QS_POSTMESSAGE), WAIT_TIMEOUT);
    EXPECT_EQ(wait_with({}, INFINITE, QS_TIMER), WAIT_OBJECT_0);
}

TEST(MessageWait, EndsForATimerThatBecomesDue) {
    const TestEvent never;
    const DWORD start = GetTickCount();
    SetTimer(nullptr, 0, 20, nullptr);
    EXPECT_EQ(wait_with({never}, INFINITE, QS_ALLINPUT), WAIT_OBJECT_0 + 1);
    EXPECT_GE(GetTickCount() - start, 19u);
    MSG message{};
    EXPECT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.message, WM_TIMER);
}

TEST(MessageWait, RefusesWhatIsNoHandle) {
    const TestEvent event;
    std::vector<HANDLE> many(64, event);
    EXPECT_EQ(wait_with(many, 0, QS_ALLINPUT), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    many.pop_back();
    EXPECT_EQ(wait_with(many, 0, QS_ALLINPUT), WAIT_TIMEOUT);
    EXPECT_EQ(wait_with({event, INVALID_HANDLE_VALUE}, 0, QS_ALLINPUT), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(MsgWaitForMultipleObjectsEx(1, nullptr, 0, QS_ALLINPUT, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(wait_with({event}, 0, QS_ALLINPUT, 0x100), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(wait_with({event, event}, 0, QS_ALLINPUT, MWMO_WAITALL), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(MsgWaitForMultipleObjects(1, many.data(), FALSE, 0, QS_ALLINPUT), WAIT_TIMEOUT);
}

TEST(MessageWait, ServesWhatIsSentWhetherAskedOrNot) {
    for (const DWORD mask : {DWORD{0}, QS_POSTMESSAGE, QS_ALLINPUT}) {
        const TestEvent done;
        int handled = 0;
        const TestWindow window([&](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
            if (message == WM_APP) ++handled;
            return message == WM_APP ? 5 : DefWindowProcW(self, message, wparam, lparam);
        });
        std::thread sender([&] {
            for (int i = 0; i < 100; ++i)
                EXPECT_EQ(SendMessageW(window, WM_APP, 0, 0), 5);
            done.set();
        });
        DWORD result = 1;
        while (result == WAIT_OBJECT_0 + 1) {
            result = wait_with({done}, INFINITE, mask);
            EXPECT_TRUE(result == WAIT_OBJECT_0 || mask == QS_ALLINPUT);
        }
        EXPECT_EQ(result, WAIT_OBJECT_0);
        EXPECT_EQ(handled, 100);
        sender.join();
    }
}

TEST(MessageWait, ReportsMutexesOfEndedThreadsAsAbandoned) {
    const HANDLE mutex = CreateMutexW(nullptr, FALSE, nullptr);
    const HANDLE thread = CreateThread(
        nullptr, 0, [](LPVOID parameter) -> DWORD { return WaitForSingleObject(parameter, INFINITE); }, mutex, 0,
        nullptr);
    EXPECT_EQ(wait_with({thread}, INFINITE, QS_ALLINPUT), WAIT_OBJECT_0);
    const TestEvent never;
    EXPECT_EQ(wait_with({never, mutex}, INFINITE, QS_ALLINPUT), WAIT_ABANDONED_0 + 1);
    EXPECT_TRUE(ReleaseMutex(mutex));
    CloseHandle(thread);
    CloseHandle(mutex);
}

TEST(MessageWait, ForAllNeedsEveryHandleAndInput) {
    const TestEvent first(false);
    const TestEvent second(false);
    const auto wait_all = [&](DWORD milliseconds) {
        return wait_with({first, second}, milliseconds, QS_POSTMESSAGE, MWMO_WAITALL);
    };
    first.set();
    EXPECT_EQ(wait_all(0), WAIT_TIMEOUT);
    second.set();
    EXPECT_EQ(wait_all(1), WAIT_TIMEOUT);  // no input
    post_to_self();
    EXPECT_EQ(wait_all(INFINITE), WAIT_OBJECT_0);
    EXPECT_FALSE(first.wait(0));  // both were taken
    EXPECT_FALSE(second.wait(0));
    post_to_self();
    first.set();
    EXPECT_EQ(wait_all(1), WAIT_TIMEOUT);
    EXPECT_TRUE(first.wait(0));  // nothing was taken
    // With no handle it is a wait for input.
    EXPECT_EQ(MsgWaitForMultipleObjects(0, nullptr, TRUE, INFINITE, QS_POSTMESSAGE), WAIT_OBJECT_0);
}

TEST(MessageWait, ForAllServesWhatIsSentMeanwhile) {
    const TestEvent first(false);
    const TestEvent second(false);
    const TestWindow window([&](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP) wparam == 0 ? first.set() : second.set();
        return message == WM_APP ? 5 : DefWindowProcW(self, message, wparam, lparam);
    });
    std::thread sender([&] {
        EXPECT_EQ(SendMessageW(window, WM_APP, 0, 0), 5);
        EXPECT_TRUE(PostMessageW(window, WM_APP, 0, 0));
        EXPECT_EQ(SendMessageW(window, WM_APP, 1, 0), 5);
    });
    EXPECT_EQ(wait_with({first, second}, INFINITE, QS_POSTMESSAGE, MWMO_WAITALL), WAIT_OBJECT_0);
    sender.join();
}

TEST(MessageWait, ForAllSeesTimersThatBecomeDue) {
    const TestEvent set(true, true);
    SetTimer(nullptr, 0, 5, nullptr);
    EXPECT_EQ(wait_with({set}, INFINITE, QS_TIMER, MWMO_WAITALL), WAIT_OBJECT_0);
}

// What a procedure looks at during the wait is not lost to the wait.
TEST(MessageWait, IsNotMisledByLooksInsideProcedures) {
    const TestWindow window([](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP) {
            MSG inner{};
            PostMessageW(self, WM_APP + 1, 0, 0);
            EXPECT_FALSE(PeekMessageW(&inner, self, WM_APP + 2, WM_APP + 2, PM_REMOVE));
        }
        return DefWindowProcW(self, message, wparam, lparam);
    });
    for (int round = 0; round < 50; ++round) {
        std::thread sender([&window] { SendMessageW(window, WM_APP, 0, 0); });
        EXPECT_EQ(wait_with({}, INFINITE, QS_POSTMESSAGE), WAIT_OBJECT_0);
        sender.join();
        drain();
    }
}

TEST(MessageWait, IsEndedByTerminateThread) {
    static TestEvent* ready;
    TestEvent made;
    ready = &made;
    const HANDLE thread = CreateThread(
        nullptr, 0,
        [](LPVOID) -> DWORD {
            ready->set();
            HANDLE never = CreateEventW(nullptr, TRUE, FALSE, nullptr);
            MsgWaitForMultipleObjectsEx(1, &never, INFINITE, QS_ALLINPUT, 0);
            ADD_FAILURE();
            return 0;
        },
        nullptr, 0, nullptr);
    EXPECT_TRUE(made.wait());
    EXPECT_TRUE(TerminateThread(thread, 9));
    EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    CloseHandle(thread);
}

// Every thread waits for its own event and messages at once; each of the others' pings of either kind is answered.
TEST(MessageWait, MixedWakeupsLoseNothing) {
    constexpr int kThreads = 3;
    constexpr int kRounds = 300;
    struct Peer {
        std::atomic<HWND> window = nullptr;
        TestEvent event{false};
        std::atomic<int> events = 0;
        std::atomic<int> posts = 0;
    };
    Peer peers[kThreads];
    std::atomic<int> ready = 0;
    std::atomic<int> answered = 0;
    const TestEvent over;
    const Handler handler = [&](HWND, UINT message, WPARAM wparam, LPARAM) -> LRESULT {
        if (message == WM_APP) ++peers[wparam].posts;
        return 0;
    };
    std::vector<std::thread> threads;
    for (int self = 0; self < kThreads; ++self) {
        threads.emplace_back([&, self] {
            Peer& own = peers[self];
            own.window = make_window(&handler);
            ++ready;
            for (;;) {
                const HANDLE handles[] = {own.event, over};
                const DWORD result = MsgWaitForMultipleObjectsEx(2, handles, INFINITE, QS_ALLINPUT, 0);
                if (result == WAIT_OBJECT_0) {
                    ++own.events;
                    ++answered;
                } else if (result == WAIT_OBJECT_0 + 2) {
                    drain();
                } else {
                    break;
                }
            }
            drain();
            EXPECT_TRUE(DestroyWindow(own.window));
        });
    }
    while (ready < kThreads)
        Sleep(0);
    for (int round = 0; round < kRounds; ++round) {
        for (int peer = 0; peer < kThreads; ++peer) {
            PostMessageW(peers[peer].window, WM_APP, static_cast<WPARAM>(peer), 0);
            peers[peer].event.set();
            EXPECT_EQ(SendMessageW(peers[peer].window, WM_NULL, 0, 0), 0);
        }
        while (answered < (round + 1) * kThreads)
            Sleep(0);
    }
    over.set();
    for (std::thread& thread : threads)
        thread.join();
    for (const Peer& peer : peers) {
        EXPECT_EQ(peer.events, kRounds);
        EXPECT_EQ(peer.posts, kRounds);
    }
}
