#include "ZrUtility/Helpers/GraphicalUtilities.h"

#include <gtest/gtest.h>

#include <climits>
#include <future>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/base.h"
#include "platform/controls.h"
#include "platform/diagnostics.h"
#include "platform/input_panel.h"
#include "platform/places.h"
#include "platform/windowing.h"
#include "support/instrumented.h"

namespace {

constexpr WCHAR kEllipsis = 0x2026;

class ScreenOf {
public:
    explicit ScreenOf(const char* value) { setenv("ZR_SCREEN", value, 1); }
    ~ScreenOf() { unsetenv("ZR_SCREEN"); }
    ScreenOf(const ScreenOf&) = delete;
    ScreenOf& operator=(const ScreenOf&) = delete;
};

struct Notice {
    UINT message;
    WPARAM wparam;
};
std::vector<Notice> notices;

LRESULT note_message(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    if (message == WM_USER + 105 || message == WM_SETTINGCHANGE) notices.push_back({message, wparam});
    return DefWindowProcW(window, message, wparam, lparam);
}

class PlainWindow {
public:
    PlainWindow(int x, int y, int width, int height, HWND parent = nullptr, int id = 0) {
        WNDCLASSW description{};
        description.lpfnWndProc = note_message;
        description.lpszClassName = u"graphical.test";
        RegisterClassW(&description);
        window_ = CreateWindowExW(0, description.lpszClassName, nullptr, parent ? WS_CHILD : 0, x, y, width, height,
                                  parent, reinterpret_cast<HMENU>(static_cast<INT_PTR>(id)), nullptr, nullptr);
        EXPECT_NE(window_, nullptr);
    }
    ~PlainWindow() {
        if (IsWindow(window_)) DestroyWindow(window_);
    }
    PlainWindow(const PlainWindow&) = delete;
    PlainWindow& operator=(const PlainWindow&) = delete;
    operator HWND() const { return window_; }  // NOLINT(google-explicit-constructor)

private:
    HWND window_ = nullptr;
};

int width_of(HWND window, std::u16string_view text) {
    const HDC context = GetDC(window);
    SIZE size{};
    EXPECT_TRUE(GetTextExtentPoint32W(context, text.data(), static_cast<int>(text.size()), &size));
    EXPECT_EQ(ReleaseDC(window, context), 1);
    return size.cx;
}

int height_of(HWND window, std::u16string_view text, int width) {
    const HDC context = GetDC(window);
    RECT place{0, 0, width, 0};
    const int height =
        DrawTextW(context, text.data(), static_cast<int>(text.size()), &place, DT_CALCRECT | DT_WORDBREAK);
    EXPECT_EQ(ReleaseDC(window, context), 1);
    return height;
}

RECT box_of(int room, int height = 100) {
    return {10, 10, 12 + room, 12 + height};
}

using Trim = LONG (*)(HWND, RECT*, WCHAR*, int);

std::u16string trimmed_text(Trim trim, HWND window, std::u16string text, RECT box, int last, LONG expected = 0) {
    const RECT before = box;
    EXPECT_EQ(trim(window, &box, text.data(), last), expected);
    EXPECT_EQ(before.right, box.right);
    return text.c_str();
}

std::u16string at_end(HWND window, const std::u16string& text, int room) {
    return trimmed_text(GraphicalUtilities::TrimWithEllipsisToRect, window, text, box_of(room), 1);
}
std::u16string at_start(HWND window, const std::u16string& text, int room) {
    return trimmed_text(GraphicalUtilities::TrimWithEllipsisToRect, window, text, box_of(room), 0);
}

// The rounds as they are described, one after the other.
std::u16string cut_end_by_rounds(HWND window, std::u16string text, int room) {
    int width = width_of(window, text);
    while (width > room && text.size() > 1) {
        text.pop_back();
        text.back() = kEllipsis;
        width = width_of(window, text);
    }
    return text;
}

std::u16string cut_start_by_rounds(HWND window, std::u16string text, int room) {
    std::size_t start = 0;
    int width = width_of(window, text);
    while (width > room && text.size() - start > 1) {
        text[++start] = kEllipsis;
        width = width_of(window, text.substr(start));
    }
    return text.size() - start > 1 ? text.substr(start) : text;
}

const std::u16string kTexts[] = {u"The quick brown fox jumps over the lazy dog",
                                 u"Grüße aus Köln, naïve Русский Ελλάδα",
                                 u"שלום עולם abc مرحبا بالعالم",
                                 u"smile \U0001F600\U0001F601 e\u0301e\u0301e\u0301 日本語の文章",
                                 u"illlllliiiiii.......mmmmmmWWWWW",
                                 u"ab",
                                 u"x"};

// ---- The screen ----

TEST(Screen, IsTold) {
    const ScreenOf screen("480x640@192");
    EXPECT_EQ(GraphicalUtilities::GetScreenWidth(), 480);
    EXPECT_EQ(GraphicalUtilities::GetScreenHeight(), 640);
    EXPECT_EQ(GraphicalUtilities::GetColourDepth(), 24);
    EXPECT_EQ(GraphicalUtilities::GetHorizontalResolution(), 7559);
    EXPECT_EQ(GraphicalUtilities::IsHighRes(), 1);
}

TEST(Screen, HasPixelsPerMetre) {
    const ScreenOf screen("240x320@96");
    EXPECT_EQ(GraphicalUtilities::GetHorizontalResolution(), 3779);
    EXPECT_EQ(GraphicalUtilities::GetVerticalResolution(), 3779);
    EXPECT_EQ(GraphicalUtilities::IsHighRes(), 0);
}

TEST(Screen, IsHighWithMoreThan96Dots) {
    const ScreenOf screen("240x320@97");
    EXPECT_EQ(GraphicalUtilities::IsHighRes(), 1);
}

TEST(InputPanel, IsUpOrDown) {
    const ScreenOf screen("240x320");
    const PlainWindow window(0, 0, 10, 10);
    notices.clear();
    EXPECT_EQ(GraphicalUtilities::IsSipUp(), 0);
    EXPECT_EQ(GraphicalUtilities::GetSipHeight(), 80);
    EXPECT_TRUE(SHSipPreference(window, SIP_UP));
    EXPECT_EQ(GraphicalUtilities::IsSipUp(), 1);
    EXPECT_EQ(GraphicalUtilities::GetSipHeight(), 80);
    EXPECT_TRUE(SHSipPreference(window, SIP_UP));
    EXPECT_TRUE(SHSipPreference(window, SIP_UNCHANGED));
    SIPINFO info{};
    info.cbSize = sizeof info;
    EXPECT_TRUE(SHSipInfo(SPI_GETSIPINFO, 0, &info, 0));
    EXPECT_EQ(info.rcVisibleDesktop.bottom, 240);
    info.fdwFlags = SIPF_OFF;
    EXPECT_TRUE(SHSipInfo(SPI_SETSIPINFO, 0, &info, 0));
    EXPECT_EQ(GraphicalUtilities::IsSipUp(), 0);
    MSG message{};
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
        DispatchMessageW(&message);
    }
    ASSERT_EQ(notices.size(), 2u);
    EXPECT_EQ(notices[0].message, WM_SETTINGCHANGE);
    EXPECT_EQ(notices[0].wparam, SPI_SETSIPINFO);
}

