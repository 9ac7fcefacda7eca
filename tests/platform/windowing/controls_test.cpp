// Tabs, and sheets of pages.

#include "platform/controls.h"

#include <string>
#include <utility>
#include <vector>

#include "platform/places.h"
#include "support/failing_new.h"
#include "windowing_support.h"

using namespace windowing_test;

namespace {

HWND make_tabs(DWORD style = 0, HINSTANCE instance = nullptr) {
    return CreateWindowExW(0, u"systabcontrol32", nullptr, style, 0, 0, 200, 100, nullptr, nullptr, instance, nullptr);
}

class Tabs {
public:
    explicit Tabs(DWORD style = 0) : window_(make_tabs(style)) { EXPECT_NE(window_, nullptr); }
    ~Tabs() { DestroyWindow(window_); }
    Tabs(const Tabs&) = delete;
    Tabs& operator=(const Tabs&) = delete;
    operator HWND() const { return window_; }  // NOLINT(google-explicit-constructor)

    LRESULT send(UINT message, WPARAM wparam = 0, LPARAM lparam = 0) const {
        return SendMessageW(window_, message, wparam, lparam);
    }
    LRESULT insert(WPARAM at, std::u16string text, LPARAM param = 0) const {
        TCITEMW item{};
        item.mask = TCIF_TEXT | TCIF_PARAM;
        item.pszText = text.data();
        item.lParam = param;
        return send(TCM_INSERTITEMW, at, reinterpret_cast<LPARAM>(&item));
    }
    std::u16string text(WPARAM at, int room = 64) const {
        std::u16string text(64, u'#');
        TCITEMW item{};
        item.mask = TCIF_TEXT;
        item.pszText = text.data();
        item.cchTextMax = room;
        if (send(TCM_GETITEMW, at, reinterpret_cast<LPARAM>(&item)) == FALSE) return u"none";
        return text.c_str();
    }
    RECT place(WPARAM at) const {
        RECT place{-1, -1, -1, -1};
        EXPECT_TRUE(send(TCM_GETITEMRECT, at, reinterpret_cast<LPARAM>(&place)));
        return place;
    }

private:
    HWND window_;
};

TEST(Tabs, AreInsertedAndDeleted) {
    const Tabs tabs;
    EXPECT_EQ(tabs.send(TCM_GETITEMCOUNT), 0);
    EXPECT_EQ(tabs.send(TCM_GETCURSEL), -1);
    EXPECT_EQ(tabs.send(TCM_GETROWCOUNT), 0);
    EXPECT_EQ(tabs.insert(0, u"one", 1), 0);
    EXPECT_EQ(tabs.insert(99, u"three", 3), 1);
    EXPECT_EQ(tabs.insert(1, u"two", 2), 1);
    EXPECT_EQ(tabs.send(TCM_GETITEMCOUNT), 3);
    EXPECT_EQ(tabs.text(0), u"one");
    EXPECT_EQ(tabs.text(1), u"two");
    EXPECT_EQ(tabs.text(2), u"three");
    EXPECT_EQ(tabs.text(2, 3), u"th");
    EXPECT_EQ(tabs.text(3), u"none");
    EXPECT_EQ(tabs.send(TCM_DELETEITEM, 3), FALSE);
    EXPECT_EQ(tabs.send(TCM_DELETEITEM, 1), TRUE);
    EXPECT_EQ(tabs.text(1), u"three");
    EXPECT_EQ(tabs.send(TCM_DELETEALLITEMS), TRUE);
    EXPECT_EQ(tabs.send(TCM_GETITEMCOUNT), 0);
    EXPECT_EQ(tabs.send(TCM_INSERTITEMW, 0, 0), -1);
}

TEST(Tabs, TheSameOneStaysSelected) {
    const Tabs tabs;
    tabs.insert(0, u"b");
    EXPECT_EQ(tabs.send(TCM_GETCURSEL), 0);
    tabs.insert(0, u"a");
    EXPECT_EQ(tabs.send(TCM_GETCURSEL), 1);
    tabs.insert(9, u"c");
    EXPECT_EQ(tabs.send(TCM_SETCURSEL, 2), 1);
    EXPECT_EQ(tabs.send(TCM_SETCURSEL, 77), 2);
    EXPECT_EQ(tabs.send(TCM_GETCURSEL), 2);
    tabs.send(TCM_DELETEITEM, 0);
    EXPECT_EQ(tabs.send(TCM_GETCURSEL), 1);
    tabs.send(TCM_DELETEITEM, 1);
    EXPECT_EQ(tabs.send(TCM_GETCURSEL), -1);
    tabs.send(TCM_SETCURSEL, 0);
    EXPECT_EQ(tabs.send(TCM_SETCURSEL, static_cast<WPARAM>(-1)), 0);
    EXPECT_EQ(tabs.send(TCM_GETCURSEL), -1);
}

TEST(Tabs, LieBesideEachOther) {
    const Tabs tabs;
    tabs.insert(9, u"one");
    tabs.insert(9, u"three");
    RECT empty{};
    EXPECT_EQ(tabs.send(TCM_GETITEMRECT, 2, reinterpret_cast<LPARAM>(&empty)), FALSE);
    EXPECT_EQ(tabs.send(TCM_GETITEMRECT, 0, 0), FALSE);
    const RECT first = tabs.place(0);
    const RECT second = tabs.place(1);
    EXPECT_EQ(first.left, 0);
    EXPECT_EQ(first.top, 0);
    EXPECT_EQ(first.right, 12 + 18);
    EXPECT_EQ(first.bottom, 20);
    EXPECT_EQ(second.left, first.right);
    EXPECT_EQ(second.right, first.right + 12 + 30);
    EXPECT_EQ(tabs.send(TCM_SETITEMSIZE, 0, MAKELPARAM(50, 30)), MAKELRESULT(0, 20));
    EXPECT_EQ(tabs.place(1).left, 50);
    EXPECT_EQ(tabs.place(1).right, 100);
    EXPECT_EQ(tabs.place(1).bottom, 30);
}

TEST(Tabs, MayBeAtTheLowerEdge) {
    const Tabs tabs(TCS_BOTTOM);
    tabs.insert(9, u"one");
    EXPECT_EQ(tabs.place(0).top, 80);
    EXPECT_EQ(tabs.place(0).bottom, 100);
    RECT area{0, 0, 200, 100};
    tabs.send(TCM_ADJUSTRECT, FALSE, reinterpret_cast<LPARAM>(&area));
    EXPECT_EQ(area.bottom, 80);
    tabs.send(TCM_ADJUSTRECT, TRUE, reinterpret_cast<LPARAM>(&area));
    EXPECT_EQ(area.bottom, 100);
    const Tabs upper;
    upper.send(TCM_ADJUSTRECT, FALSE, reinterpret_cast<LPARAM>(&area));
    EXPECT_EQ(area.top, 20);
}

TEST(Tabs, ItemsAreSet) {
    const Tabs tabs;
    tabs.insert(0, u"one", 5);
    TCITEMW item{};
    item.mask = TCIF_PARAM | TCIF_IMAGE;
    item.lParam = 6;
    item.iImage = 3;
    EXPECT_EQ(tabs.send(TCM_SETITEMW, 0, reinterpret_cast<LPARAM>(&item)), TRUE);
    EXPECT_EQ(tabs.send(TCM_SETITEMW, 1, reinterpret_cast<LPARAM>(&item)), FALSE);
    EXPECT_EQ(tabs.send(TCM_SETITEMW, 0, 0), FALSE);
    item = {};
    item.mask = TCIF_PARAM | TCIF_IMAGE;
    EXPECT_EQ(tabs.send(TCM_GETITEMW, 0, reinterpret_cast<LPARAM>(&item)), TRUE);
    EXPECT_EQ(item.lParam, 6);
    EXPECT_EQ(item.iImage, 3);
    EXPECT_EQ(tabs.text(0), u"one");
}

TEST(Tabs, AreAClassForEveryInstance) {
    const HINSTANCE some = reinterpret_cast<HINSTANCE>(UINT_PTR{0x5000});
    const HWND tabs = make_tabs(0, some);
    ASSERT_NE(tabs, nullptr);
    WCHAR name[32];
    EXPECT_GT(GetClassNameW(tabs, name, 32), 0);
    EXPECT_EQ(std::u16string(name), WC_TABCONTROLW);
    DestroyWindow(tabs);
    WNDCLASSW found{};
    EXPECT_TRUE(GetClassInfoW(nullptr, WC_TABCONTROLW, &found));
    EXPECT_FALSE(UnregisterClassW(WC_TABCONTROLW, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_CLASS_DOES_NOT_EXIST);
    // A program's own comes first.
    WNDCLASSW own{};
    own.lpfnWndProc = [](HWND, UINT message, WPARAM, LPARAM) -> LRESULT { return message == WM_APP ? 42 : 0; };
    own.lpszClassName = WC_TABCONTROLW;
    own.hInstance = some;
    ASSERT_NE(RegisterClassW(&own), 0);
    const HWND mine = make_tabs(0, some);
    EXPECT_EQ(SendMessageW(mine, WM_APP, 0, 0), 42);
    DestroyWindow(mine);
    EXPECT_TRUE(UnregisterClassW(WC_TABCONTROLW, some));
}

TEST(Tabs, GoWithTheirThread) {
    on_thread([] {
        const HWND tabs = make_tabs();
        TCITEMW item{};
        item.mask = TCIF_TEXT;
        std::u16string text(1000, u'x');
        item.pszText = text.data();
        SendMessageW(tabs, TCM_INSERTITEMW, 0, reinterpret_cast<LPARAM>(&item));
    });
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), 0);
}

