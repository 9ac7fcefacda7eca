#include "windowing/post_room.h"

#include <malloc.h>

#include "support/forked.h"
#include "windowing_support.h"

namespace {

using namespace windowing_test;
using zr::platform::forget_room;
using zr::platform::post_or_wait;
using zr::platform::Posted;
using zr::platform::RoomWaiter;

constexpr int kLimit = 10'000;

class Waiter final : public RoomWaiter {
public:
    ~Waiter() override { forget_room(*this); }
    void room() noexcept override {
        told.fetch_add(1);
        told.notify_all();
    }
    std::atomic<int> told{0};
};

void fill(HWND window) {
    while (PostMessageW(window, WM_USER, 0, 0)) {
    }
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_QUOTA);
}

int take(int count) {
    MSG message{};
    int taken = 0;
    while (taken < count && PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
        ++taken;
    }
    return taken;
}

TEST(PostRoom, PostsAtOnceWhereThereIsRoom) {
    const TestWindow window;
    Waiter waiter;
    SetLastError(77);
    EXPECT_EQ(post_or_wait(window, WM_USER + 5, 1, 2, waiter), Posted::Yes);
    EXPECT_EQ(GetLastError(), 77u);
    MSG message{};
    ASSERT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.message, WM_USER + 5);
    EXPECT_EQ(message.wParam, 1u);
    EXPECT_EQ(message.lParam, 2);
    EXPECT_EQ(waiter.told.load(), 0);
}

TEST(PostRoom, TellsOnceThatThereIsRoomAgain) {
    const TestWindow window;
    fill(window);
    Waiter waiter;
    SetLastError(77);
    ASSERT_EQ(post_or_wait(window, WM_USER, 0, 0, waiter), Posted::Full);
    EXPECT_EQ(GetLastError(), 77u);
    EXPECT_EQ(take(kLimit / 4 - 1), kLimit / 4 - 1);
    EXPECT_EQ(waiter.told.load(), 0);
    take(1);
    EXPECT_EQ(waiter.told.load(), 1);
    EXPECT_EQ(take(kLimit), kLimit - kLimit / 4);
    EXPECT_EQ(waiter.told.load(), 1);
    EXPECT_EQ(post_or_wait(window, WM_USER, 0, 0, waiter), Posted::Yes);
}

TEST(PostRoom, ManyWaitForOneQueue) {
    const TestWindow window;
    fill(window);
    Waiter first;
    Waiter second;
    Waiter third;
    for (Waiter* waiter : {&first, &second, &third}) {
        ASSERT_EQ(post_or_wait(window, WM_USER, 0, 0, *waiter), Posted::Full);
    }
    forget_room(second);
    take(kLimit);
    EXPECT_EQ(first.told.load(), 1);
    EXPECT_EQ(second.told.load(), 0);
    EXPECT_EQ(third.told.load(), 1);
}

TEST(PostRoom, AWindowThatGoesLeavesNothingToWaitFor) {
    Waiter waiter;
    HWND gone = nullptr;
    {
        const TestWindow other;
        const TestWindow window;
        gone = window;
        fill(other);
        ASSERT_EQ(post_or_wait(window, WM_USER, 0, 0, waiter), Posted::Full);
    }
    EXPECT_EQ(waiter.told.load(), 1);
    EXPECT_EQ(post_or_wait(gone, WM_USER, 0, 0, waiter), Posted::Gone);
    drain();
}

TEST(PostRoom, AThreadThatEndsLeavesNothingToWaitFor) {
    Waiter waiter;
    std::promise<HWND> made;
    std::promise<void> end;
    std::thread thread([&] {
        const TestWindow window;
        fill(window);
        made.set_value(window);
        end.get_future().wait();
    });
    ASSERT_EQ(post_or_wait(made.get_future().get(), WM_USER, 0, 0, waiter), Posted::Full);
    end.set_value();
    waiter.told.wait(0);
    thread.join();
    EXPECT_EQ(waiter.told.load(), 1);
}