TEST(InputPanel, RefusesWhatItDoesNotKnow) {
    SIPINFO info{};
    info.cbSize = 47;
    EXPECT_FALSE(SHSipInfo(SPI_GETSIPINFO, 0, &info, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    info.cbSize = 48;
    EXPECT_TRUE(SHSipInfo(SPI_GETSIPINFO, 0, &info, 0));
    EXPECT_FALSE(SHSipInfo(223, 0, &info, 0));
    EXPECT_FALSE(SHSipInfo(SPI_GETSIPINFO, 0, nullptr, 0));
    EXPECT_FALSE(SHSipPreference(nullptr, SIP_UP));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_WINDOW_HANDLE);
    EXPECT_FALSE(SHSipPreference(GetDesktopWindow(), static_cast<SIPSTATE>(7)));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

// ---- Fonts ----

LOGFONTW described(HFONT font) {
    LOGFONTW description{};
    EXPECT_GT(GetObjectW(font, sizeof description, &description), 0);
    EXPECT_TRUE(DeleteObject(font));
    return description;
}

TEST(DefaultFont, IsTheSystems) {
    LOGFONTW system{};
    GetObjectW(GetStockObject(SYSTEM_FONT), sizeof system, &system);
    const LOGFONTW plain = described(GraphicalUtilities::CreateDefaultFont(nullptr, 0, 0));
    EXPECT_EQ(std::u16string(plain.lfFaceName), system.lfFaceName);
    EXPECT_EQ(plain.lfHeight, system.lfHeight);
    EXPECT_EQ(plain.lfWeight, system.lfWeight);
    EXPECT_EQ(described(GraphicalUtilities::CreateDefaultFont(nullptr, 1, 0)).lfWeight, 700);
    EXPECT_EQ(described(GraphicalUtilities::CreateDefaultFont(nullptr, 0, 9)).lfHeight, -12);
    EXPECT_EQ(described(GraphicalUtilities::CreateDefaultFont(nullptr, 0, -9)).lfHeight, 12);
    EXPECT_EQ(described(GraphicalUtilities::CreateDefaultFont(nullptr, 0, -1'610'612'736)).lfHeight, INT_MIN);
    const PlainWindow alone(0, 0, 1, 1);
    EXPECT_EQ(described(GraphicalUtilities::CreateDefaultFont(alone, 0, 0)).lfHeight, system.lfHeight);
}

TEST(DefaultFont, IsTheParents) {
    const PlainWindow parent(0, 0, 10, 10);
    const PlainWindow child(0, 0, 1, 1, parent);
    LOGFONTW wanted{};
    wanted.lfHeight = -33;
    wanted.lfItalic = 1;
    const HFONT font = CreateFontIndirectW(&wanted);
    SendMessageW(parent, WM_SETFONT, reinterpret_cast<WPARAM>(font), 0);
    EXPECT_EQ(described(GraphicalUtilities::CreateDefaultFont(child, 0, 0)).lfHeight, -33);
    EXPECT_EQ(described(GraphicalUtilities::CreateDefaultFont(child, 1, 12)).lfItalic, 1);
    EXPECT_TRUE(DeleteObject(font));
    EXPECT_EQ(GraphicalUtilities::CreateDefaultFont(child, 0, 0), nullptr);
}

// ---- Text ----

TEST(TextRect, IsAsLargeAsTheText) {
    const PlainWindow window(0, 0, 100, 100);
    std::u16string text = u"one two three";
    const int line = height_of(window, u"x", 1000);
    const RECT wide = GraphicalUtilities::CalTextRect(window, text.data(), {50, 60, 1050, 70});
    EXPECT_EQ(wide.left, 0);
    EXPECT_EQ(wide.top, 0);
    EXPECT_EQ(wide.right, width_of(window, text));
    EXPECT_EQ(wide.bottom, line);
    const RECT narrow = GraphicalUtilities::CalTextRect(window, text.data(), {0, 0, width_of(window, u"three"), 5});
    EXPECT_EQ(narrow.bottom, 3 * line);
    const RECT none = GraphicalUtilities::CalTextRect(window, nullptr, {1, 2, 11, 22});
    EXPECT_EQ(none.right, 10);
    EXPECT_EQ(none.bottom, 20);
}

TEST(Trimming, RefusesNothing) {
    const PlainWindow window(0, 0, 100, 100);
    WCHAR text[] = u"x";
    RECT box{};
    for (const Trim trim : {GraphicalUtilities::TrimWithEllipsisToRect, GraphicalUtilities::TrimWithEllipsisToRectEx,
                            GraphicalUtilities::TrimWithEllipsisToRectMultiLine}) {
        EXPECT_EQ(trim(nullptr, &box, text, 0), E_UNEXPECTED);
        EXPECT_EQ(trim(window, &box, nullptr, 0), E_UNEXPECTED);
    }
    EXPECT_EQ(static_cast<std::uint32_t>(E_UNEXPECTED), 0x8000FFFFu);
}

TEST(Trimming, WhatFitsIsUnchanged) {
    const PlainWindow window(0, 0, 100, 100);
    for (const std::u16string& text : kTexts) {
        const int width = width_of(window, text);
        EXPECT_EQ(at_end(window, text, width), text);
        EXPECT_EQ(at_start(window, text, width), text);
        EXPECT_EQ(trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectEx, window, text, box_of(width + 2), 0), text);
        const int height = height_of(window, text, 50);
        EXPECT_EQ(
            trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectMultiLine, window, text, box_of(50, height), 1),
            text);
    }
    EXPECT_EQ(at_end(window, u"", 0), u"");
    EXPECT_EQ(at_start(window, u"", -5), u"");
    EXPECT_EQ(trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectMultiLine, window, u"", box_of(5, 5), 1), u"");
}

TEST(Trimming, AtTheEndEndsInAnEllipsisAndFits) {
    const PlainWindow window(0, 0, 100, 100);
    for (const std::u16string& text : kTexts) {
        for (int room = -3; room < width_of(window, text); room += 7) {
            const std::u16string result = at_end(window, text, room);
            if (text.size() > 1) {
                EXPECT_EQ(result.back(), kEllipsis);
            }
            EXPECT_TRUE(result.size() == 1 || width_of(window, result) <= room);
        }
    }
}

TEST(Trimming, IsWhatTheRoundsGive) {
    const PlainWindow window(0, 0, 100, 100);
    std::mt19937 random(11);  // NOLINT(bugprone-random-generator-seed)
    const auto number = [&](int from, int to) { return std::uniform_int_distribution(from, to)(random); };
    for (int round = 0; round < 30; ++round) {
        std::u16string text;
        for (int parts = number(1, 6); parts > 0; --parts) {
            const std::u16string& from = kTexts[static_cast<std::size_t>(number(0, 6))];
            text += from.substr(static_cast<std::size_t>(number(0, static_cast<int>(from.size()) - 1)),
                                static_cast<std::size_t>(number(1, 40)));
        }
        const int room = number(-2, width_of(window, text) + 5);
        ASSERT_EQ(at_end(window, text, room), cut_end_by_rounds(window, text, room));
        ASSERT_EQ(at_start(window, text, room), cut_start_by_rounds(window, text, room));
    }
}

// A window whose device context keeps a font.
class FontWindow {
public:
    FontWindow(const char16_t* face, int height) {
        WNDCLASSW description{};
        description.style = CS_OWNDC;
        description.lpfnWndProc = DefWindowProcW;
        description.lpszClassName = u"graphical.font";
        RegisterClassW(&description);
        window_ =
            CreateWindowExW(0, description.lpszClassName, nullptr, 0, 0, 0, 9, 9, nullptr, nullptr, nullptr, nullptr);
        LOGFONTW wanted{};
        wanted.lfHeight = height;
        std::u16string_view(face).copy(wanted.lfFaceName, LF_FACESIZE - 1);
        font_ = CreateFontIndirectW(&wanted);
        before_ = SelectObject(GetDC(window_), font_);
        EXPECT_NE(before_, nullptr);
    }
    ~FontWindow() {
        SelectObject(GetDC(window_), before_);
        EXPECT_TRUE(DeleteObject(font_));
        DestroyWindow(window_);
    }
    FontWindow(const FontWindow&) = delete;
    FontWindow& operator=(const FontWindow&) = delete;
    operator HWND() const { return window_; }  // NOLINT(google-explicit-constructor)

private:
    HWND window_ = nullptr;
    HFONT font_ = nullptr;
    HGDIOBJ before_ = nullptr;
};

// The script of signs that all scripts have is their neighbour's, and their font with it.
TEST(Trimming, SignsChangeTheirFontWithWhatIsCut) {
    const FontWindow window(u"Monospace", -16);
    const std::u16string dashes(400, u'\u2014');
    const std::u16string hebrew = u"\u05D0\u05D1";
    const std::u16string alone = dashes + u"a";
    if (width_of(window, dashes + hebrew) - width_of(window, hebrew) == width_of(window, dashes)) {
        GTEST_SKIP() << "the fonts have the same dashes";
    }
    for (const std::u16string& text : {dashes + hebrew, hebrew + dashes, alone + hebrew}) {
        for (const int room : {1500, 4000}) {
            EXPECT_EQ(at_end(window, text, room), cut_end_by_rounds(window, text, room)) << room;
            EXPECT_EQ(at_start(window, text, room), cut_start_by_rounds(window, text, room)) << room;
        }
    }
}

// Signs, letters and marks of all kinds, in stretches that are long enough for a font to make a difference.
std::u16string any_text(std::mt19937& random) {
    static const std::u16string kinds[] = {u"abcXYZ\u00E9\u0153\u0142",
                                           u"\u2014\u2013\u2019\u201C\u2026-\"'",
                                           u"0123456789 ",
                                           u"\u0416\u0437\u0438",
                                           u"\u0391\u03C9\u03AC",
                                           u"\u05D0\u05D1\u05E9",
                                           u"\u0645\u0631\u062D\u0628\u0644\u0627",
                                           u"\u65E5\u672C\u8A9E\u3042",
                                           u"\u0E01\u0E33\u0E34\u0E02",
                                           u"\u0301\u0308\u200D\uFE0F",
                                           u"\U0001F600\U0001F468" + std::u16string(1, 0xD83D),
                                           u"\uAC00\u11A8\u1100",
                                           u"\t\n\u00AD()[]"};
    const auto number = [&](int from, int to) {
        return static_cast<std::size_t>(std::uniform_int_distribution(from, to)(random));
    };
    std::u16string text;
    for (std::size_t parts = number(1, 5); parts > 0; --parts) {
        const std::u16string& kind = kinds[number(0, static_cast<int>(std::size(kinds)) - 1)];
        for (std::size_t left = number(1, number(0, 3) == 0 ? 120 : 12); left > 0; --left) {
            text += kind[number(0, static_cast<int>(kind.size()) - 1)];
        }
    }
    return text;
}

TEST(Trimming, OfAnyTextIsWhatTheRoundsGive) {
    std::mt19937 random(29);  // NOLINT(bugprone-random-generator-seed)
    for (const char16_t* const face : {u"Monospace", u"DejaVu Sans", u"Serif", u""}) {
        const FontWindow window(face, -13);
        for (int round = 0; round < 30 / zr::test::kStride; ++round) {
            const std::u16string text = any_text(random);
            const int room = std::uniform_int_distribution(-2, width_of(window, text) + 5)(random);
            ASSERT_EQ(at_end(window, text, room), cut_end_by_rounds(window, text, room)) << room;
            ASSERT_EQ(at_start(window, text, room), cut_start_by_rounds(window, text, room)) << room;
        }
    }
}

// Where texts are long and little is known of their characters, what is tried begins at a guess.
void expect_tight(HWND window, const std::u16string& text, int room) {
    const std::u16string beginning = at_end(window, text, room);
    const std::u16string end = at_start(window, text, room);
    ASSERT_LT(beginning.size(), text.size());
    ASSERT_LT(end.size(), text.size());
    EXPECT_LE(width_of(window, beginning), room);
    EXPECT_LE(width_of(window, end), room);
    if (beginning.size() + 1 < text.size()) {
        EXPECT_GT(width_of(window, text.substr(0, beginning.size()) + kEllipsis), room) << beginning.size();
    }
    if (end.size() + 1 < text.size()) {
        EXPECT_GT(width_of(window, kEllipsis + text.substr(text.size() - end.size())), room) << end.size();
    }
}

TEST(Trimming, OfLongTextsOneMoreWouldNotFit) {
    const FontWindow window(u"Monospace", -16);
    // In the whole text they are in their neighbour's font, and far wider than by themselves, or far narrower.
    const std::u16string dashes(4000, u'\u2014');
    const std::u16string hebrew = u"\u05D0\u05D1";
    for (const std::u16string& text :
         {dashes + hebrew, hebrew + dashes, dashes + u"a" + hebrew, hebrew + u"a" + dashes}) {
        for (const int room : {9'000, 20'000, 30'000}) {
            SCOPED_TRACE(room);
            expect_tight(window, text, room);
        }
    }
    const std::u16string arabic = u"\u0645\u0631\u062D\u0628\u0627 \u0628\u0627\u0644\u0639\u0627\u0644\u0645 ";
    const std::u16string hindi = u"\u0928\u092E\u0938\u094D\u0924\u0947 \u0926\u0941\u0928\u093F\u092F\u093E ";
    for (const std::u16string& each : {arabic, hindi, u"12 " + arabic, u"e\u0301\u0302" + hindi}) {
        std::u16string text;
        while (text.size() < 3000) {
            text += each;
        }
        for (const int part : {2, 3, 7}) {
            SCOPED_TRACE(part);
            expect_tight(window, text, width_of(window, text) / part);
        }
    }
}

TEST(Trimming, OfAnyLongTextOneMoreWouldNotFit) {
    std::mt19937 random(41);  // NOLINT(bugprone-random-generator-seed)
    for (const char16_t* const face : {u"Monospace", u"DejaVu Sans"}) {
        const FontWindow window(face, -13);
        for (int round = 0; round < (zr::test::kInstrumented ? 2 : 6); ++round) {
            std::u16string text;
            while (text.size() < 1500) {
                text += any_text(random);
            }
            const int width = width_of(window, text);
            expect_tight(window, text, std::uniform_int_distribution(width / 3, width - 100)(random));
        }
    }
}

TEST(Trimming, OneCharacterStays) {
    const PlainWindow window(0, 0, 100, 100);
    EXPECT_EQ(at_end(window, u"m", 0), u"m");
    EXPECT_EQ(at_end(window, u"mmm", 0), std::u16string(1, kEllipsis));
    EXPECT_EQ(at_start(window, u"m", 0), u"m");
    // Nothing is moved then.
    EXPECT_EQ(at_start(window, u"mno", 0), (std::u16string{u'm', kEllipsis, kEllipsis}));
    const std::u16string moved = at_start(window, u"mno", width_of(window, std::u16string{kEllipsis, u'o'}));
    EXPECT_EQ(moved, (std::u16string{kEllipsis, u'o'}));
}

TEST(Trimming, CutsByUnits) {
    const PlainWindow window(0, 0, 100, 100);
    const std::u16string text = u"a\U0001F600\U0001F600";
    const std::u16string half{u'a', 0xD83D, kEllipsis};
    const int room = std::max(width_of(window, half), width_of(window, text) - 1);
    const std::u16string result = at_end(window, text, room);
    EXPECT_EQ(result, cut_end_by_rounds(window, text, room));
}

TEST(Trimming, TakesTheWindowsClientArea) {
    const int room = 60;
    const PlainWindow window(5, 5, room + 2, 40);
    std::u16string text = kTexts[0];
    EXPECT_EQ(GraphicalUtilities::TrimWithEllipsisToRect(window, nullptr, text.data(), 1), 0);
    EXPECT_EQ(std::u16string(text.c_str()), at_end(window, kTexts[0], room));
}

TEST(Trimming, RectanglesMayBeInsideOut) {
    const PlainWindow window(0, 0, 100, 100);
    EXPECT_EQ(trimmed_text(GraphicalUtilities::TrimWithEllipsisToRect, window, u"abc", {50, 50, 10, 10}, 1),
              std::u16string(1, kEllipsis));
    EXPECT_EQ(trimmed_text(GraphicalUtilities::TrimWithEllipsisToRect, window, u"abc", {INT_MIN, 0, INT_MAX, 0}, 1),
              u"abc");
    EXPECT_EQ(trimmed_text(GraphicalUtilities::TrimWithEllipsisToRect, window, u"abc", {INT_MAX, 0, INT_MIN, 0}, 1),
              std::u16string(1, kEllipsis));
    EXPECT_EQ(trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectMultiLine, window, u"abc", {50, 50, 10, 10}, 1),
              u"abc");
}

TEST(Trimming, OfADestroyedWindowLeavesTheText) {
    HWND gone = nullptr;
    {
        const PlainWindow window(0, 0, 100, 100);
        gone = window;
    }
    EXPECT_EQ(at_end(gone, u"mmmmmmmm", 1), u"mmmmmmmm");
    EXPECT_EQ(at_start(gone, u"mmmmmmmm", 1), u"mmmmmmmm");
}

TEST(Trimming, OfVeryLongTextsIsInTime) {
    const PlainWindow window(0, 0, 100, 100);
    const std::u16string text(5'000'000 / zr::test::kStride, u'm');
    EXPECT_EQ(at_end(window, text, 100), at_end(window, text.substr(0, 1000), 100));
    EXPECT_EQ(at_start(window, text, 100), at_start(window, text.substr(0, 1000), 100));
}

std::u16string joined_text(std::size_t size) {
    std::mt19937 random(53);  // NOLINT(bugprone-random-generator-seed)
    const std::u16string letters = u"\u0645\u0631\u062D\u0628\u0627 \u0628\u0627\u0644\u0639\u0627\u0644\u0645 ";
    std::u16string text(size / zr::test::kStride, u' ');
    for (char16_t& each : text) {
        each = letters[std::uniform_int_distribution<std::size_t>(0, letters.size() - 1)(random)];
    }
    return text;
}

TEST(Trimming, OfTenMillionBytesOfJoinedLettersIsInTime) {
    const PlainWindow window(0, 0, 100, 100);
    const std::u16string text = joined_text(5'000'000);
    EXPECT_EQ(at_end(window, text, 5'000), at_end(window, text.substr(0, 4'000), 5'000));
}

TEST(Trimming, OfLongTextsOfJoinedLettersIsInTime) {
    const PlainWindow window(0, 0, 100, 100);
    const std::u16string text = joined_text(200'000);
    expect_tight(window, text, 200);
    expect_tight(window, text, 20'000);
    const std::u16string lines =
        trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectMultiLine, window, text, box_of(300, 200), 1);
    EXPECT_LE(height_of(window, lines.substr(0, lines.size() - 1), 300), 200);
    EXPECT_GT(lines.size(), 100u);
    const int split = static_cast<int>(text.size()) - 10;
    const std::u16string before =
        trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectEx, window, text, box_of(300), split);
    EXPECT_TRUE(before.ends_with(kEllipsis + text.substr(text.size() - 10)));
}

TEST(TrimmingBeforeATail, KeepsTheTail) {
    const PlainWindow window(0, 0, 100, 100);
    const std::u16string text = u"A very long name of a document.txt";
    const int split = static_cast<int>(text.size()) - 4;
    const int room = width_of(window, text) - 30;
    const std::u16string result =
        trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectEx, window, text, box_of(room), split);
    EXPECT_TRUE(result.ends_with(std::u16string(1, kEllipsis) + u".txt"));
    // The head has two pixels less on both sides: its box was narrowed before.
    EXPECT_EQ(result,
              at_end(window, text.substr(0, static_cast<std::size_t>(split)), room - width_of(window, u".txt") - 2) +
                  u".txt");
    EXPECT_LE(width_of(window, result), room);
}

TEST(TrimmingBeforeATail, RefusesASplitOutside) {
    const PlainWindow window(0, 0, 100, 100);
    for (const int split : {3, 4, -1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(
            trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectEx, window, u"abc", box_of(500), split, E_FAIL),
            u"abc");
    }
    EXPECT_EQ(trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectEx, window, u"", box_of(500), 0, E_FAIL), u"");
    // It is looked at before the window is.
    WCHAR text[] = u"abc";
    RECT box = box_of(500);
    EXPECT_EQ(GraphicalUtilities::TrimWithEllipsisToRectEx(nullptr, &box, text, 3), E_FAIL);
    EXPECT_EQ(GraphicalUtilities::TrimWithEllipsisToRectEx(nullptr, &box, text, 2), E_UNEXPECTED);
    EXPECT_EQ(trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectEx, window, u"abc", box_of(500), 2), u"abc");
}