// ---- Sheets ----

struct PageSeen {
    std::vector<std::u16string> begun;
    HWND page = nullptr;
    int removed_at_once = -1;  // the page that goes when the first one begins
};
PageSeen seen;

INT_PTR page_procedure(HWND page, UINT message, WPARAM, LPARAM lparam) {
    if (message == WM_INITDIALOG) {
        const auto* description = reinterpret_cast<const PROPSHEETPAGEW*>(lparam);
        seen.begun.emplace_back(description->pszTitle);
        seen.page = page;
        if (const int index = std::exchange(seen.removed_at_once, -1); index >= 0) {
            SendMessageW(GetParent(page), PSM_REMOVEPAGE, static_cast<WPARAM>(index), 0);
        }
    }
    return message == WM_APP ? 17 : 0;
}

class Sheet {
public:
    explicit Sheet(UINT pages, UINT start = 0, int removed_at_once = -1) {
        seen = {};
        seen.removed_at_once = removed_at_once;
        std::vector<PROPSHEETPAGEW> all;
        static const WCHAR* const titles[] = {u"General", u"Accounts", u"More"};
        for (UINT i = 0; i < pages; ++i) {
            all.push_back({sizeof(PROPSHEETPAGEW), PSP_USETITLE, nullptr, nullptr, nullptr, titles[i], page_procedure,
                           static_cast<LPARAM>(i)});
        }
        const PROPSHEETHEADERW header{sizeof(PROPSHEETHEADERW),
                                      PSH_MODELESS | PSH_PROPSHEETPAGE,
                                      nullptr,
                                      nullptr,
                                      nullptr,
                                      u"Options",
                                      pages,
                                      start,
                                      all.data()};
        window_ = reinterpret_cast<HWND>(PropertySheetW(&header));
    }
    ~Sheet() {
        if (IsWindow(window_)) DestroyWindow(window_);
    }
    Sheet(const Sheet&) = delete;
    Sheet& operator=(const Sheet&) = delete;
    operator HWND() const { return window_; }  // NOLINT(google-explicit-constructor)
    HWND tabs() const { return reinterpret_cast<HWND>(SendMessageW(window_, PSM_GETTABCONTROL, 0, 0)); }
    HWND page() const { return reinterpret_cast<HWND>(SendMessageW(window_, PSM_GETCURRENTPAGEHWND, 0, 0)); }

private:
    HWND window_ = nullptr;
};

