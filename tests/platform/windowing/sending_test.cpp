#include <algorithm>
#include <atomic>

#include "windowing_support.h"

namespace {

using namespace windowing_test;

LRESULT add_one(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    return message >= WM_APP ? static_cast<LRESULT>(wparam) + lparam + 1
                             : DefWindowProcW(window, message, wparam, lparam);
}

}  // namespace

TEST(Sending, OnTheSameThreadIsACall) {
    bool in_send = true;
    const TestWindow window([&](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        in_send = InSendMessage();
        return add_one(self, message, wparam, lparam);
    });
    EXPECT_EQ(SendMessageW(window, WM_APP, 2, -40), -37);
    EXPECT_FALSE(in_send);
    EXPECT_FALSE(ReplyMessage(1));
}

TEST(Sending, Recurses) {
    const TestWindow window([](HWND self, UINT, WPARAM wparam, LPARAM) -> LRESULT {
        return wparam == 0 ? 0 : 1 + SendMessageW(self, WM_APP, wparam - 1, 0);
    });
    EXPECT_EQ(SendMessageW(window, WM_APP, 1000, 0), 1000);
}

TEST(Sending, ToAnotherThreadRunsThereAndAnswers) {
    DWORD ran_on = 0;
    bool in_send = false;
    const PumpThread other([&](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP) {
            ran_on = GetCurrentThreadId();
            in_send = InSendMessage();
        }
        return add_one(self, message, wparam, lparam);
    });
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(SendMessageW(other.window(), WM_APP, static_cast<WPARAM>(i), 5), i + 6);
    }
    EXPECT_EQ(ran_on, other.id());
    EXPECT_TRUE(in_send);
}

// Each handler sends back, so that both threads wait and serve at once, to a depth.
TEST(Sending, CrossesBothWaysAtOnce) {
    std::atomic<HWND> windows[2] = {};
    const auto handler = [&](int self) {
        return [&windows, self](HWND window, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
            if (message != WM_APP) return DefWindowProcW(window, message, wparam, lparam);
            return wparam == 0 ? 1 : 1 + SendMessageW(windows[1 - self], WM_APP, wparam - 1, 0);
        };
    };
    PumpThread first(handler(0));
    PumpThread second(handler(1));
    windows[0] = first.window();
    windows[1] = second.window();
    std::thread senders[2];
    for (int i = 0; i < 2; ++i) {
        senders[i] = std::thread([&windows, i] {
            for (int round = 0; round < 100; ++round)
                ASSERT_EQ(SendMessageW(windows[i], WM_APP, 20, 0), 21);
        });
    }
    for (std::thread& sender : senders)
        sender.join();
}

TEST(Sending, OfManyThreadsIsServedInOrderPerSender) {
    std::vector<std::vector<LPARAM>> seen(4);
    PumpThread other([&](HWND window, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message != WM_APP) return DefWindowProcW(window, message, wparam, lparam);
        seen[wparam].push_back(lparam);
        return lparam * 2;
    });
    std::vector<std::thread> senders;
    for (WPARAM sender = 0; sender < 4; ++sender) {
        senders.emplace_back([&other, sender] {
            for (LPARAM i = 0; i < 300; ++i) {
                if (i % 3 == 0) {
                    ASSERT_TRUE(SendNotifyMessageW(other.window(), WM_APP, sender, i));
                } else {
                    ASSERT_EQ(SendMessageW(other.window(), WM_APP, sender, i), i * 2);
                }
            }
            SendMessageW(other.window(), WM_NULL, 0, 0);
        });
    }
    for (std::thread& sender : senders)
        sender.join();
    for (const auto& one : seen) {
        ASSERT_EQ(one.size(), 300u);
        EXPECT_TRUE(std::is_sorted(one.begin(), one.end()));
    }
}

TEST(Sending, IsHandledBeforePostedMessages) {
    std::vector<UINT> order;
    const TestWindow window([&](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message >= WM_APP) order.push_back(message);
        return DefWindowProcW(self, message, wparam, lparam);
    });
    PostMessageW(window, WM_APP + 1, 0, 0);
    on_thread([&] { EXPECT_TRUE(SendNotifyMessageW(window, WM_APP + 2, 0, 0)); });
    EXPECT_EQ(HIWORD(GetQueueStatus(QS_ALLINPUT)), QS_SENDMESSAGE | QS_POSTMESSAGE);
    drain();
    EXPECT_EQ(order, (std::vector<UINT>{WM_APP + 2, WM_APP + 1}));
}

