// Contexts, objects, and what is selected where.

#include <atomic>
#include <climits>
#include <cstring>
#include <thread>

#include "gdi_support.h"
#include "platform/places.h"
#include "platform/windowing.h"
#include "support/forked.h"
#include "support/instrumented.h"

namespace {

using gdi_test::font_description;
using gdi_test::Paper;

TEST(MulDiv, RoundsHalvesAwayFromNone) {
    EXPECT_EQ(MulDiv(9, 96, 72), 12);
    EXPECT_EQ(MulDiv(1, 1, 2), 1);
    EXPECT_EQ(MulDiv(-1, 1, 2), -1);
    EXPECT_EQ(MulDiv(1, -1, 3), 0);
    EXPECT_EQ(MulDiv(5, 3, -2), -8);
    EXPECT_EQ(MulDiv(INT_MAX, INT_MAX, INT_MAX), INT_MAX);
    EXPECT_EQ(MulDiv(INT_MIN, INT_MIN, INT_MIN), INT_MIN);
    EXPECT_EQ(MulDiv(INT_MAX, 2, 1), -1);
    EXPECT_EQ(MulDiv(INT_MIN, -1, 1), -1);
    EXPECT_EQ(MulDiv(7, 7, 0), -1);
}

TEST(Contexts, TellOfTheScreen) {
    EXPECT_NE(GetStockObject(SYSTEM_FONT), nullptr);  // whose size is that of the first screen
    setenv("ZR_SCREEN", "480x640@192", 1);
    const HDC context = CreateDCW(nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(GetDeviceCaps(context, HORZRES), 480);
    EXPECT_EQ(GetDeviceCaps(context, VERTRES), 640);
    EXPECT_EQ(GetDeviceCaps(context, LOGPIXELSX), 192);
    EXPECT_EQ(GetDeviceCaps(context, LOGPIXELSY), 192);
    EXPECT_EQ(GetDeviceCaps(context, COLORRES), 24);
    EXPECT_EQ(GetDeviceCaps(context, BITSPIXEL), 32);
    EXPECT_EQ(GetDeviceCaps(context, PLANES), 1);
    EXPECT_EQ(GetDeviceCaps(context, TECHNOLOGY), DT_RASDISPLAY);
    EXPECT_EQ(GetDeviceCaps(context, NUMCOLORS), -1);
    EXPECT_EQ(GetDeviceCaps(context, HORZSIZE), 64);  // 480 / 192 of an inch, rounded
    EXPECT_EQ(GetDeviceCaps(context, 12345), 0);
    EXPECT_TRUE(DeleteDC(context));
    unsetenv("ZR_SCREEN");
    const HDC usual = CreateDCW(u"display", u"x", u"y", nullptr);
    EXPECT_EQ(GetDeviceCaps(usual, HORZRES), 240);
    EXPECT_EQ(GetDeviceCaps(usual, LOGPIXELSX), 96);
    EXPECT_TRUE(DeleteDC(usual));
    EXPECT_EQ(CreateDCW(u"printer", nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(Contexts, OfAWindowGoBackToIt) {
    const HWND desktop = GetDesktopWindow();
    const HDC context = GetDC(desktop);
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(ReleaseDC(nullptr, context), 0);
    EXPECT_FALSE(DeleteDC(context));
    EXPECT_EQ(ReleaseDC(desktop, context), 1);
    EXPECT_EQ(ReleaseDC(desktop, context), 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    const HDC made = CreateDCW(nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(ReleaseDC(nullptr, made), 0);
    EXPECT_TRUE(DeleteDC(made));
    EXPECT_EQ(GetDC(reinterpret_cast<HWND>(UINT_PTR{0x4711})), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
}

TEST(Contexts, StayWithAWindowOfSuchAClass) {
    WNDCLASSW description{};
    description.style = CS_OWNDC;
    description.lpfnWndProc = DefWindowProcW;
    description.lpszClassName = u"gdi.test.own";
    RegisterClassW(&description);
    const auto make = [&] {
        return CreateWindowExW(0, u"gdi.test.own", nullptr, 0, 0, 0, 9, 9, nullptr, nullptr, nullptr, nullptr);
    };
    const HWND window = make();
    const LOGFONTW wanted = font_description(-50);
    const HFONT font = CreateFontIndirectW(&wanted);
    const HDC own = GetDC(window);
    SelectObject(own, font);
    EXPECT_EQ(ReleaseDC(window, own), 1);
    EXPECT_EQ(GetDC(window), own);
    TEXTMETRICW metrics{};
    EXPECT_TRUE(GetTextMetricsW(own, &metrics));
    EXPECT_EQ(metrics.tmHeight - metrics.tmInternalLeading, 50);
    EXPECT_FALSE(DeleteObject(font));
    EXPECT_TRUE(DestroyWindow(window));
    // It goes with the next look at such contexts.
    const HWND other = make();
    EXPECT_NE(GetDC(other), own);
    EXPECT_TRUE(DeleteObject(font));
    EXPECT_TRUE(DestroyWindow(other));
    EXPECT_EQ(GetDC(other), nullptr);
}

TEST(Objects, AreCounted) {
    const LONGLONG contexts = ZrLiveObjects(ZrLiveKind::DeviceContexts);
    const LONGLONG objects = ZrLiveObjects(ZrLiveKind::GdiObjects);
    {
        const Paper paper;
        const HDC more = GetDC(nullptr);
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::DeviceContexts), contexts + 2);
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::GdiObjects), objects + 2);
        EXPECT_EQ(ReleaseDC(nullptr, more), 1);
    }
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::DeviceContexts), contexts);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::GdiObjects), objects);
}