bool is_shown(HWND window) {
    return (GetWindowLongW(window, GWL_STYLE) & static_cast<LONG_PTR>(WS_VISIBLE)) != 0;
}

TEST(Sheets, HaveATabForEachPage) {
    const Sheet sheet(3);
    ASSERT_TRUE(IsWindow(sheet));
    ASSERT_TRUE(IsWindow(sheet.tabs()));
    EXPECT_EQ(GetParent(sheet.tabs()), sheet);
    EXPECT_EQ(SendMessageW(sheet.tabs(), TCM_GETITEMCOUNT, 0, 0), 3);
    EXPECT_EQ(seen.begun, std::vector<std::u16string>{u"General"});
    EXPECT_EQ(sheet.page(), seen.page);
    EXPECT_EQ(GetParent(seen.page), sheet);
    EXPECT_TRUE(is_shown(seen.page));
    EXPECT_EQ(SendMessageW(seen.page, WM_APP, 0, 0), 17);
    RECT page{};
    RECT client{};
    GetWindowRect(sheet.page(), &page);
    GetClientRect(sheet, &client);
    EXPECT_EQ(page.bottom, client.bottom - 20);
}

TEST(Sheets, MakeAPageWhenItIsSelected) {
    const Sheet sheet(3, 1);
    EXPECT_EQ(seen.begun, std::vector<std::u16string>{u"Accounts"});
    const HWND second = sheet.page();
    EXPECT_EQ(SendMessageW(sheet, PSM_SETCURSEL, 2, 0), TRUE);
    EXPECT_EQ(seen.begun, (std::vector<std::u16string>{u"Accounts", u"More"}));
    EXPECT_NE(sheet.page(), second);
    EXPECT_FALSE(is_shown(second));
    EXPECT_EQ(SendMessageW(sheet, PSM_SETCURSEL, 1, 0), TRUE);
    EXPECT_EQ(sheet.page(), second);
    EXPECT_EQ(seen.begun.size(), 2u);
    EXPECT_EQ(SendMessageW(sheet.tabs(), TCM_GETCURSEL, 0, 0), 1);
    EXPECT_EQ(SendMessageW(sheet, PSM_SETCURSEL, 3, 0), FALSE);
}

