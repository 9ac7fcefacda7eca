// Where windows are.

#include "platform/places.h"

#include <algorithm>
#include <climits>
#include <random>
#include <string>
#include <vector>

#include "platform/screen.h"
#include "windowing_support.h"

using namespace windowing_test;

namespace {

class Screen {
public:
    explicit Screen(const char* value) { setenv("ZR_SCREEN", value, 1); }
    ~Screen() { unsetenv("ZR_SCREEN"); }
};

HWND make(int x, int y, int width, int height, HWND parent = nullptr, DWORD style = 0, int id = 0) {
    register_class();
    return CreateWindowExW(0, kClass, nullptr, style, x, y, width, height, parent,
                           reinterpret_cast<HMENU>(static_cast<INT_PTR>(id)), nullptr, nullptr);
}

// A window with a place, destroyed with the object.
class Placed {
public:
    Placed(int x, int y, int width, int height, HWND parent = nullptr, DWORD style = 0, int id = 0)
        : window_(make(x, y, width, height, parent, style, id)) {
        EXPECT_NE(window_, nullptr);
    }
    ~Placed() {
        if (IsWindow(window_)) DestroyWindow(window_);
    }
    Placed(const Placed&) = delete;
    Placed& operator=(const Placed&) = delete;
    operator HWND() const { return window_; }  // NOLINT(google-explicit-constructor)

private:
    HWND window_;
};

std::string text_of_rectangle(const RECT& rectangle) {
    return std::to_string(rectangle.left) + "," + std::to_string(rectangle.top) + "," +
           std::to_string(rectangle.right) + "," + std::to_string(rectangle.bottom);
}

std::string window_rectangle(HWND window) {
    RECT rectangle{-1, -1, -1, -1};
    EXPECT_TRUE(GetWindowRect(window, &rectangle));
    return text_of_rectangle(rectangle);
}

std::string client_rectangle(HWND window) {
    RECT rectangle{-1, -1, -1, -1};
    EXPECT_TRUE(GetClientRect(window, &rectangle));
    return text_of_rectangle(rectangle);
}

// The places that a window is told, in order.
struct Told {
    std::vector<std::string> all;
    Handler handler() {
        return [this](HWND window, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
            const auto low = static_cast<SHORT>(LOWORD(static_cast<DWORD_PTR>(lparam)));
            const auto high = static_cast<SHORT>(HIWORD(static_cast<DWORD_PTR>(lparam)));
            const std::string pair = std::to_string(low) + "," + std::to_string(high);
            if (message == WM_MOVE) all.push_back("move " + pair);
            if (message == WM_SIZE) all.push_back("size " + pair + (wparam == SIZE_RESTORED ? "" : "?"));
            if (message == WM_SHOWWINDOW) all.push_back(wparam != 0 ? "show" : "hide");
            return DefWindowProcW(window, message, wparam, lparam);
        };
    }
};

using Lines = std::vector<std::string>;

TEST(Places, AWindowIsWhereItWasMade) {
    const Placed top(10, 20, 100, 200);
    EXPECT_EQ(window_rectangle(top), "10,20,110,220");
    EXPECT_EQ(client_rectangle(top), "0,0,100,200");
    const Placed child(3, 4, 30, 40, top, WS_CHILD);
    EXPECT_EQ(window_rectangle(child), "13,24,43,64");
    EXPECT_EQ(client_rectangle(child), "0,0,30,40");
    const Placed grandchild(1, 1, 5, 5, child, WS_CHILD);
    EXPECT_EQ(window_rectangle(grandchild), "14,25,19,30");
}

TEST(Places, ABorderIsNotTheClientAreas) {
    const Placed top(10, 20, 100, 200, nullptr, WS_BORDER);
    EXPECT_EQ(window_rectangle(top), "10,20,110,220");
    EXPECT_EQ(client_rectangle(top), "0,0,98,198");
    const Placed child(0, 0, 5, 5, top, WS_CHILD);
    EXPECT_EQ(window_rectangle(child), "11,21,16,26");
    const Placed thin(0, 0, 1, 0, top, WS_CHILD | WS_BORDER);
    EXPECT_EQ(client_rectangle(thin), "0,0,0,0");
}

TEST(Places, TheUsualPlaceIsTheScreen) {
    const Screen screen("400x300");
    const Placed top(CW_USEDEFAULT, 7, CW_USEDEFAULT, 0);
    EXPECT_EQ(window_rectangle(top), "0,0,400,300");
    const Placed popup(CW_USEDEFAULT, 0, CW_USEDEFAULT, 0, nullptr, WS_POPUP);
    EXPECT_EQ(window_rectangle(popup), "0,0,0,0");
    const Placed child(5, 6, CW_USEDEFAULT, 0, top, WS_CHILD);
    EXPECT_EQ(window_rectangle(child), "5,6,5,6");
    EXPECT_EQ(window_rectangle(GetDesktopWindow()), "0,0,400,300");
    EXPECT_EQ(client_rectangle(GetDesktopWindow()), "0,0,400,300");
}

TEST(Places, NegativeExtentsAreNone) {
    const Placed top(10, 20, -5, -6);
    EXPECT_EQ(window_rectangle(top), "10,20,10,20");
    EXPECT_TRUE(MoveWindow(top, -3, -4, INT_MIN, 7, TRUE));
    EXPECT_EQ(window_rectangle(top), "-3,-4,-3,3");
}

TEST(Places, CoordinatesEndAtTheEndOfTheirRange) {
    const Placed top(INT_MAX - 1, INT_MIN, INT_MAX, INT_MAX);
    EXPECT_EQ(window_rectangle(top), "2147483646,-2147483648,2147483647,-1");
    const Placed child(INT_MAX, INT_MIN, 10, 10, top, WS_CHILD);
    EXPECT_EQ(window_rectangle(child), "2147483647,-2147483648,2147483647,-2147483648");
    POINT point{INT_MAX, INT_MIN};
    EXPECT_TRUE(ClientToScreen(child, &point));
    EXPECT_EQ(point.x, INT_MAX);
    EXPECT_EQ(point.y, INT_MIN);
}

TEST(Places, PointsGoFromOneWindowToAnother) {
    const Placed one(10, 20, 100, 100);
    const Placed other(200, 300, 100, 100, nullptr, WS_BORDER);
    POINT point{1, 2};
    EXPECT_TRUE(ClientToScreen(one, &point));
    EXPECT_EQ(point.x, 11);
    EXPECT_EQ(point.y, 22);
    EXPECT_TRUE(ScreenToClient(other, &point));
    EXPECT_EQ(point.x, 11 - 201);
    EXPECT_EQ(point.y, 22 - 301);
    POINT points[2] = {{0, 0}, {5, 6}};
    const int moved = MapWindowPoints(one, other, points, 2);
    EXPECT_EQ(static_cast<SHORT>(LOWORD(static_cast<DWORD_PTR>(moved))), -191);
    EXPECT_EQ(static_cast<SHORT>(HIWORD(static_cast<DWORD_PTR>(moved))), -281);
    EXPECT_EQ(points[1].x, 5 - 191);
    EXPECT_EQ(points[1].y, 6 - 281);
    RECT rectangle{0, 0, 100, 100};
    MapWindowPoints(one, nullptr, reinterpret_cast<POINT*>(&rectangle), 2);
    EXPECT_EQ(text_of_rectangle(rectangle), "10,20,110,120");
    MapWindowPoints(GetDesktopWindow(), one, reinterpret_cast<POINT*>(&rectangle), 2);
    EXPECT_EQ(text_of_rectangle(rectangle), "0,0,100,100");
}

TEST(Places, AMovedWindowIsToldWhatChanged) {
    Told told;
    const TestWindow window(told.handler());
    EXPECT_TRUE(MoveWindow(window, 5, 6, 70, 80, FALSE));
    EXPECT_EQ(told.all, (Lines{"move 5,6", "size 70,80"}));
    told.all.clear();
    EXPECT_TRUE(MoveWindow(window, 5, 6, 70, 80, TRUE));
    EXPECT_EQ(told.all, Lines{});
    EXPECT_TRUE(MoveWindow(window, -7, 6, 70, 80, TRUE));
    EXPECT_TRUE(MoveWindow(window, -7, 6, 71, 80, TRUE));
    EXPECT_EQ(told.all, (Lines{"move -7,6", "size 71,80"}));
    told.all.clear();
    EXPECT_TRUE(SetWindowPos(window, nullptr, 1, 2, 3, 4, SWP_NOSIZE));
    EXPECT_EQ(window_rectangle(window), "1,2,72,82");
    EXPECT_TRUE(SetWindowPos(window, nullptr, 9, 9, 3, 4, SWP_NOMOVE | SWP_FRAMECHANGED));
    EXPECT_EQ(window_rectangle(window), "1,2,4,6");
    EXPECT_TRUE(SetWindowPos(window, nullptr, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_FRAMECHANGED));
    EXPECT_EQ(told.all, (Lines{"move 1,2", "size 3,4", "size 3,4"}));
}

TEST(Places, AVisibleWindowIsToldItsFirstPlace) {
    Told told;
    const Handler handler = told.handler();
    register_class();
    const HWND window = CreateWindowExW(0, kClass, nullptr, WS_VISIBLE, 1, 2, 30, 40, nullptr, nullptr, nullptr,
                                        const_cast<Handler*>(&handler));
    EXPECT_EQ(told.all, (Lines{"move 1,2", "size 30,40"}));
    EXPECT_TRUE(SetWindowPos(window, nullptr, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_HIDEWINDOW));
    EXPECT_TRUE(SetWindowPos(window, nullptr, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_HIDEWINDOW));
    EXPECT_TRUE(SetWindowPos(window, nullptr, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_SHOWWINDOW));
    EXPECT_EQ(told.all, (Lines{"move 1,2", "size 30,40", "hide", "show"}));
    DestroyWindow(window);
}

TEST(Places, AnotherThreadsWindowIsToldThere) {
    std::atomic<DWORD> thread{0};
    const PumpThread other([&](HWND window, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_SIZE) thread = GetCurrentThreadId();
        return DefWindowProcW(window, message, wparam, lparam);
    });
    EXPECT_TRUE(MoveWindow(other.window(), 1, 2, 3, 4, TRUE));
    EXPECT_EQ(thread.load(), other.id());
    EXPECT_EQ(window_rectangle(other.window()), "1,2,4,6");
}

