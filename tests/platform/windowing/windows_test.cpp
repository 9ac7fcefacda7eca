#include <algorithm>
#include <string>

#include "windowing_support.h"

namespace {

using namespace windowing_test;
using Names = std::vector<std::string>;

// Records the end of windows under a name each.
Handler recorder(Names& log, std::string name) {
    return [&log, name](HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
        if (message == WM_DESTROY) log.push_back(name + " destroy");
        if (message == WM_NCDESTROY) log.push_back(name + " gone");
        return DefWindowProcW(window, message, wparam, lparam);
    };
}

}  // namespace

TEST(Windows, AreToldHowTheyAreMade) {
    register_class();
    struct Seen {
        CREATESTRUCTW how;
        std::vector<UINT> messages;
    };
    static Seen seen;
    seen = {};
    WNDCLASSW description{};
    description.lpszClassName = u"seen";
    description.hInstance = reinterpret_cast<HINSTANCE>(7);
    description.lpfnWndProc = [](HWND, UINT message, WPARAM, LPARAM lparam) -> LRESULT {
        seen.messages.push_back(message);
        if (message == WM_CREATE) seen.how = *reinterpret_cast<CREATESTRUCTW*>(lparam);
        return 0;
    };
    ASSERT_NE(RegisterClassW(&description), 0);
    const TestWindow parent;
    int parameter = 0;
    const HWND window = CreateWindowExW(5, u"seen", u"Title", WS_CHILD, 1, 2, 3, 4, parent, reinterpret_cast<HMENU>(9),
                                        description.hInstance, &parameter);
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(seen.messages, std::vector<UINT>{WM_CREATE});
    EXPECT_EQ(seen.how.lpCreateParams, &parameter);
    EXPECT_EQ(seen.how.hwndParent, parent);
    EXPECT_EQ(seen.how.x, 1);
    EXPECT_EQ(seen.how.y, 2);
    EXPECT_EQ(seen.how.cx, 3);
    EXPECT_EQ(seen.how.cy, 4);
    EXPECT_EQ(std::u16string(seen.how.lpszName), u"Title");
    EXPECT_EQ(std::u16string(seen.how.lpszClass), u"seen");
    EXPECT_EQ(GetWindowLongW(window, GWL_ID), 9);
    EXPECT_EQ(GetWindowLongW(window, GWL_EXSTYLE), 5);
    EXPECT_EQ(GetWindowLongW(window, GWL_HINSTANCE), 7);
    EXPECT_TRUE(DestroyWindow(window));
    EXPECT_EQ(seen.messages, (std::vector<UINT>{WM_CREATE, WM_DESTROY, WM_NCDESTROY}));
    EXPECT_TRUE(UnregisterClassW(u"seen", description.hInstance));
}

TEST(Windows, ThatRefuseTheirCreationAreGone) {
    Names log;
    const Handler record = recorder(log, "w");
    const Handler refuse = [&](HWND window, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_CREATE) return -1;
        return record(window, message, wparam, lparam);
    };
    EXPECT_EQ(make_window(&refuse), nullptr);
    EXPECT_EQ(log, (Names{"w destroy", "w gone"}));
    const Handler suicide = [&](HWND window, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_CREATE) {
            EXPECT_TRUE(DestroyWindow(window));
        }
        return record(window, message, wparam, lparam);
    };
    EXPECT_EQ(make_window(&suicide), nullptr);
    EXPECT_EQ(log.size(), 4u);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), 0);
}