TEST(Sending, ReturnsZeroWhenTheWindowGoes) {
    const TestEvent sent;
    HWND window = make_window(nullptr);
    std::thread sender([&] {
        sent.set();
        SetLastError(0);
        EXPECT_EQ(SendMessageW(window, WM_APP, 0, 0), 0);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    });
    // Only the wait engine says when the message is here, so it is not handled by looking.
    ASSERT_TRUE(sent.wait());
    while (!(GetQueueStatus(QS_SENDMESSAGE) >> 16))
        Sleep(0);
    EXPECT_TRUE(DestroyWindow(window));
    sender.join();
    EXPECT_EQ(GetQueueStatus(QS_SENDMESSAGE) >> 16, 0u);
}

TEST(Sending, ReturnsZeroWhenTheThreadEnds) {
    std::promise<HWND> made;
    std::thread receiver([&] {
        made.set_value(make_window(nullptr));
        while (!(GetQueueStatus(QS_SENDMESSAGE) >> 16))
            Sleep(0);
    });
    SetLastError(0);
    EXPECT_EQ(SendMessageW(made.get_future().get(), WM_APP, 0, 0), 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    receiver.join();
}

TEST(Sending, ReturnsZeroWhenTheProcedureEndsItsThread) {
    static const Handler handler = [](HWND window, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP) ExitThread(5);
        return DefWindowProcW(window, message, wparam, lparam);
    };
    static std::promise<HWND> made;
    const HANDLE thread = CreateThread(
        nullptr, 0,
        [](LPVOID) -> DWORD {
            made.set_value(make_window(&handler));
            return static_cast<DWORD>(pump());
        },
        nullptr, 0, nullptr);
    EXPECT_EQ(SendMessageW(made.get_future().get(), WM_APP, 0, 0), 0);
    EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, 5u);
    CloseHandle(thread);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), 0);
}

// The sender is ended while it waits: the message is handled all the same, and nothing of the sender is touched.
TEST(Sending, SurvivesTheEndOfTheSender) {
    static HWND window;
    static std::atomic<int> handled;
    handled = 0;
    const TestWindow made([](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP) ++handled;
        return DefWindowProcW(self, message, wparam, lparam);
    });
    window = made;
    for (int round = 0; round < 20; ++round) {
        const HANDLE thread = CreateThread(
            nullptr, 0,
            [](LPVOID) -> DWORD {
                SendMessageW(window, WM_APP, 0, 0);
                return 0;
            },
            nullptr, 0, nullptr);
        while (!(GetQueueStatus(QS_SENDMESSAGE) >> 16))
            Sleep(0);
        EXPECT_TRUE(TerminateThread(thread, 1));
        EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
        CloseHandle(thread);
        drain();
        EXPECT_EQ(handled, round + 1);
    }
}

TEST(Sending, WithATimeoutGivesUp) {
    const TestEvent go_on;
    std::atomic<int> handled = 0;
    PumpThread other([&](HWND window, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP) {
            EXPECT_TRUE(go_on.wait());
        }
        if (message >= WM_APP) ++handled;
        return add_one(window, message, wparam, lparam);
    });
    DWORD_PTR result = 99;
    ASSERT_TRUE(SendNotifyMessageW(other.window(), WM_APP, 0, 0));
    for (const UINT flags : {SMTO_NORMAL, SMTO_BLOCK}) {
        SetLastError(0);
        EXPECT_EQ(SendMessageTimeoutW(other.window(), WM_APP + 1, 1, 2, flags, 5, &result), 0);
        EXPECT_EQ(GetLastError(), ERROR_TIMEOUT);
        EXPECT_EQ(result, 99u);
    }
    go_on.set();
    EXPECT_EQ(SendMessageTimeoutW(other.window(), WM_APP + 1, 1, 2, SMTO_NORMAL, INFINITE, &result), 1);
    EXPECT_EQ(result, 4u);
    EXPECT_EQ(handled, 4);  // what was given up was handled too
    EXPECT_EQ(SendMessageTimeoutW(other.window(), WM_APP + 1, 1, 2, SMTO_NORMAL, INFINITE, nullptr), 1);
    EXPECT_EQ(SendMessageTimeoutW(nullptr, WM_APP + 1, 1, 2, SMTO_NORMAL, INFINITE, nullptr), 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
}

