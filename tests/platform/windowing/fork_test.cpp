// What a fork leaves of windows, messages and timers: in the child, and in the parent.

#include <poll.h>

#include "support/forked.h"
#include "support/instrumented.h"
#include "windowing_support.h"

namespace {

using namespace windowing_test;
using zr::test::in_fork;

#define CHECK(condition) \
    if (!(condition)) return __LINE__ % 200 + 1

bool is_readable(int descriptor) {
    pollfd poll{descriptor, POLLIN, 0};
    return ::poll(&poll, 1, 0) == 1;
}

TEST(WindowingFork, TheThreadsWindowsTimersAndMessagesAreInBoth) {
    std::vector<UINT> seen;
    const TestWindow window([&seen](HWND own, UINT message, WPARAM wparam, LPARAM lparam) {
        if (message >= WM_USER || message == WM_TIMER) seen.push_back(message);
        return DefWindowProcW(own, message, wparam, lparam);
    });
    ASSERT_TRUE(PostMessageW(window, WM_USER + 1, 0, 0));
    const UINT_PTR timer = SetTimer(window, 3, 10, nullptr);
    const auto use = [&]() -> int {
        MSG message{};
        CHECK(GetMessageW(&message, nullptr, 0, 0) > 0);
        DispatchMessageW(&message);
        CHECK(GetMessageW(&message, nullptr, 0, 0) > 0);
        DispatchMessageW(&message);
        CHECK((seen == std::vector<UINT>{WM_USER + 1, WM_TIMER}));
        CHECK(KillTimer(window, timer));
        CHECK(SendMessageW(window, WM_USER + 2, 0, 0) == 0 && seen.back() == WM_USER + 2);
        CHECK(PostThreadMessageW(GetCurrentThreadId(), WM_USER + 3, 0, 0));
        CHECK(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE) && message.message == WM_USER + 3);
        const TestWindow another;
        CHECK(IsWindow(another) && IsWindow(window));
        return 0;
    };
    EXPECT_EQ(in_fork(use), 0);
    EXPECT_EQ(use(), 0);
}

TEST(WindowingFork, WindowsOfThreadsThatStayedBehindAreGone) {
    PumpThread other;
    const HWND window = other.window();
    EXPECT_EQ(in_fork([&] {
                  CHECK(!IsWindow(window));
                  SetLastError(0);
                  CHECK(SendMessageW(window, WM_USER, 0, 0) == 0);
                  CHECK(GetLastError() == ERROR_INVALID_WINDOW_HANDLE);
                  CHECK(!PostMessageW(window, WM_USER, 0, 0));
                  CHECK(!PostThreadMessageW(other.id(), WM_USER, 0, 0));
                  CHECK(FindWindowW(kClass, nullptr) == nullptr);
                  CHECK(UnregisterClassW(kClass, nullptr));
                  return 0;
              }),
              0);
    EXPECT_TRUE(IsWindow(window));
    EXPECT_TRUE(PostMessageW(window, WM_USER, 0, 0));
}

// A message to another thread, whose procedure forks where the message came from: the child is told that nobody
// answers.
TEST(WindowingFork, NobodyAnswersInTheChild) {
    HWND here = nullptr;
    int result = -1;
    PumpThread other([&](HWND own, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message != WM_USER) return DefWindowProcW(own, message, wparam, lparam);
        return SendMessageW(here, WM_USER + 1, 0, 0) + 1;
    });
    pid_t child = -1;
    const TestWindow window([&](HWND own, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message != WM_USER + 1) return DefWindowProcW(own, message, wparam, lparam);
        child = zr::test::fork_beside_threads();
        return 41;
    });
    here = window;
    const LRESULT answer = SendMessageW(other.window(), WM_USER, 0, 0);
    if (child == 0) _exit(answer == 0 && GetLastError() == ERROR_INVALID_WINDOW_HANDLE ? 0 : 1);
    EXPECT_EQ(answer, 42);
    result = zr::test::await_child(child);
    EXPECT_EQ(result, 0);
}

TEST(WindowingFork, WhatOthersSentTheyAskedTheParent) {
    std::atomic<int> handled{0};
    const TestWindow window([&](HWND own, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message != WM_USER) return DefWindowProcW(own, message, wparam, lparam);
        return ++handled;
    });
    std::atomic<LRESULT> answer{0};
    std::thread sender([&] { answer = SendMessageW(window, WM_USER, 0, 0); });
    while ((GetQueueStatus(QS_SENDMESSAGE) >> 16 & QS_SENDMESSAGE) == 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(in_fork([&] {
                  drain();
                  return handled.load();
              }),
              0);
    while (handled.load() == 0) {
        drain();
    }
    sender.join();
    EXPECT_EQ(answer.load(), 1);
}