TEST(TrimmingBeforeATail, CutsTheWholeWhereTheTailHasNoRoom) {
    const PlainWindow window(0, 0, 100, 100);
    const std::u16string text = u"ab" + std::u16string(50, u'm');
    EXPECT_EQ(trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectEx, window, text, {0, 0, 40, 20}, 2),
              trimmed_text(GraphicalUtilities::TrimWithEllipsisToRect, window, text, {0, 0, 40, 20}, 1));
}

TEST(TrimmingLines, EndsWhereTheHeightDoes) {
    const PlainWindow window(0, 0, 100, 100);
    std::u16string text;
    while (text.size() < 600) {
        text += u"some words and more ";
    }
    const int line = height_of(window, u"x", 1000);
    for (const int lines : {1, 2, 5}) {
        const std::u16string result = trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectMultiLine, window, text,
                                                   box_of(120, lines * line + line / 2), 1);
        EXPECT_LT(result.size(), text.size());
        EXPECT_EQ(result.back(), kEllipsis);
        EXPECT_NE(result[result.size() - 2], u'\n');
        EXPECT_LE(height_of(window, result.substr(0, result.size() - 1), 120), lines * line + line / 2);
        EXPECT_EQ(trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectMultiLine, window, text,
                               box_of(120, lines * line + line / 2), 0),
                  text);
    }
}