TEST(Sending, WaitsServingUnlessItBlocks) {
    const TestEvent sent_back;
    std::atomic<int> handled = 0;
    const TestWindow own([&](HWND window, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP) ++handled;
        return DefWindowProcW(window, message, wparam, lparam);
    });
    PumpThread other([&](HWND window, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP + 1) SendMessageW(own, WM_APP, 0, 0);
        return DefWindowProcW(window, message, wparam, lparam);
    });
    EXPECT_EQ(SendMessageTimeoutW(other.window(), WM_APP + 1, 0, 0, SMTO_BLOCK, 5, nullptr), 0);
    EXPECT_EQ(GetLastError(), ERROR_TIMEOUT);
    EXPECT_EQ(handled, 0);
    EXPECT_EQ(SendMessageW(other.window(), WM_APP + 1, 0, 0), 0);
    EXPECT_EQ(handled, 2);
}

TEST(Sending, CanBeRepliedToEarly) {
    const TestEvent replied;
    const TestEvent returned;
    bool second_reply = true;
    PumpThread other([&](HWND window, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message != WM_APP) return DefWindowProcW(window, message, wparam, lparam);
        EXPECT_TRUE(ReplyMessage(42));
        EXPECT_TRUE(returned.wait());  // the sender has gone on
        EXPECT_TRUE(InSendMessage());
        second_reply = ReplyMessage(43);
        return 44;
    });
    EXPECT_EQ(SendMessageW(other.window(), WM_APP, 0, 0), 42);
    returned.set();
    other.end();
    EXPECT_FALSE(second_reply);
}

TEST(Sending, ANoticeHasNobodyToReplyTo) {
    std::atomic<int> replies = -1;
    PumpThread other([&](HWND window, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP) {
            EXPECT_TRUE(InSendMessage());
            replies = ReplyMessage(1);
        }
        return DefWindowProcW(window, message, wparam, lparam);
    });
    EXPECT_TRUE(SendNotifyMessageW(other.window(), WM_APP, 0, 0));
    SendMessageW(other.window(), WM_NULL, 0, 0);
    EXPECT_EQ(replies, 0);
    const TestWindow own([&](HWND, UINT message, WPARAM, LPARAM) -> LRESULT {
        if (message == WM_APP) replies = 7;
        return 0;
    });
    EXPECT_TRUE(SendNotifyMessageW(own, WM_APP, 0, 0));  // on the own thread a call
    EXPECT_EQ(replies, 7);
}

TEST(Sending, ADestroyedReceiverStillAnswersItsLastMessage) {
    const PumpThread other([](HWND window, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message != WM_APP) return DefWindowProcW(window, message, wparam, lparam);
        EXPECT_TRUE(DestroyWindow(window));
        return 8;
    });
    EXPECT_EQ(SendMessageW(other.window(), WM_APP, 0, 0), 8);
    EXPECT_EQ(SendMessageW(other.window(), WM_APP, 0, 0), 0);
}

// Threads send to each other's windows, which come and go all the time; nothing hangs and nothing is left.
TEST(Sending, ToWindowsThatComeAndGo) {
    constexpr int kThreads = 4;
    std::atomic<HWND> windows[kThreads] = {};
    std::atomic<int> running = kThreads;
    const Handler handler = add_one;
    std::vector<std::thread> threads;
    for (int self = 0; self < kThreads; ++self) {
        threads.emplace_back([&, self] {
            unsigned random = static_cast<unsigned>(self) + 1;
            for (int step = 0; step < 400; ++step) {
                random = random * 1664525 + 1013904223;
                const HWND target = windows[(random >> 16) % kThreads];
                if ((random >> 8) % 8 == 0) {
                    const HWND old = windows[self].exchange(nullptr);
                    if (old) {
                        EXPECT_TRUE(DestroyWindow(old));
                    }
                    windows[self] = make_window(&handler);
                }
                const LRESULT result = SendMessageW(target, WM_APP, 1, 1);
                EXPECT_TRUE(result == 3 || result == 0);
                PostMessageW(target ? target : windows[self].load(), WM_APP, 0, 0);
                if (step % 16 == 0) drain();
            }
            // Others may still wait for an answer.
            --running;
            while (running != 0) {
                drain();
                Sleep(0);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), 0);
}