TEST(Windows, NeedAClassAndAParentThatExist) {
    EXPECT_EQ(CreateWindowExW(0, u"no.such", nullptr, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_CANNOT_FIND_WND_CLASS);
    EXPECT_EQ(CreateWindowExW(0, nullptr, nullptr, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_CANNOT_FIND_WND_CLASS);
    EXPECT_EQ(make_window(nullptr, reinterpret_cast<HWND>(0x12345)), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    register_class();
    EXPECT_EQ(CreateWindowExW(0, kClass, nullptr, WS_CHILD, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_TLW_WITH_WSCHILD);
    const HWND message_only = make_window(nullptr, HWND_MESSAGE);
    ASSERT_NE(message_only, nullptr);
    EXPECT_EQ(GetParent(message_only), nullptr);
    EXPECT_TRUE(DestroyWindow(message_only));
}

TEST(Windows, EndWithTheirParents) {
    Names log;
    const Handler a = recorder(log, "a");
    const Handler b = recorder(log, "b");
    const Handler c = recorder(log, "c");
    const Handler d = recorder(log, "d");
    const HWND top = make_window(&a);
    const HWND left = make_window(&b, top);
    const HWND below = make_window(&c, left);
    const HWND right = make_window(&d, top);
    EXPECT_EQ(GetParent(below), left);
    EXPECT_TRUE(IsChild(top, below));
    EXPECT_FALSE(IsChild(right, below));
    EXPECT_FALSE(IsChild(top, top));
    EXPECT_EQ(GetWindow(top, GW_CHILD), left);
    EXPECT_EQ(GetWindow(left, GW_HWNDNEXT), right);
    EXPECT_EQ(GetWindow(right, GW_HWNDPREV), left);
    EXPECT_EQ(GetWindow(left, GW_HWNDLAST), right);
    EXPECT_EQ(GetWindow(right, GW_HWNDFIRST), left);
    EXPECT_EQ(GetWindow(right, GW_HWNDNEXT), nullptr);
    EXPECT_TRUE(DestroyWindow(top));
    EXPECT_EQ(log, (Names{"a destroy", "b destroy", "c destroy", "d destroy", "c gone", "b gone", "d gone", "a gone"}));
    for (const HWND window : {top, left, below, right})
        EXPECT_FALSE(IsWindow(window));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), 0);
}

TEST(Windows, MayDestroyAnythingWhileTheyEnd) {
    Names log;
    HWND top = nullptr;
    HWND sibling = nullptr;
    const Handler record_child = recorder(log, "child");
    const Handler child_handler = [&](HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
        if (message == WM_DESTROY) {
            EXPECT_TRUE(DestroyWindow(window));   // under way
            EXPECT_TRUE(DestroyWindow(top));      // under way
            EXPECT_TRUE(DestroyWindow(sibling));  // for good
            EXPECT_FALSE(IsWindow(sibling));
            EXPECT_EQ(make_window(nullptr, top), nullptr);  // it accepts no more children
        }
        return record_child(window, message, wparam, lparam);
    };
    const Handler sibling_handler = recorder(log, "sibling");
    const Handler last_handler = recorder(log, "last");
    const Handler top_handler = recorder(log, "top");
    top = make_window(&top_handler);
    make_window(&child_handler, top);
    sibling = make_window(&sibling_handler, top);
    make_window(&last_handler, top);
    EXPECT_TRUE(DestroyWindow(top));
    EXPECT_EQ(log, (Names{"top destroy", "sibling destroy", "sibling gone", "child destroy", "last destroy",
                          "child gone", "last gone", "top gone"}));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), 0);
}

TEST(Windows, MayEndInAnyMessage) {
    const TestWindow window([](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_APP) {
            EXPECT_TRUE(DestroyWindow(self));
            return 17;
        }
        return DefWindowProcW(self, message, wparam, lparam);
    });
    PostMessageW(window, WM_APP + 1, 0, 0);
    EXPECT_EQ(SendMessageW(window, WM_APP, 0, 0), 17);
    EXPECT_FALSE(IsWindow(window));
    MSG message{};
    EXPECT_FALSE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));  // its posted message went with it
}

TEST(Windows, StopAtAHundredLevels) {
    HWND top = make_window(nullptr);
    HWND deepest = top;
    for (int level = 1; level <= 100; ++level) {
        deepest = make_window(nullptr, deepest);
        ASSERT_NE(deepest, nullptr) << level;
    }
    EXPECT_EQ(make_window(nullptr, deepest), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(DestroyWindow(top));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), 0);
}

TEST(Windows, BelongToTheirThread) {
    PumpThread other;
    DWORD process = 0;
    EXPECT_EQ(GetWindowThreadProcessId(other.window(), &process), other.id());
    EXPECT_EQ(process, GetCurrentProcessId());
    EXPECT_FALSE(DestroyWindow(other.window()));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_TRUE(IsWindow(other.window()));
    other.end();
    EXPECT_FALSE(IsWindow(other.window()));
    EXPECT_EQ(GetWindowThreadProcessId(other.window(), nullptr), 0u);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
}

TEST(Windows, EndWithTheirThread) {
    HWND window = nullptr;
    HWND child = nullptr;
    on_thread([&] {
        window = make_window(nullptr);
        child = make_window(nullptr, window);
        PostMessageW(window, WM_APP, 0, 0);
        SetTimer(window, 1, 1, nullptr);
        EXPECT_GE(ZrGetQueueDescriptor(), 0);
    });
    EXPECT_FALSE(IsWindow(window));
    EXPECT_FALSE(IsWindow(child));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), 0);
}

