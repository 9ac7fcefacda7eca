#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/own_process.h"
#include "windowing_support.h"

namespace {

using namespace windowing_test;

// Whether the descriptor is or becomes readable.
bool readable(int descriptor, int milliseconds = 0) {
    pollfd one{descriptor, POLLIN, 0};
    return poll(&one, 1, milliseconds) == 1 && (one.revents & POLLIN);
}

constexpr int kLong = 60'000;

}  // namespace

TEST(QueueDescriptor, IsReadableWhileThereIsSomething) {
    const int descriptor = ZrGetQueueDescriptor();
    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(ZrGetQueueDescriptor(), descriptor);
    EXPECT_FALSE(readable(descriptor));
    PostMessageW(nullptr, WM_APP, 0, 0);
    PostMessageW(nullptr, WM_APP + 1, 0, 0);
    EXPECT_TRUE(readable(descriptor));
    MSG message{};
    EXPECT_TRUE(PeekMessageW(&message, nullptr, WM_APP + 1, WM_APP + 1, PM_REMOVE));
    EXPECT_TRUE(readable(descriptor));
    EXPECT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE));
    EXPECT_TRUE(readable(descriptor));
    EXPECT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_FALSE(readable(descriptor));
    PostQuitMessage(0);
    EXPECT_TRUE(readable(descriptor));
    drain();
    EXPECT_FALSE(readable(descriptor));
}

TEST(QueueDescriptor, OfAQueueInUseIsReadableAtOnce) {
    PostMessageW(nullptr, WM_APP, 0, 0);
    EXPECT_TRUE(readable(ZrGetQueueDescriptor()));
    SetTimer(nullptr, 0, 5, nullptr);
    drain();
    EXPECT_TRUE(readable(ZrGetQueueDescriptor(), kLong));
}

TEST(QueueDescriptor, FollowsTimers) {
    const int descriptor = ZrGetQueueDescriptor();
    const TestWindow window;
    SetTimer(window, 1, USER_TIMER_MAXIMUM, nullptr);
    EXPECT_FALSE(readable(descriptor));
    SetTimer(window, 2, 5, nullptr);
    MSG message{};
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(readable(descriptor, kLong));
        EXPECT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE));
        EXPECT_TRUE(readable(descriptor));
        ASSERT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
        EXPECT_EQ(message.wParam, 2u);
    }
    ASSERT_TRUE(readable(descriptor, kLong));
    EXPECT_TRUE(KillTimer(window, 2));
    EXPECT_FALSE(readable(descriptor));
}

TEST(QueueDescriptor, WakesForOtherThreads) {
    int handled = 0;
    const TestWindow window([&](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP) ++handled;
        return DefWindowProcW(self, message, wparam, lparam);
    });
    const int descriptor = ZrGetQueueDescriptor();
    std::thread other([&window] {
        for (int i = 0; i < 200; ++i) {
            SendMessageW(window, WM_APP, 0, 0);
            PostMessageW(window, WM_APP, 0, 0);
        }
    });
    while (handled < 400) {
        ASSERT_TRUE(readable(descriptor, kLong));
        drain();
    }
    other.join();
    EXPECT_FALSE(readable(descriptor));
}

TEST(QueueDescriptor, IsQuietAgainWhenASentMessagesWindowGoes) {
    const int descriptor = ZrGetQueueDescriptor();
    HWND window = make_window(nullptr);
    on_thread([window] { EXPECT_TRUE(SendNotifyMessageW(window, WM_APP, 0, 0)); });
    PostMessageW(window, WM_APP, 0, 0);
    EXPECT_TRUE(readable(descriptor));
    EXPECT_TRUE(DestroyWindow(window));
    EXPECT_FALSE(readable(descriptor));
}

TEST(QueueDescriptor, ClosesWithItsThread) {
    on_thread([] { drain(); });
    const int before = zr::test::count_descriptors();
    on_thread([] { EXPECT_GE(ZrGetQueueDescriptor(), 0); });
    EXPECT_EQ(zr::test::count_descriptors(), before);
    on_thread([] { drain(); });
    EXPECT_EQ(zr::test::count_descriptors(), before);
}

TEST(QueueDescriptor, MayBeImpossible) {
    drain();
    rlimit tight{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &tight), 0);
    tight.rlim_cur = 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    std::vector<int> all;
    for (int copy = dup(STDIN_FILENO); copy >= 0; copy = dup(STDIN_FILENO))
        all.push_back(copy);
    // It takes three: none of one or two stays behind.
    for (int room = 0; room < 3; ++room) {
        EXPECT_EQ(ZrGetQueueDescriptor(), -1) << room;
        EXPECT_EQ(GetLastError(), ERROR_TOO_MANY_OPEN_FILES);
        ASSERT_FALSE(all.empty());
        close(all.back());
        all.pop_back();
    }
    EXPECT_GE(ZrGetQueueDescriptor(), 0);
    for (const int copy : all)
        close(copy);
}