TEST(TrimmingLines, BlanksGoWithTheCut) {
    const PlainWindow window(0, 0, 100, 100);
    const int line = height_of(window, u"x", 1000);
    const std::u16string text = u"ab                                        \ncd\nef\ngh\nij";
    const std::u16string result =
        trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectMultiLine, window, text, box_of(1000, line), 1);
    EXPECT_LT(result.size(), text.size());
    EXPECT_EQ(result.back(), kEllipsis);
    // Nothing fits, or only the first character: it is left.
    EXPECT_EQ(trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectMultiLine, window, u"abc", box_of(100, 1), 1),
              u"abc");
    EXPECT_EQ(trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectMultiLine, window, u"a\nb", box_of(100, line), 1),
              u"a\nb");
}

TEST(Trimming, LeavesNoContextBehind) {
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::DeviceContexts);
    const PlainWindow window(0, 0, 50, 50);
    at_end(window, kTexts[0], 40);
    at_start(window, kTexts[0], 40);
    trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectEx, window, kTexts[0], box_of(40), 5);
    trimmed_text(GraphicalUtilities::TrimWithEllipsisToRectMultiLine, window, kTexts[0], box_of(40), 1);
    GraphicalUtilities::GetColourDepth();
    GraphicalUtilities::IsHighRes();
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::DeviceContexts), before);
}