TEST(Windows, OfATerminatedThreadEnd) {
    static HWND window;
    static TestEvent* ready;
    const TestEvent made;
    ready = const_cast<TestEvent*>(&made);
    const HANDLE thread = CreateThread(
        nullptr, 0,
        [](LPVOID) -> DWORD {
            window = make_window(nullptr);
            ready->set();
            return static_cast<DWORD>(pump());
        },
        nullptr, 0, nullptr);
    ASSERT_TRUE(made.wait());
    EXPECT_TRUE(TerminateThread(thread, 3));
    EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    EXPECT_FALSE(IsWindow(window));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), 0);
    CloseHandle(thread);
}

TEST(Windows, OfAnotherThreadBelowAParentEndWhenThatThreadServes) {
    Names log;
    const Handler record = recorder(log, "child");
    HWND parent = make_window(nullptr);
    std::promise<HWND> made;
    std::thread other([&] {
        const HWND child = make_window(&record, parent);
        made.set_value(child);
        MSG message{};
        EXPECT_EQ(GetMessageW(&message, child, 0, 0), -1);  // it serves, and then the window is gone
        EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
        EXPECT_EQ(log, (Names{"child destroy", "child gone"}));
    });
    const HWND child = made.get_future().get();
    EXPECT_TRUE(IsChild(parent, child));
    EXPECT_TRUE(DestroyWindow(parent));
    other.join();
    EXPECT_FALSE(IsWindow(child));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), 0);
}

TEST(WindowHandles, ThatAreNoneAreRefusedEverywhere) {
    const HWND stale = make_window(nullptr);
    ASSERT_TRUE(DestroyWindow(stale));
    const auto value = reinterpret_cast<UINT_PTR>(stale);
    int local = 0;
    const HWND bad[] = {stale,
                        nullptr,
                        reinterpret_cast<HWND>(value + 0x10000),
                        reinterpret_cast<HWND>(value + 0xFFFF),
                        reinterpret_cast<HWND>(UINT_PTR{1}),
                        reinterpret_cast<HWND>(UINT_PTR{0xFFFF}),
                        reinterpret_cast<HWND>(UINT_PTR{0xFFFFFFFF}),
                        reinterpret_cast<HWND>(static_cast<LONG_PTR>(-1)),
                        reinterpret_cast<HWND>(&local)};
    for (const HWND window : bad) {
        SetLastError(0);
        EXPECT_FALSE(IsWindow(window));
        EXPECT_FALSE(DestroyWindow(window));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
        SetLastError(0);
        EXPECT_EQ(SendMessageW(window, WM_APP, 0, 0), 0);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
        SetLastError(0);
        EXPECT_EQ(GetWindowLongW(window, GWL_USERDATA), 0);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
        SetLastError(0);
        EXPECT_EQ(SetWindowLongW(window, 0, 1), 0);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
        SetLastError(0);
        EXPECT_EQ(GetParent(window), nullptr);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
        EXPECT_FALSE(SendNotifyMessageW(window, WM_APP, 0, 0));
        EXPECT_EQ(GetWindow(window, GW_CHILD), nullptr);
        if (window) {
            SetLastError(0);
            EXPECT_FALSE(PostMessageW(window, WM_APP, 0, 0));
            EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
            SetLastError(0);
            EXPECT_EQ(SetTimer(window, 1, 1, nullptr), 0u);
            EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
        }
    }
}

TEST(WindowHandles, AreNotReusedSoon) {
    const HWND first = make_window(nullptr);
    ASSERT_TRUE(DestroyWindow(first));
    for (int i = 0; i < 100'000; ++i) {
        const HWND next = make_window(nullptr);
        ASSERT_NE(next, nullptr);
        ASSERT_NE(next, first);
        ASSERT_TRUE(DestroyWindow(next));
    }
}

TEST(WindowHandles, LastForManyWindows) {
    std::vector<HWND> all;
    while (const HWND window = make_window(nullptr))
        all.push_back(window);
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(all.size(), 65'000u);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), 65'000);
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
    for (const HWND window : all)
        ASSERT_TRUE(DestroyWindow(window));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), 0);
}