TEST(Objects, AreNotDeletedWhileTheyAreSelected) {
    const HDC context = CreateCompatibleDC(nullptr);
    const LOGFONTW description = font_description(-12);
    const HFONT font = CreateFontIndirectW(&description);
    const HGDIOBJ usual = SelectObject(context, font);
    EXPECT_EQ(usual, GetStockObject(SYSTEM_FONT));
    EXPECT_FALSE(DeleteObject(font));
    EXPECT_EQ(GetLastError(), ERROR_BUSY);
    EXPECT_EQ(SelectObject(context, usual), font);
    EXPECT_TRUE(DeleteObject(font));
    EXPECT_FALSE(DeleteObject(font));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(SelectObject(context, font), nullptr);
    // A context that goes lets go of what is in it.
    const HBRUSH brush = CreateSolidBrush(RGB(1, 2, 3));
    const HPEN pen = CreatePen(PS_SOLID, 1, 0);
    EXPECT_EQ(SelectObject(context, brush), GetStockObject(WHITE_BRUSH));
    EXPECT_EQ(SelectObject(context, pen), GetStockObject(BLACK_PEN));
    EXPECT_FALSE(DeleteObject(brush));
    EXPECT_TRUE(DeleteDC(context));
    EXPECT_TRUE(DeleteObject(brush));
    EXPECT_TRUE(DeleteObject(pen));
}