// ---- Windows ----

RECT screen_place(HWND window) {
    RECT place{};
    EXPECT_TRUE(GetWindowRect(window, &place));
    return place;
}

TEST(ClientRect, IsSeenFromTheParent) {
    const PlainWindow parent(30, 40, 100, 100);
    const PlainWindow child(5, 6, 10, 20, parent);
    RECT place{};
    GraphicalUtilities::GetRectInClient(child, &place);
    EXPECT_EQ(place.left, 5);
    EXPECT_EQ(place.top, 6);
    EXPECT_EQ(place.right, 15);
    EXPECT_EQ(place.bottom, 26);
    RECT kept{1, 2, 3, 4};
    GraphicalUtilities::GetRectInClient(parent, &kept);
    GraphicalUtilities::GetRectInClient(nullptr, &kept);
    EXPECT_EQ(kept.left, 1);
    EXPECT_EQ(kept.bottom, 4);
}

TEST(Stretching, LeavesTheSameMargins) {
    const PlainWindow parent(0, 40, 240, 100);
    const PlainWindow child(10, 6, 50, 20, parent);
    const PlainWindow other(0, 0, 1, 1);
    notices.clear();
    EXPECT_EQ(GraphicalUtilities::StretchToFit(child, other), 220);
    const RECT place = screen_place(child);
    EXPECT_EQ(place.left, 10);
    EXPECT_EQ(place.right, 230);
    EXPECT_EQ(place.bottom - place.top, 20);
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_EQ(notices[0].message, 1129u);
    EXPECT_EQ(notices[0].wparam, reinterpret_cast<WPARAM>(static_cast<HWND>(child)));
}