TEST(WindowingFork, EachHasADescriptorOfItsOwnUnderTheSameNumber) {
    const TestWindow window;
    const int descriptor = ZrGetQueueDescriptor();
    ASSERT_GE(descriptor, 0);
    EXPECT_FALSE(is_readable(descriptor));
    EXPECT_EQ(in_fork([&]() -> int {
                  CHECK(is_readable(descriptor));  // until the child has looked
                  drain();
                  CHECK(!is_readable(descriptor));
                  CHECK(PostMessageW(window, WM_USER, 0, 0));
                  CHECK(is_readable(descriptor));
                  CHECK(ZrGetQueueDescriptor() == descriptor);
                  return 0;
              }),
              0);
    EXPECT_FALSE(is_readable(descriptor));
    EXPECT_TRUE(PostMessageW(window, WM_USER, 0, 0));
    EXPECT_TRUE(is_readable(descriptor));
    EXPECT_EQ(in_fork([&] {
                  drain();
                  return 0;
              }),
              0);
    EXPECT_TRUE(is_readable(descriptor));
    drain();
    EXPECT_FALSE(is_readable(descriptor));
}

TEST(WindowingFork, ATimerOfTheDescriptorIsEachOnesOwn) {
    const int descriptor = ZrGetQueueDescriptor();
    const UINT_PTR timer = SetTimer(nullptr, 0, 50, nullptr);
    EXPECT_EQ(in_fork([&]() -> int {
                  drain();
                  pollfd poll{descriptor, POLLIN, 0};
                  CHECK(::poll(&poll, 1, 30'000) == 1);
                  CHECK(KillTimer(nullptr, timer));
                  return 0;
              }),
              0);
    MSG message{};
    ASSERT_GT(GetMessageW(&message, nullptr, 0, 0), 0);
    EXPECT_EQ(message.message, WM_TIMER);
    KillTimer(nullptr, timer);
}

TEST(WindowingFork, AThreadThatIsStartedInTheChildHasWindowsToo) {
    const TestWindow window;
    EXPECT_EQ(in_fork([]() -> int {
                  PumpThread other([](HWND own, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
                      return message == WM_USER ? 5 : DefWindowProcW(own, message, wparam, lparam);
                  });
                  CHECK(SendMessageW(other.window(), WM_USER, 0, 0) == 5);
                  return 0;
              }),
              0);
}

void use_windows() {
    std::atomic<int> seen{0};
    const TestWindow window([&](HWND own, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_USER) ++seen;
        return DefWindowProcW(own, message, wparam, lparam);
    });
    const TestWindow child({}, window);
    SetWindowTextW(window, u"title");
    PostMessageW(window, WM_USER, 0, 0);
    const UINT_PTR timer = SetTimer(window, 1, 10, nullptr);
    drain();
    EXPECT_EQ(seen.load(), 1);
    EXPECT_TRUE(KillTimer(window, timer));
    WNDCLASSW description{};
    description.lpfnWndProc = DefWindowProcW;
    std::u16string name = u"forked";  // classes are the process's
    for (const char digit : std::to_string(GetCurrentThreadId())) {
        name += static_cast<char16_t>(digit);
    }
    description.lpszClassName = name.c_str();
    EXPECT_NE(RegisterClassW(&description), 0);
    EXPECT_TRUE(UnregisterClassW(name.c_str(), nullptr));
}

TEST(WindowingFork, ThreeHundredForksUnderLoad) {
    register_class();
    PumpThread receiver;
    const HWND window = receiver.window();
    const zr::test::Load load({use_windows, [window] {
                                   DWORD_PTR result = 0;
                                   SendMessageTimeoutW(window, WM_GETTEXTLENGTH, 0, 0, 0, 1000, &result);
                                   PostMessageW(window, WM_USER, 0, 0);
                               }});
    for (int i = 0; i < 300 / zr::test::kStride; ++i) {
        ASSERT_EQ(in_fork([&]() -> int {
                      use_windows();
                      CHECK(!IsWindow(window));
                      return testing::Test::HasFailure() ? 1 : 0;
                  }),
                  0)
            << "fork " << i;
        use_windows();
    }
}

}  // namespace