// A poster that keeps a slow window's queue full, told by the window's thread.
TEST(PostRoom, NothingIsLostBetweenTwoThreads) {
    constexpr int kMessages = 60'000;
    std::promise<HWND> made;
    int seen = 0;
    bool in_order = true;
    std::thread receiver([&] {
        const TestWindow window;
        made.set_value(window);
        MSG message{};
        while (seen < kMessages && GetMessageW(&message, nullptr, 0, 0) > 0) {
            in_order = in_order && message.wParam == static_cast<WPARAM>(seen);
            ++seen;
        }
    });
    const HWND window = made.get_future().get();
    Waiter waiter;
    int fulls = 0;
    for (int i = 0; i < kMessages;) {
        const int told = waiter.told.load();
        const Posted posted = post_or_wait(window, WM_USER, static_cast<WPARAM>(i), 0, waiter);
        ASSERT_TRUE(posted == Posted::Yes || posted == Posted::Full);
        if (posted == Posted::Yes) {
            ++i;
        } else {
            ++fulls;
            waiter.told.wait(told);
        }
    }
    receiver.join();
    EXPECT_TRUE(in_order);
    EXPECT_EQ(waiter.told.load(), fulls);
}

TEST(PostRoom, TheChildOfAForkWaitsForItself) {
    const TestWindow window;
    fill(window);
    Waiter waiter;
    ASSERT_EQ(post_or_wait(window, WM_USER, 0, 0, waiter), Posted::Full);
    EXPECT_EQ(zr::test::in_fork([&] {
                  take(kLimit);
                  return waiter.told.load() == 1 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(waiter.told.load(), 0);
    take(kLimit);
    EXPECT_EQ(waiter.told.load(), 1);
}

// --- Notices: messages sent without waiting for an answer ------------------------------------------------------------

TEST(SendNotify, IsBoundedAsPostsAre) {
    std::promise<HWND> made;
    std::promise<void> serve;
    int seen = 0;
    std::thread receiver([&] {
        const TestWindow window([&](HWND own, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
            if (message == WM_USER) ++seen;
            return DefWindowProcW(own, message, wparam, lparam);
        });
        made.set_value(window);
        serve.get_future().wait();
        drain();
        EXPECT_EQ(seen, kLimit);
        SetWindowTextW(window, u"still here");
        made = {};
    });
    const HWND window = made.get_future().get();
    int sent = 0;
    while (sent <= kLimit && SendNotifyMessageW(window, WM_USER, 0, 0)) {
        ++sent;
    }
    EXPECT_EQ(sent, kLimit);
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_QUOTA);
    EXPECT_TRUE(PostMessageW(window, WM_NULL, 0, 0));  // another account
    // What waits for an answer is bounded by the threads that do, and is let in.
    DWORD_PTR result = 0;
    EXPECT_EQ(SendMessageTimeoutW(window, WM_GETTEXTLENGTH, 0, 0, 0, 20, &result), 0);
    EXPECT_EQ(GetLastError(), ERROR_TIMEOUT);
    serve.set_value();
    receiver.join();
}

TEST(SendNotify, ItsMemoryComesBack) {
#if !defined(ZR_SANITIZE_ADDRESS) && !defined(ZR_SANITIZE_THREAD)
    const auto in_use = [] {
        const struct mallinfo2 info = mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    PumpThread receiver;
    const HWND window = receiver.window();
    const auto flood = [&] {
        for (int sent = 0; sent < 5 * kLimit;) {
            if (SendNotifyMessageW(window, WM_USER, 0, 0)) {
                ++sent;
            } else {
                std::this_thread::yield();
            }
        }
        SendMessageW(window, WM_USER, 0, 0);  // behind all of them
    };
    flood();
    const auto before = in_use();
    flood();
    EXPECT_LE(in_use(), before + 64 * 1024);
#endif
}

}  // namespace