TEST(Stretching, KeepsItsSumElsewhere) {
    const PlainWindow parent(30, 40, 240, 100);
    const PlainWindow child(10, 6, 50, 20, parent);
    // (240 - 90) + (60 - 20)
    EXPECT_EQ(GraphicalUtilities::StretchToFit(child, nullptr), 190);
    EXPECT_EQ(GraphicalUtilities::StretchToFit(parent, nullptr), 0);
    EXPECT_EQ(GraphicalUtilities::StretchToFit(nullptr, nullptr), 0);
}

TEST(Windows, OfAnotherThreadAreMeasuredAndMoved) {
    std::promise<HWND> made;
    std::thread owner([&] {
        const PlainWindow parent(0, 40, 240, 100);
        const PlainWindow child(10, 6, 50, 20, parent);
        made.set_value(child);
        MSG message{};
        while (GetMessageW(&message, nullptr, 0, 0) > 0) {
            DispatchMessageW(&message);
        }
    });
    const HWND child = made.get_future().get();
    const PlainWindow own(0, 0, 50, 20);
    EXPECT_EQ(at_end(child, kTexts[0], 40), at_end(own, kTexts[0], 40));
    EXPECT_EQ(at_start(child, kTexts[0], 40), at_start(own, kTexts[0], 40));
    EXPECT_GT(described(GraphicalUtilities::CreateDefaultFont(child, 1, 0)).lfWeight, 0);
    EXPECT_EQ(GraphicalUtilities::StretchToFit(child, own), 220);
    EXPECT_EQ(screen_place(child).right, 230);
    EXPECT_EQ(GraphicalUtilities::SizePageToFitSheet(child), 0);
    PostThreadMessageW(GetWindowThreadProcessId(child, nullptr), WM_QUIT, 0, 0);
    owner.join();
}