TEST(Sheets, PagesAreRemoved) {
    const Sheet sheet(3);
    const HWND first = sheet.page();
    EXPECT_EQ(SendMessageW(sheet, PSM_REMOVEPAGE, 0, 0), TRUE);
    EXPECT_FALSE(IsWindow(first));
    EXPECT_EQ(SendMessageW(sheet.tabs(), TCM_GETITEMCOUNT, 0, 0), 2);
    EXPECT_EQ(seen.begun.back(), u"Accounts");
    EXPECT_EQ(SendMessageW(sheet, PSM_REMOVEPAGE, 5, 0), FALSE);
    EXPECT_EQ(SendMessageW(sheet, PSM_REMOVEPAGE, 1, 0), TRUE);
    EXPECT_EQ(SendMessageW(sheet, PSM_REMOVEPAGE, 0, 0), TRUE);
    EXPECT_EQ(sheet.page(), nullptr);
    EXPECT_EQ(SendMessageW(sheet, PSM_REMOVEPAGE, 0, 0), FALSE);
}

TEST(Sheets, APageThatRemovesItselfAtOnceIsNotShown) {
    {
        const Sheet sheet(3, 1, 1);
        ASSERT_TRUE(IsWindow(sheet));
        EXPECT_EQ(seen.begun, (std::vector<std::u16string>{u"Accounts", u"More"}));
        EXPECT_EQ(sheet.page(), seen.page);
        EXPECT_TRUE(is_shown(sheet.page()));
        EXPECT_EQ(SendMessageW(sheet.tabs(), TCM_GETITEMCOUNT, 0, 0), 2);
        EXPECT_EQ(SendMessageW(sheet.tabs(), TCM_GETCURSEL, 0, 0), 1);
        // Where another one is shown it stays.
        const HWND shown = sheet.page();
        seen.removed_at_once = 0;
        EXPECT_EQ(SendMessageW(sheet, PSM_SETCURSEL, 0, 0), FALSE);
        EXPECT_EQ(sheet.page(), shown);
        EXPECT_TRUE(is_shown(shown));
        EXPECT_EQ(SendMessageW(sheet.tabs(), TCM_GETCURSEL, 0, 0), 0);
    }
    {
        const Sheet sheet(1, 0, 0);
        ASSERT_TRUE(IsWindow(sheet));
        EXPECT_EQ(sheet.page(), nullptr);
    }
}