TEST(Places, AWindowMayGoWhileItIsTold) {
    Handler handler = [](HWND window, UINT message, WPARAM wparam, LPARAM lparam) -> LRESULT {
        if (message == WM_MOVE) DestroyWindow(window);
        return DefWindowProcW(window, message, wparam, lparam);
    };
    const HWND window = make_window(&handler);
    EXPECT_TRUE(MoveWindow(window, 1, 1, 1, 1, TRUE));
    EXPECT_FALSE(IsWindow(window));
}

Lines order_of(HWND parent, const std::vector<HWND>& names) {
    Lines order;
    for (HWND child = GetWindow(parent, GW_CHILD); child; child = GetWindow(child, GW_HWNDNEXT)) {
        const auto at = std::find(names.begin(), names.end(), child);
        order.emplace_back(1, static_cast<char>('a' + (at - names.begin())));
    }
    // And from behind.
    HWND child = GetWindow(parent, GW_CHILD);
    child = child ? GetWindow(child, GW_HWNDLAST) : nullptr;
    for (std::size_t i = order.size(); i > 0; --i, child = GetWindow(child, GW_HWNDPREV)) {
        const auto at = std::find(names.begin(), names.end(), child);
        EXPECT_EQ(order[i - 1], std::string(1, static_cast<char>('a' + (at - names.begin()))));
    }
    EXPECT_EQ(child, nullptr);
    return order;
}