TEST(Windows, ThatAreGoneAreNotMeasuredNorMoved) {
    const LONGLONG contexts = ZrLiveObjects(ZrLiveKind::DeviceContexts);
    const LONGLONG objects = ZrLiveObjects(ZrLiveKind::GdiObjects);
    HWND gone = nullptr;
    {
        const PlainWindow window(0, 0, 100, 100);
        gone = window;
    }
    RECT kept{1, 2, 3, 4};
    GraphicalUtilities::GetRectInClient(gone, &kept);
    EXPECT_EQ(kept.right, 3);
    EXPECT_EQ(GraphicalUtilities::StretchToFit(gone, gone), 0);
    EXPECT_EQ(GraphicalUtilities::SizePageToFitSheet(gone), 0);
    std::u16string text = u"several words";
    EXPECT_EQ(GraphicalUtilities::CalTextRect(gone, text.data(), {5, 5, 15, 25}).bottom, 20);
    for (const Trim trim :
         {GraphicalUtilities::TrimWithEllipsisToRectEx, GraphicalUtilities::TrimWithEllipsisToRectMultiLine}) {
        EXPECT_EQ(trimmed_text(trim, gone, text, box_of(10), 1), text);
    }
    EXPECT_NE(described(GraphicalUtilities::CreateDefaultFont(gone, 0, 0)).lfHeight, 0);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::DeviceContexts), contexts);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::GdiObjects), objects);
}