TEST(Sheets, APageThatRemovesTheOneBeforeItIsShown) {
    const Sheet sheet(3, 1, 0);
    EXPECT_EQ(seen.begun, std::vector<std::u16string>{u"Accounts"});
    EXPECT_EQ(sheet.page(), seen.page);
    EXPECT_EQ(SendMessageW(sheet.tabs(), TCM_GETCURSEL, 0, 0), 0);
    EXPECT_EQ(SendMessageW(sheet, PSM_SETCURSEL, 1, 0), TRUE);
    EXPECT_EQ(seen.begun.back(), u"More");
}

TEST(Sheets, LeaveNoWindowWhenMemoryIsShort) {
    int refused = 0;
    for (int successes = 0; successes < 200; ++successes) {
        PROPSHEETPAGEW page{};
        page.dwSize = sizeof page;
        page.dwFlags = PSP_USETITLE;
        page.pszTitle = u"A title that is longer than a short string";
        PROPSHEETHEADERW header{};
        header.dwSize = sizeof header;
        header.dwFlags = PSH_MODELESS | PSH_PROPSHEETPAGE;
        header.pszCaption = u"A caption that is longer than a short string";
        header.ppsp = &page;
        header.nPages = 1;
        INT_PTR made = -1;
        {
            const zr::test::FailingNew failing(successes);
            made = PropertySheetW(&header);
        }
        if (made != -1) {
            const HWND sheet = reinterpret_cast<HWND>(made);
            const bool whole = SendMessageW(sheet, PSM_GETCURRENTPAGEHWND, 0, 0) != 0;
            DestroyWindow(sheet);
            if (whole) break;
        } else {
            ++refused;
            EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY) << successes;
        }
        ASSERT_EQ(ZrLiveObjects(ZrLiveKind::Windows), 0) << successes;
    }
    EXPECT_GT(refused, 5);
}

TEST(Sheets, TakeTheirWindowsAlong) {
    {
        const Sheet sheet(2);
        EXPECT_GT(ZrLiveObjects(ZrLiveKind::Windows), 0);
    }
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), 0);
}

TEST(Sheets, WhatIsNoSheetIsRefused) {
    EXPECT_EQ(PropertySheetW(nullptr), -1);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    PROPSHEETPAGEW page{};
    page.dwSize = sizeof page;
    PROPSHEETHEADERW header{};
    header.dwSize = sizeof header;
    header.ppsp = &page;
    header.nPages = 1;
    EXPECT_EQ(PropertySheetW(&header), -1);
    EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
    header.dwFlags = PSH_MODELESS | PSH_PROPSHEETPAGE;
    header.nStartPage = 1;
    EXPECT_EQ(PropertySheetW(&header), -1);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    header.nStartPage = 0;
    page.dwSize = 3;
    EXPECT_EQ(PropertySheetW(&header), -1);
    page.dwSize = sizeof page;
    const INT_PTR made = PropertySheetW(&header);
    EXPECT_NE(made, -1);
    DestroyWindow(reinterpret_cast<HWND>(made));
}

TEST(Sheets, ADialogOfNobodysIsAWindow) {
    const HWND plain = CreateWindowExW(0, WC_DIALOG, u"title", 0, 0, 0, 1, 1, nullptr, nullptr, nullptr, &seen);
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(GetWindowTextLengthW(plain), 5);
    DestroyWindow(plain);
}

}  // namespace