TEST(Places, WindowsAreInAnOrder) {
    const Placed parent(0, 0, 10, 10);
    const Placed a(0, 0, 1, 1, parent, WS_CHILD);
    const Placed b(0, 0, 1, 1, parent, WS_CHILD);
    const Placed c(0, 0, 1, 1, parent, WS_CHILD);
    const std::vector<HWND> names{a, b, c};
    constexpr UINT only = SWP_NOMOVE | SWP_NOSIZE;
    EXPECT_EQ(order_of(parent, names), (Lines{"a", "b", "c"}));
    EXPECT_TRUE(SetWindowPos(c, HWND_TOP, 0, 0, 0, 0, only));
    EXPECT_EQ(order_of(parent, names), (Lines{"c", "a", "b"}));
    EXPECT_TRUE(SetWindowPos(c, HWND_BOTTOM, 0, 0, 0, 0, only));
    EXPECT_EQ(order_of(parent, names), (Lines{"a", "b", "c"}));
    EXPECT_TRUE(SetWindowPos(a, b, 0, 0, 0, 0, only));
    EXPECT_EQ(order_of(parent, names), (Lines{"b", "a", "c"}));
    EXPECT_TRUE(SetWindowPos(a, a, 0, 0, 0, 0, only));
    EXPECT_TRUE(SetWindowPos(c, HWND_BOTTOM, 0, 0, 0, 0, only));
    EXPECT_TRUE(SetWindowPos(b, HWND_TOPMOST, 0, 0, 0, 0, only));
    EXPECT_TRUE(SetWindowPos(c, HWND_TOP, 0, 0, 0, 0, only | SWP_NOZORDER));
    EXPECT_EQ(order_of(parent, names), (Lines{"b", "a", "c"}));
    EXPECT_FALSE(SetWindowPos(a, parent, 0, 0, 0, 0, only));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(SetWindowPos(a, reinterpret_cast<HWND>(UINT_PTR{0x777}), 0, 0, 0, 0, only));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    EXPECT_EQ(order_of(parent, names), (Lines{"b", "a", "c"}));
}

