// Waits for messages, objects of this process and objects of all processes in one call.

#include <atomic>

#include "platform/kernel/named/support.h"
#include "windowing_support.h"

namespace {

using namespace zr::test;

DWORD wait_for(const std::vector<HANDLE>& handles, DWORD milliseconds, DWORD flags = 0) {
    return MsgWaitForMultipleObjectsEx(static_cast<DWORD>(handles.size()), handles.data(), milliseconds, QS_ALLINPUT,
                                       flags);
}

// What a thread's wait came to that slept before `wake` was called with its identifier.
DWORD woken_by(const std::vector<HANDLE>& handles, const std::function<void(DWORD)>& wake, DWORD flags = 0) {
    Worker waiter([&] {
        windowing_test::drain();  // there is a queue from here on
        const DWORD result = wait_for(handles, INFINITE, flags);
        // A mutex that the wait took is given back at once.
        for (const HANDLE handle : handles) {
            ReleaseMutex(handle);
        }
        return result;
    });
    waiter.until_asleep();
    wake(waiter.id());
    return waiter.join();
}

// Named first, unnamed, and a named mutex, which another process owns.
class MixedMessageWait : public testing::Test {
protected:
    const Handle named_ = named_event(u"mixed wait event");
    const Handle plain_ = auto_event();
    const Handle lock_ = named_mutex(u"mixed wait lock");
    Fork other_{[] {
        const Handle event = named_event(u"mixed wait event");
        const Handle lock = named_mutex(u"mixed wait lock");
        if (WaitForSingleObject(lock, INFINITE) != WAIT_OBJECT_0) return 1;
        Fork::say('o');
        for (;;) {
            pause();
        }
    }};
    const std::vector<HANDLE> all_{named_, plain_, lock_};

    void SetUp() override { ASSERT_EQ(other_.hear(), 'o'); }
};

void post_to(DWORD thread) {
    EXPECT_TRUE(PostThreadMessageW(thread, WM_APP, 0, 0));
}

}  // namespace

TEST_F(MixedMessageWait, TakesWhatIsThere) {
    EXPECT_EQ(wait_for(all_, 0), WAIT_TIMEOUT);
    EXPECT_EQ(wait_for(all_, 5), WAIT_TIMEOUT);
    SetEvent(plain_);
    EXPECT_EQ(wait_for(all_, INFINITE), WAIT_OBJECT_0 + 1);
    SetEvent(named_);
    EXPECT_EQ(wait_for(all_, INFINITE), WAIT_OBJECT_0);
    post_to(GetCurrentThreadId());
    EXPECT_EQ(wait_for(all_, INFINITE), WAIT_OBJECT_0 + 3);
    // The lowest of several, and only that one.
    post_to(GetCurrentThreadId());
    SetEvent(plain_);
    SetEvent(named_);
    EXPECT_EQ(wait_for(all_, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(wait_for(all_, INFINITE), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(wait_for(all_, INFINITE), WAIT_OBJECT_0 + 3);
    EXPECT_EQ(wait_for(all_, 0), WAIT_TIMEOUT);
}

TEST_F(MixedMessageWait, IsWokenByEachKind) {
    EXPECT_EQ(woken_by(all_, [&](DWORD) { SetEvent(named_); }), WAIT_OBJECT_0);
    EXPECT_EQ(woken_by(all_, [&](DWORD) { SetEvent(plain_); }), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(woken_by(all_, [&](DWORD thread) { post_to(thread); }), WAIT_OBJECT_0 + 3);
    EXPECT_EQ(woken_by(all_, [&](DWORD) { other_.kill(); }), WAIT_ABANDONED_0 + 2);
    EXPECT_EQ(wait_for(all_, INFINITE), WAIT_OBJECT_0 + 2);  // which was given back, and is abandoned no more
    EXPECT_TRUE(ReleaseMutex(lock_));
    EXPECT_EQ(wait_for({named_, plain_}, 0), WAIT_TIMEOUT);
}

TEST_F(MixedMessageWait, IsWokenByAnotherProcess) {
    for (int round = 0; round < 20; ++round) {
        Fork setter([] {
            const Handle event = named_event(u"mixed wait event");
            return SetEvent(event) ? 0 : 2;
        });
        EXPECT_EQ(wait_for(all_, INFINITE), WAIT_OBJECT_0);
        EXPECT_EQ(setter.join(), 0);
    }
}

TEST_F(MixedMessageWait, ServesWhatIsSentMeanwhile) {
    std::atomic<HWND> window = nullptr;
    const windowing_test::Handler handler = [](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        return message == WM_APP ? 5 : DefWindowProcW(self, message, wparam, lparam);
    };
    Worker waiter([&] {
        window = windowing_test::make_window(&handler);
        DWORD result = WAIT_OBJECT_0 + 3;
        while (result == WAIT_OBJECT_0 + 3) {
            result = wait_for(all_, INFINITE);
        }
        EXPECT_TRUE(DestroyWindow(window));
        return result;
    });
    while (!window) {
        Sleep(0);
    }
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(SendMessageW(window, WM_APP, 0, 0), 5);
    }
    SetEvent(named_);
    EXPECT_EQ(waiter.join(), WAIT_OBJECT_0);
}

// Whatever comes last ends a wait for all, and nothing is taken before.
TEST_F(MixedMessageWait, ForAllNeedsEveryObjectAndInput) {
    const std::vector<HANDLE> both{named_, plain_};
    for (int last = 0; last < 3; ++last) {
        const DWORD result = woken_by(
            both,
            [&](DWORD thread) {
                for (int step = 1; step <= 3; ++step) {
                    const int which = (last + step) % 3;
                    if (which == 2) {
                        post_to(thread);
                    } else {
                        SetEvent(both[static_cast<std::size_t>(which)]);
                    }
                }
            },
            MWMO_WAITALL);
        EXPECT_EQ(result, WAIT_OBJECT_0) << last;
        EXPECT_EQ(wait_for(both, 0), WAIT_TIMEOUT) << last;
    }
    post_to(GetCurrentThreadId());
    SetEvent(named_);
    EXPECT_EQ(wait_for(both, 1, MWMO_WAITALL), WAIT_TIMEOUT);
    EXPECT_EQ(wait_for({named_}, 0), WAIT_OBJECT_0);  // not taken
}

TEST_F(MixedMessageWait, ForAllTellsOfAnAbandonedMutexAndCountsTheInput) {
    SetEvent(named_);
    SetEvent(plain_);
    post_to(GetCurrentThreadId());
    EXPECT_EQ(wait_for(all_, 1, MWMO_WAITALL), WAIT_TIMEOUT);
    other_.kill();
    EXPECT_EQ(wait_for(all_, INFINITE, MWMO_WAITALL), WAIT_ABANDONED_0);
    EXPECT_TRUE(ReleaseMutex(lock_));
    EXPECT_EQ(wait_for({named_, plain_}, 0), WAIT_TIMEOUT);  // all taken, and the message is no news any more
}