TEST(Windows, AreFoundByClassAndTitle) {
    const TestWindow first;
    const TestWindow second;
    EXPECT_TRUE(SetWindowTextW(second, u"Second"));
    EXPECT_EQ(FindWindowW(u"WINDOWING.TEST", nullptr), first);
    EXPECT_EQ(FindWindowW(kClass, u"second"), second);
    EXPECT_EQ(FindWindowW(nullptr, u"Second"), second);
    EXPECT_EQ(FindWindowW(kClass, u"third"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(FindWindowW(u"no.class", nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_CANNOT_FIND_WND_CLASS);
}

TEST(WindowData, HoldsPointers) {
    WNDCLASSW description{};
    description.lpfnWndProc = DefWindowProcW;
    description.lpszClassName = u"extra";
    description.cbWndExtra = 2 * sizeof(LONG_PTR) + 1;
    ASSERT_NE(RegisterClassW(&description), 0);
    const HWND window = CreateWindowExW(0, u"extra", nullptr, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    const auto wide = reinterpret_cast<LONG_PTR>(&description);
    constexpr int kWidth = sizeof(LONG_PTR);
    for (const int index : {GWL_USERDATA, GWL_ID, GWL_STYLE, GWL_EXSTYLE, 0, kWidth}) {
        EXPECT_EQ(SetWindowLongW(window, index, wide), 0) << index;
        EXPECT_EQ(GetWindowLongW(window, index), wide) << index;
        EXPECT_EQ(SetWindowLongPtrW(window, index, wide + 1), wide) << index;
        EXPECT_EQ(GetWindowLongPtrW(window, index), wide + 1) << index;
    }
    SetWindowLongW(window, kWidth + 1, wide);  // need not be aligned
    EXPECT_EQ(GetWindowLongW(window, kWidth + 1), wide);
    for (const int index : {-1, -5, kWidth + 2, 1000, -1000, INT32_MAX, INT32_MIN}) {
        SetLastError(0);
        EXPECT_EQ(SetWindowLongW(window, index, 1), 0);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_INDEX) << index;
        SetLastError(0);
        EXPECT_EQ(GetWindowLongW(window, index), 0);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_INDEX) << index;
    }
    EXPECT_TRUE(DestroyWindow(window));
    EXPECT_TRUE(UnregisterClassW(u"extra", nullptr));
}

TEST(WindowData, OfAnotherThreadCanBeReadAndSet) {
    const PumpThread other;
    const TestWindow parent;
    EXPECT_EQ(SetWindowLongW(other.window(), GWL_ID, 77), 0);
    EXPECT_EQ(GetWindowLongW(other.window(), GWL_ID), 77);
    EXPECT_EQ(GetWindowLongW(other.window(), GWL_HWNDPARENT), 0);
}

TEST(WindowData, TheProcedureCanBeReplaced) {
    const TestWindow window([](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        return message == WM_APP ? 1 : DefWindowProcW(self, message, wparam, lparam);
    });
    static WNDPROC before;
    const WNDPROC after = [](HWND self, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        return 10 + CallWindowProcW(before, self, message, wparam, lparam);
    };
    before = reinterpret_cast<WNDPROC>(SetWindowLongW(window, GWL_WNDPROC, reinterpret_cast<LONG_PTR>(after)));
    EXPECT_EQ(before, &procedure);
    EXPECT_EQ(SendMessageW(window, WM_APP, 0, 0), 11);
    EXPECT_EQ(SetWindowLongW(window, GWL_WNDPROC, 0), 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(CallWindowProcW(nullptr, window, WM_APP, 0, 0), 0);
}

TEST(WindowText, IsKeptByTheDefaultProcedure) {
    const TestWindow window;
    WCHAR text[8];
    EXPECT_EQ(GetWindowTextW(window, text, 8), 0);
    EXPECT_EQ(text[0], 0);
    EXPECT_TRUE(SetWindowTextW(window, u"A title"));
    EXPECT_EQ(GetWindowTextLengthW(window), 7);
    EXPECT_EQ(GetWindowTextW(window, text, 8), 7);
    EXPECT_EQ(std::u16string(text), u"A title");
    EXPECT_EQ(GetWindowTextW(window, text, 3), 2);
    EXPECT_EQ(std::u16string(text), u"A ");
    EXPECT_TRUE(SetWindowTextW(window, nullptr));
    EXPECT_EQ(GetWindowTextLengthW(window), 0);
    EXPECT_EQ(GetWindowTextW(window, nullptr, 3), 0);
    const PumpThread other;
    EXPECT_TRUE(SetWindowTextW(other.window(), u"other"));
    EXPECT_EQ(GetWindowTextW(other.window(), text, 8), 5);
}

TEST(DefaultProcedure, ClosesWindows) {
    const TestWindow window;
    EXPECT_EQ(SendMessageW(window, WM_CLOSE, 0, 0), 0);
    EXPECT_FALSE(IsWindow(window));
}