TEST(Places, ChildrenAreFoundByTheirNumbers) {
    const Placed parent(0, 0, 10, 10);
    const Placed first(0, 0, 1, 1, parent, WS_CHILD, 7);
    const Placed second(0, 0, 1, 1, parent, WS_CHILD, 7);
    const Placed below(0, 0, 1, 1, first, WS_CHILD, 8);
    EXPECT_EQ(GetDlgItem(parent, 7), first);
    EXPECT_EQ(GetDlgItem(parent, 8), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_CONTROL_ID_NOT_FOUND);
    EXPECT_EQ(GetDlgItem(first, 8), below);
    EXPECT_EQ(GetDlgCtrlID(below), 8);
    SetWindowLongW(below, GWL_ID, 9);
    EXPECT_EQ(GetDlgCtrlID(below), 9);
}

TEST(Places, WhatIsNoWindowIsRefused) {
    const HWND none = reinterpret_cast<HWND>(UINT_PTR{0x12345678});
    RECT rectangle{};
    POINT point{};
    const auto refused = [](BOOL result) {
        const DWORD error = GetLastError();
        SetLastError(0);
        return !result && error == ERROR_INVALID_WINDOW_HANDLE;
    };
    EXPECT_TRUE(refused(GetWindowRect(none, &rectangle)));
    EXPECT_TRUE(refused(GetClientRect(none, &rectangle)));
    EXPECT_TRUE(refused(GetWindowRect(nullptr, &rectangle)));
    EXPECT_TRUE(refused(ClientToScreen(none, &point)));
    EXPECT_TRUE(refused(ClientToScreen(nullptr, &point)));
    EXPECT_TRUE(refused(ScreenToClient(none, &point)));
    EXPECT_TRUE(refused(MapWindowPoints(none, nullptr, &point, 1)));
    EXPECT_TRUE(refused(MapWindowPoints(nullptr, none, &point, 1)));
    EXPECT_TRUE(refused(MoveWindow(none, 0, 0, 1, 1, TRUE)));
    EXPECT_TRUE(refused(SetWindowPos(none, nullptr, 0, 0, 1, 1, 0)));
    EXPECT_TRUE(refused(GetDlgItem(none, 1) != nullptr));
    EXPECT_TRUE(refused(GetDlgCtrlID(none)));
    const Placed window(0, 0, 1, 1);
    EXPECT_FALSE(GetWindowRect(window, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_NOACCESS);
    EXPECT_FALSE(ScreenToClient(window, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_NOACCESS);
    EXPECT_EQ(MapWindowPoints(window, nullptr, nullptr, 1), 0);
    EXPECT_EQ(GetLastError(), ERROR_NOACCESS);
}

TEST(Places, AWindowKeepsItsFont) {
    const Placed window(0, 0, 1, 1);
    EXPECT_EQ(SendMessageW(window, WM_GETFONT, 0, 0), 0);
    SendMessageW(window, WM_SETFONT, 0x1234, TRUE);
    EXPECT_EQ(SendMessageW(window, WM_GETFONT, 0, 0), 0x1234);
}

TEST(Places, TheScreenIsWhatTheEnvironmentSays) {
    const auto size = [](const char* value) {
        const Screen screen(value);
        return std::pair(GetSystemMetrics(SM_CXSCREEN), GetSystemMetrics(SM_CYSCREEN));
    };
    using Pair = std::pair<int, int>;
    EXPECT_EQ(size("800x480@192"), Pair(800, 480));
    EXPECT_EQ(size("800x480"), Pair(800, 480));
    for (const char* wrong : {"800x480@", "800x480@0", "800x480@9601", "800x480@96 ", "800x480@96@96", "x480@96", ""}) {
        EXPECT_EQ(size(wrong), Pair(240, 320)) << wrong;
    }
    EXPECT_EQ(GetSystemMetrics(SM_CXBORDER), 1);
    EXPECT_EQ(GetSystemMetrics(SM_CYBORDER), 1);
    EXPECT_EQ(GetSystemMetrics(-1), 0);
    EXPECT_EQ(GetSystemMetrics(4711), 0);
}

// Rectangles at random, beside sums over the parents.
TEST(Places, RectanglesAddUp) {
    std::mt19937 random(18);  // NOLINT(bugprone-random-generator-seed)
    const auto number = [&](int from, int to) { return std::uniform_int_distribution(from, to)(random); };
    struct Known {
        HWND window;
        int parent;
        int x, y, width, height, border;
    };
    std::vector<Known> all;
    for (int i = 0; i < 40; ++i) {
        const int parent = i == 0 ? -1 : number(-1, i - 1);
        Known known{nullptr, parent, number(-50, 50), number(-50, 50), number(0, 90), number(0, 90), number(0, 1)};
        const DWORD style = (parent >= 0 ? WS_CHILD : 0) | (known.border != 0 ? WS_BORDER : 0);
        known.window = make(known.x, known.y, known.width, known.height,
                            parent >= 0 ? all[static_cast<std::size_t>(parent)].window : nullptr, style);
        all.push_back(known);
    }
    const auto at = [&](int i) -> Known& { return all[static_cast<std::size_t>(i)]; };
    for (int round = 0; round < 2000; ++round) {
        Known& known = at(number(0, 39));
        known.x = number(-50, 50);
        known.y = number(-50, 50);
        known.width = number(0, 90);
        known.height = number(0, 90);
        ASSERT_TRUE(MoveWindow(known.window, known.x, known.y, known.width, known.height, TRUE));
        const int i = number(0, 39);
        int x = at(i).x;
        int y = at(i).y;
        for (int above = at(i).parent; above >= 0; above = at(above).parent) {
            x += at(above).x + at(above).border;
            y += at(above).y + at(above).border;
        }
        RECT found{};
        ASSERT_TRUE(GetWindowRect(at(i).window, &found));
        ASSERT_EQ(text_of_rectangle(found), text_of_rectangle({x, y, x + at(i).width, y + at(i).height}));
        POINT point{0, 0};
        ASSERT_TRUE(ClientToScreen(at(i).window, &point));
        ASSERT_EQ(point.x, x + at(i).border);
        ASSERT_EQ(point.y, y + at(i).border);
        ASSERT_TRUE(ScreenToClient(at(i).window, &point));
        ASSERT_EQ(point.x, 0);
    }
    for (const Known& known : all) {
        if (known.parent < 0) DestroyWindow(known.window);
    }
    for (const Known& known : all) {
        EXPECT_FALSE(IsWindow(known.window));
    }
}

}  // namespace