TEST(Objects, ABitmapIsInOneMemoryContext) {
    const HDC screen = GetDC(nullptr);
    const HDC one = CreateCompatibleDC(screen);
    const HDC other = CreateCompatibleDC(nullptr);
    const HBITMAP bitmap = CreateCompatibleBitmap(screen, 5, 6);
    EXPECT_EQ(SelectObject(screen, bitmap), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    SelectObject(one, bitmap);
    SetLastError(0);
    EXPECT_EQ(SelectObject(other, bitmap), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(SelectObject(one, bitmap), bitmap);
    EXPECT_TRUE(DeleteDC(one));
    EXPECT_TRUE(DeleteObject(bitmap));
    EXPECT_TRUE(DeleteDC(other));
    EXPECT_EQ(ReleaseDC(nullptr, screen), 1);
}

TEST(Objects, TellWhatTheyAre) {
    const Paper paper(30, 40);
    BITMAP bitmap{};
    EXPECT_EQ(GetObjectW(paper.bitmap, 0, nullptr), static_cast<int>(sizeof bitmap));
    EXPECT_EQ(GetObjectW(paper.bitmap, sizeof bitmap, &bitmap), static_cast<int>(sizeof bitmap));
    EXPECT_EQ(bitmap.bmWidth, 30);
    EXPECT_EQ(bitmap.bmHeight, 40);
    EXPECT_EQ(bitmap.bmBitsPixel, 32);
    const LOGFONTW wanted = font_description(-33, u"Some Face");
    const HFONT font = CreateFontIndirectW(&wanted);
    LOGFONTW found{};
    EXPECT_EQ(GetObjectW(font, sizeof found, &found), static_cast<int>(sizeof found));
    EXPECT_EQ(std::memcmp(&wanted, &found, sizeof found), 0);
    LONG height = 0;
    EXPECT_EQ(GetObjectW(font, sizeof height, &height), 4);
    EXPECT_EQ(height, -33);
    EXPECT_TRUE(DeleteObject(font));
    LOGBRUSH brush{};
    EXPECT_GT(GetObjectW(GetStockObject(GRAY_BRUSH), sizeof brush, &brush), 0);
    EXPECT_EQ(brush.lbColor, RGB(128, 128, 128));
    LOGPEN pen{};
    EXPECT_GT(GetObjectW(GetStockObject(NULL_PEN), sizeof pen, &pen), 0);
    EXPECT_EQ(pen.lopnStyle, static_cast<UINT>(PS_NULL));
    EXPECT_EQ(GetObjectW(paper.context, sizeof found, &found), 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(Objects, OfStockStay) {
    EXPECT_EQ(GetStockObject(SYSTEM_FONT), GetStockObject(SYSTEM_FONT));
    EXPECT_TRUE(DeleteObject(GetStockObject(SYSTEM_FONT)));
    EXPECT_TRUE(DeleteObject(GetStockObject(BLACK_PEN)));
    LOGFONTW found{};
    EXPECT_GT(GetObjectW(GetStockObject(SYSTEM_FONT), sizeof found, &found), 0);
    EXPECT_EQ(found.lfHeight, -12);
    EXPECT_EQ(GetStockObject(9), nullptr);
    EXPECT_EQ(GetStockObject(-1), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(Objects, OfTheWrongKindAreRefused) {
    const Paper paper;
    const HBRUSH brush = CreateSolidBrush(0);
    SIZE size{};
    RECT rectangle{0, 0, 5, 5};
    const auto refused = [](bool failed) {
        const DWORD error = GetLastError();
        SetLastError(0);
        return failed && error == ERROR_INVALID_HANDLE;
    };
    const HDC kinds[] = {reinterpret_cast<HDC>(brush), reinterpret_cast<HDC>(paper.bitmap), nullptr,
                         reinterpret_cast<HDC>(INVALID_HANDLE_VALUE), reinterpret_cast<HDC>(GetDesktopWindow())};
    for (const HDC none : kinds) {
        EXPECT_TRUE(refused(!GetTextExtentPoint32W(none, u"x", 1, &size)));
        EXPECT_TRUE(refused(DrawTextW(none, u"x", 1, &rectangle, 0) == 0));
        EXPECT_TRUE(refused(!ExtTextOutW(none, 0, 0, 0, nullptr, u"x", 1, nullptr)));
        EXPECT_TRUE(refused(SetTextColor(none, 0) == CLR_INVALID));
        EXPECT_TRUE(refused(SetBkMode(none, OPAQUE) == 0));
        EXPECT_TRUE(refused(GetDeviceCaps(none, HORZRES) == 0));
        EXPECT_TRUE(refused(SelectObject(none, brush) == nullptr));
        EXPECT_TRUE(refused(!DeleteDC(none)));
        EXPECT_TRUE(refused(!Rectangle(none, 0, 0, 5, 5)));
        EXPECT_TRUE(refused(GetPixel(none, 0, 0) == CLR_INVALID));
        EXPECT_TRUE(refused(FillRect(none, &rectangle, brush) == 0));
    }
    EXPECT_TRUE(refused(SelectObject(paper.context, paper.context) == nullptr));
    EXPECT_TRUE(refused(!DeleteObject(paper.context)));
    EXPECT_TRUE(refused(FillRect(paper.context, &rectangle, reinterpret_cast<HBRUSH>(paper.bitmap)) == 0));
    EXPECT_TRUE(refused(!ZrWriteBitmapPng(reinterpret_cast<HBITMAP>(brush), u"\\x.png")));
    EXPECT_TRUE(DeleteObject(brush));
}

TEST(Objects, HandlesAreNotUsedAgainSoon) {
    const HBRUSH first = CreateSolidBrush(0);
    EXPECT_TRUE(DeleteObject(first));
    for (int i = 0; i < 100'000; ++i) {
        const HBRUSH next = CreateSolidBrush(0);
        ASSERT_NE(next, first);
        ASSERT_TRUE(DeleteObject(next));
    }
    EXPECT_FALSE(DeleteObject(first));
}

TEST(Objects, OfManyThereIsAnEnd) {
    std::vector<HBRUSH> all;
    for (;;) {
        const HBRUSH brush = CreateSolidBrush(0);
        if (!brush) break;
        all.push_back(brush);
        ASSERT_LT(all.size(), 100'000u);
    }
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_GT(all.size(), 60'000u);
    for (const HBRUSH brush : all) {
        ASSERT_TRUE(DeleteObject(brush));
    }
    const HBRUSH again = CreateSolidBrush(0);
    EXPECT_NE(again, nullptr);
    EXPECT_TRUE(DeleteObject(again));
}

TEST(Objects, ThreadsMayShareThem) {
    const Paper paper;
    std::vector<std::thread> threads;
    std::atomic<bool> good{true};
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < 50; ++round) {
                const HDC own = GetDC(nullptr);
                SIZE size{};
                const std::u16string text(static_cast<std::size_t>(i + round % 5 + 1), u'm');
                if (!GetTextExtentPoint32W(own, text.data(), static_cast<int>(text.size()), &size)) good = false;
                if (!ExtTextOutW(paper.context, i, round, 0, nullptr, text.data(), 1, nullptr)) good = false;
                if (ReleaseDC(nullptr, own) != 1) good = false;
            }
        });
    }
    for (std::thread& each : threads) {
        each.join();
    }
    EXPECT_TRUE(good);
}

TEST(Objects, AForkedChildMeasuresOn) {
    const Paper paper;
    const int before = paper.width(u"forked");
    const int status = zr::test::in_fork([&] {
        const Paper own(10, 10, font_description(-31, u"DejaVu Serif"));
        return paper.width(u"forked") == before && paper.width(u"M\u00F6we \u2709") > 0 && own.width(u"new") > 0 ? 0
                                                                                                                 : 1;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(paper.width(u"forked"), before);
}

TEST(Objects, ThreeHundredForksUnderLoad) {
#if defined(ZR_SANITIZE_THREAD)
    GTEST_SKIP() << "ThreadSanitizer allows no threads behind a fork";
#endif
    const Paper paper;
    const int width = paper.width(u"forked");
    const auto measures = [&] { EXPECT_EQ(paper.width(u"forked"), width); };
    const auto makes = [] {
        static thread_local LONG height = 0;
        const Paper own(10, 10, font_description(-8 - ++height % 30, u"DejaVu Serif"));
        EXPECT_GT(own.width(u"M\u00F6we"), 0);
    };
    const zr::test::Load load({measures, makes});
    for (int i = 0; i < 300 / zr::test::kStride; ++i) {
        ASSERT_EQ(zr::test::in_fork([&] {
                      const Paper own(10, 10, font_description(-9, u"DejaVu Sans"));
                      return paper.width(u"forked") == width && own.width(u"new") > 0 ? 0 : 1;
                  }),
                  0)
            << "fork " << i;
    }
}

// What is selected at first goes back, as programs do before they delete the bitmap.
TEST(Objects, AMemoryContextHasABitmapToPutBack) {
    const HDC one = CreateCompatibleDC(nullptr);
    const HDC other = CreateCompatibleDC(nullptr);
    const HBITMAP bitmap = CreateCompatibleBitmap(one, 5, 5);
    const HGDIOBJ first = SelectObject(one, bitmap);
    ASSERT_NE(first, nullptr);
    BITMAP facts{};
    EXPECT_EQ(GetObjectW(first, sizeof facts, &facts), static_cast<int>(sizeof facts));
    EXPECT_EQ(facts.bmWidth, 1);
    EXPECT_EQ(facts.bmHeight, 1);
    EXPECT_EQ(SelectObject(other, first), first) << "that of all";
    EXPECT_EQ(SelectObject(one, first), bitmap);
    EXPECT_TRUE(DeleteObject(bitmap));
    EXPECT_EQ(SetPixel(one, 0, 0, RGB(1, 2, 3)), RGB(1, 2, 3));
    EXPECT_EQ(SetPixel(one, 1, 0, RGB(1, 2, 3)), CLR_INVALID);
    EXPECT_EQ(GetStockObject(SYSTEM_FONT + 1), nullptr);
    EXPECT_TRUE(DeleteDC(one));
    EXPECT_TRUE(DeleteDC(other));
}

}  // namespace