class Sheet : public testing::Test {
protected:
    Sheet() {
        PROPSHEETPAGEW page{};
        page.dwSize = sizeof page;
        page.dwFlags = PSP_USETITLE;
        page.pszTitle = u"One";
        const PROPSHEETPAGEW pages[] = {page, page};
        PROPSHEETHEADERW header{};
        header.dwSize = sizeof header;
        header.dwFlags = PSH_MODELESS | PSH_PROPSHEETPAGE;
        header.nPages = 2;
        header.ppsp = pages;
        sheet = reinterpret_cast<HWND>(PropertySheetW(&header));
        page_window = reinterpret_cast<HWND>(SendMessageW(sheet, PSM_GETCURRENTPAGEHWND, 0, 0));
    }
    ~Sheet() override { DestroyWindow(sheet); }

    HWND sheet = nullptr;
    HWND page_window = nullptr;
};

TEST_F(Sheet, APageFillsItBesideTheTabs) {
    const PlainWindow header(0, 3, 240, 24, sheet, 12328);
    EXPECT_NE(GraphicalUtilities::SizePageToFitSheet(page_window), 0);
    RECT place{};
    GraphicalUtilities::GetRectInClient(page_window, &place);
    // The header's top and bottom are 3 and 27; the tabs are 20 high.
    EXPECT_EQ(place.left, 0);
    EXPECT_EQ(place.top, 30);
    EXPECT_EQ(place.right, 240);
    EXPECT_EQ(place.bottom, 30 + (320 - 20 - 30));
}

TEST_F(Sheet, OneTabCountsAsNone) {
    EXPECT_TRUE(SendMessageW(sheet, PSM_REMOVEPAGE, 1, 0));
    const PlainWindow header(0, 0, 240, 24, sheet, 12328);
    EXPECT_NE(GraphicalUtilities::SizePageToFitSheet(page_window), 0);
    RECT place{};
    GraphicalUtilities::GetRectInClient(page_window, &place);
    EXPECT_EQ(place.left, 1);
    EXPECT_EQ(place.top, 24);
    EXPECT_EQ(place.right, 240);
    EXPECT_EQ(place.bottom, 320);
}

TEST_F(Sheet, WithoutOneNothingIsSized) {
    const PlainWindow alone(0, 0, 10, 10);
    const PlainWindow child(0, 0, 10, 10, alone);
    EXPECT_EQ(GraphicalUtilities::SizePageToFitSheet(nullptr), 0);
    EXPECT_EQ(GraphicalUtilities::SizePageToFitSheet(alone), 0);
    EXPECT_EQ(GraphicalUtilities::SizePageToFitSheet(child), 0);
    EXPECT_NE(GraphicalUtilities::SizePageToFitSheet(page_window), 0);  // without a header
}

}  // namespace
