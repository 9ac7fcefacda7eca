// How wide text is, and what is drawn of it, beside what Pango says and draws by itself.

#include <pango/pangocairo.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>

#include "gdi_support.h"
#include "platform/files.h"
#include "support/instrumented.h"
#include "support/sandbox.h"

namespace {

using gdi_test::font_description;
using gdi_test::Paper;

std::string utf8_of(std::u16string_view text) {
    glong size = 0;
    char* const made = g_utf16_to_utf8(reinterpret_cast<const gunichar2*>(text.data()), static_cast<glong>(text.size()),
                                       nullptr, &size, nullptr);
    std::string result(made, static_cast<std::size_t>(size));
    g_free(made);
    return result;
}

// One line of Pango's own, in the font that Paper has.
class PangoLine {
public:
    explicit PangoLine(std::u16string_view text, int pixels = 16)
        : map_(pango_cairo_font_map_new_for_font_type(CAIRO_FONT_TYPE_FT)),
          context_(pango_font_map_create_context(map_)) {
        cairo_font_options_t* const options = cairo_font_options_create();
        cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_ON);
        cairo_font_options_set_hint_style(options, CAIRO_HINT_STYLE_SLIGHT);
        cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_GRAY);
        pango_cairo_context_set_font_options(context_, options);
        cairo_font_options_destroy(options);
        pango_context_set_language(context_, pango_language_from_string("en"));
        layout_ = pango_layout_new(context_);
        PangoFontDescription* const font = pango_font_description_from_string("DejaVu Sans");
        pango_font_description_set_absolute_size(font, pixels * double{PANGO_SCALE});
        pango_layout_set_font_description(layout_, font);
        pango_font_description_free(font);
        pango_layout_set_auto_dir(layout_, FALSE);
        PangoAttrList* const attributes = pango_attr_list_new();
        pango_attr_list_insert(attributes, pango_attr_font_features_new("kern=0, liga=0, clig=0"));
        pango_layout_set_attributes(layout_, attributes);
        pango_attr_list_unref(attributes);
        const std::string utf8 = utf8_of(text);
        pango_layout_set_text(layout_, utf8.data(), static_cast<int>(utf8.size()));
    }
    ~PangoLine() {
        g_object_unref(layout_);
        g_object_unref(context_);
        g_object_unref(map_);
    }
    PangoLine(const PangoLine&) = delete;
    PangoLine& operator=(const PangoLine&) = delete;

    int width() const {
        int width = 0;
        pango_layout_get_pixel_size(layout_, &width, nullptr);
        return width;
    }
    PangoLayout* get() const { return layout_; }

private:
    PangoFontMap* map_;
    PangoContext* context_;
    PangoLayout* layout_ = nullptr;
};

const std::u16string kTexts[] = {u"x",
                                 u"The quick brown fox",
                                 u"AVAVA To. fi ffi",
                                 u"Größe, naïve, Čeština",
                                 u"Ελληνικά Русский текст",
                                 u"שלום עולם",
                                 u"abc שלום def",
                                 u"مرحبا بالعالم",
                                 u"e\u0301a\u0308o",
                                 u"日本語の文",
                                 u"smile \U0001F600 here",
                                 u"wait\u2026",
                                 u"12,50 € – „so“"};

TEST(Measuring, IsWhatPangoMeasures) {
    const Paper paper;
    for (const std::u16string& text : kTexts) {
        EXPECT_EQ(paper.width(text), PangoLine(text).width()) << utf8_of(text);
    }
    EXPECT_EQ(paper.width(u""), 0);
}

TEST(Measuring, OfPlainLettersIsWhatPangoMeasures) {
    const Paper paper;
    std::mt19937 random(18);  // NOLINT(bugprone-random-generator-seed)
    const auto number = [&](int from, int to) { return std::uniform_int_distribution(from, to)(random); };
    for (int round = 0; round < 300 / zr::test::kStride; ++round) {
        std::u16string text;
        for (int size = number(1, 60); size > 0; --size) {
            const int kind = number(0, 9);
            text += static_cast<char16_t>(kind < 7   ? number(0x20, 0x7E)
                                          : kind < 8 ? number(0xC0, 0x17F)
                                          : kind < 9 ? number(0x391, 0x3A1)
                                                     : number(0x410, 0x44F));
        }
        ASSERT_EQ(paper.width(text), PangoLine(text).width()) << utf8_of(text);
    }
}

TEST(Measuring, ExtentsGrowToTheWidth) {
    const Paper paper;
    for (const std::u16string& text : kTexts) {
        const std::vector<int> extents = paper.extents(text);
        EXPECT_TRUE(std::is_sorted(extents.begin(), extents.end()));
        EXPECT_EQ(extents.back(), paper.width(text)) << utf8_of(text);
    }
}

TEST(Measuring, FitsWhatDoesNotGoBeyond) {
    const Paper paper;
    for (const std::u16string& text : kTexts) {
        const std::vector<int> extents = paper.extents(text);
        for (int room = -1; room <= extents.back() + 1; ++room) {
            const Paper::Fit fit = paper.fit(text, room);
            ASSERT_EQ(fit.size.cx, extents.back());
            const auto count = static_cast<std::size_t>(fit.count);
            if (count > 0) {
                ASSERT_LE(extents[count - 1], room);
                ASSERT_EQ(fit.extents[count - 1], extents[count - 1]);
            }
            if (count < text.size()) {
                ASSERT_GT(extents[count], room);
            }
            ASSERT_EQ(fit.extents[count], -7);  // no more is told
        }
    }
}

TEST(Measuring, NothingIsCutInTwo) {
    const Paper paper;
    for (const std::u16string_view whole : {u"\U0001F600", u"e\u0301", u"a\u0308\u0301"}) {
        const int width = paper.width(whole);
        ASSERT_GT(width, 0);
        EXPECT_EQ(paper.fit(whole, width - 1).count, 0);
        EXPECT_EQ(paper.fit(whole, width).count, static_cast<int>(whole.size()));
    }
}

TEST(Measuring, TakesWhateverIsInAText) {
    const Paper paper;
    const char16_t lone[] = {0xD83D, u'a', 0xDE00, 0xD800};
    EXPECT_EQ(paper.extents({lone, 4}).back(), paper.width(u"\uFFFDa\uFFFD\uFFFD"));
    EXPECT_EQ(paper.width(u"a\tb\nc\rd"), paper.width(u"abcd"));
    EXPECT_EQ(paper.width(std::u16string(u"a\0b", 3)), paper.width(u"ab"));
    EXPECT_GT(paper.width(u"\uFFFF\uFFFE\u200F\u202E"), -1);
}

TEST(Measuring, RefusesWhatItCannotRead) {
    const Paper paper;
    SIZE size{};
    EXPECT_FALSE(GetTextExtentPoint32W(paper.context, u"x", -1, &size));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(GetTextExtentPoint32W(paper.context, nullptr, 1, &size));
    EXPECT_FALSE(GetTextExtentPoint32W(paper.context, u"x", 1, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_NOACCESS);
    EXPECT_TRUE(GetTextExtentPoint32W(paper.context, nullptr, 0, &size));
    EXPECT_EQ(size.cx, 0);
}

TEST(Measuring, OfLongTextsIsInTime) {
    const Paper paper;
    const std::u16string plain(5'000'000, u'm');
    EXPECT_EQ(paper.width(plain), 5'000'000 * paper.width(u"m"));
    std::u16string other;
    while (other.size() < 100'000) {
        other += u"שלום 日本 ";
    }
    EXPECT_GT(paper.width(other), 100'000);
}

// So many letters that join; fewer where a sanitizer looks on. Five million are ten million bytes. Parts of a text are
// shaped by themselves, so that it takes no more memory than the widths.
std::u16string joined_text(std::u16string_view letters, std::size_t size) {
    std::mt19937 random(53);  // NOLINT(bugprone-random-generator-seed)
    std::uniform_int_distribution<std::size_t> any(0, letters.size() - 1);
    std::u16string text(size / zr::test::kStride, u' ');
    for (char16_t& each : text) {
        each = letters[any(random)];
    }
    return text;
}

constexpr std::u16string_view kArabic = u"\u0645\u0631\u062D\u0628\u0627 \u0628\u0627\u0644\u0639\u0627\u0644\u0645 ";
// Without a space.
constexpr std::u16string_view kHindi = u"\u0928\u092E\u0938\u094D\u0924\u0947\u0926\u0941\u0928\u093F\u092F\u093E";

TEST(Measuring, OfTenMillionBytesOfJoinedLettersIsInTime) {
    const Paper paper;
    for (const std::u16string_view letters : {kArabic, kHindi}) {
        const std::u16string text = joined_text(letters, letters == kArabic ? 5'000'000 : 500'000);
        const std::u16string_view whole = text;
        const std::size_t half = text.size() / 2;
        // Where one is cut into two, a letter has another form.
        const int halves = paper.width(whole.substr(0, half)) + paper.width(whole.substr(half));
        EXPECT_NEAR(static_cast<double>(paper.width(whole)) / halves, 1, 0.001);
    }
}

TEST(Drawing, OfTenMillionBytesOfJoinedLettersIsInTime) {
    const Paper sheet;
    const std::u16string long_text = joined_text(kArabic, 5'000'000);
    EXPECT_TRUE(
        ExtTextOutW(sheet.context, 0, 0, 0, nullptr, long_text.data(), static_cast<UINT>(long_text.size()), nullptr));
    EXPECT_GT(sheet.ink().right, 0);
}

TEST(Drawing, OfLongTextsOfJoinedLettersIsInTime) {
    for (const std::u16string_view letters : {kArabic, kHindi}) {
        const Paper paper;
        const std::u16string text = joined_text(letters, 500'000);
        const int size = static_cast<int>(text.size());
        const int line = paper.extent(u"x").cy;
        RECT rectangle{0, 0, 300, 100};
        const int height = DrawTextW(paper.context, text.data(), size, &rectangle, DT_WORDBREAK);
        EXPECT_EQ(height > line, letters.find(u' ') != std::u16string_view::npos);
        EXPECT_GT(paper.ink().right, 0);
        EXPECT_TRUE(ExtTextOutW(paper.context, 0, 0, 0, nullptr, text.data(), static_cast<UINT>(text.size()), nullptr));
        EXPECT_EQ(DrawTextW(paper.context, text.data(), size, &rectangle, DT_SINGLELINE | DT_END_ELLIPSIS), line);
    }
}

TEST(Fonts, AreAsHighAsTheyAreAskedToBe) {
    for (const int height : {1, 5, 12, 13, 20, 57, 200}) {
        const Paper paper(10, 10, font_description(height));
        TEXTMETRICW metrics{};
        ASSERT_TRUE(GetTextMetricsW(paper.context, &metrics));
        if (height > 4) {
            EXPECT_LE(metrics.tmHeight, height);
            EXPECT_GE(metrics.tmHeight, height * 3 / 4 - 1);
        }
        const Paper letters(10, 10, font_description(-height));
        ASSERT_TRUE(GetTextMetricsW(letters.context, &metrics));
        EXPECT_EQ(metrics.tmHeight - metrics.tmInternalLeading, height);
        EXPECT_EQ(metrics.tmHeight, metrics.tmAscent + metrics.tmDescent);
        EXPECT_EQ(letters.extent(u"x").cy, metrics.tmHeight);
    }
}

TEST(Fonts, OfAnySizeMeasure) {
    for (const int height : {0, 10'000, -10'000, INT_MAX, INT_MIN}) {
        const Paper paper(10, 10, font_description(height));
        EXPECT_GT(paper.width(u"Text Möwe שלום"), 0) << height;
        EXPECT_TRUE(ExtTextOutW(paper.context, 0, -5000, 0, nullptr, u"Te", 2, nullptr));
    }
    const Paper none(10, 10, font_description(0));
    TEXTMETRICW metrics{};
    ASSERT_TRUE(GetTextMetricsW(none.context, &metrics));
    EXPECT_EQ(metrics.tmHeight - metrics.tmInternalLeading, 12);
}

TEST(Fonts, ThatAreNotThereAreReplaced) {
    const Paper paper(10, 10, font_description(-16, u"No Such Font Anywhere"));
    EXPECT_GT(paper.width(u"Text"), 0);
    const char16_t broken[] = {0xD800, u'x', 0};
    const Paper other(10, 10, font_description(-16, broken));
    EXPECT_GT(other.width(u"Text"), 0);
    const Paper comma(10, 10, font_description(-16, u",,"));
    EXPECT_GT(comma.width(u"Text"), 0);
    LOGFONTW full = font_description(-16);
    std::fill_n(full.lfFaceName, LF_FACESIZE, u'x');
    const Paper endless(10, 10, full);
    EXPECT_GT(endless.width(u"Text"), 0);
}

TEST(Fonts, HaveTheirKinds) {
    LOGFONTW bold = font_description(-16);
    bold.lfWeight = FW_BOLD;
    EXPECT_GT(Paper(10, 10, bold).width(u"mmmmmm"), Paper().width(u"mmmmmm"));
    LOGFONTW fixed = font_description(-16, u"");
    fixed.lfPitchAndFamily = FIXED_PITCH | FF_MODERN;
    const Paper typed(10, 10, fixed);
    EXPECT_EQ(typed.width(u"iiii"), typed.width(u"mmmm"));
    TEXTMETRICW metrics{};
    ASSERT_TRUE(GetTextMetricsW(typed.context, &metrics));
    EXPECT_EQ(metrics.tmPitchAndFamily & 1, 0);
    EXPECT_EQ(CreateFontIndirectW(nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

// ---- Drawing ----

TEST(Drawing, IsWhatPangoDraws) {
    for (const std::u16string& text : kTexts) {
        const Paper paper(300, 60);
        SetTextColor(paper.context, RGB(200, 0, 50));
        SetBkMode(paper.context, TRANSPARENT);
        ASSERT_TRUE(ExtTextOutW(paper.context, 7, 9, 0, nullptr, text.data(), static_cast<UINT>(text.size()), nullptr));
        TEXTMETRICW metrics{};
        GetTextMetricsW(paper.context, &metrics);

        cairo_surface_t* const surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, 300, 60);
        cairo_t* const cairo = cairo_create(surface);
        cairo_set_source_rgb(cairo, 1, 1, 1);
        cairo_paint(cairo);
        cairo_set_source_rgb(cairo, 200 / 255.0, 0, 50 / 255.0);
        const PangoLine line(text);
        cairo_move_to(cairo, 7, 9 + metrics.tmAscent);
        pango_cairo_show_layout_line(cairo, pango_layout_get_line_readonly(line.get(), 0));
        cairo_surface_flush(surface);
        const auto* const pixels = reinterpret_cast<const std::uint32_t*>(cairo_image_surface_get_data(surface));
        int different = 0;
        for (int y = 0; y < 60; ++y) {
            for (int x = 0; x < 300; ++x) {
                const std::uint32_t pixel = pixels[y * 300 + x];
                different += GetPixel(paper.context, x, y) != RGB(pixel >> 16, pixel >> 8, pixel) ? 1 : 0;
            }
        }
        EXPECT_EQ(different, 0) << utf8_of(text);
        const RECT ink = paper.ink();
        EXPECT_LT(ink.left, ink.right);
        cairo_destroy(cairo);
        cairo_surface_destroy(surface);
    }
}

TEST(Drawing, HasABackgroundAsWideAsWasMeasured) {
    const Paper paper;
    SetBkColor(paper.context, RGB(0, 0, 255));
    ASSERT_TRUE(ExtTextOutW(paper.context, 10, 20, 0, nullptr, u"Hello", 5, nullptr));
    const RECT ink = paper.ink();
    const SIZE size = paper.extent(u"Hello");
    EXPECT_EQ(ink.left, 10);
    EXPECT_EQ(ink.right, 10 + size.cx);
    EXPECT_EQ(ink.top, 20);
    EXPECT_EQ(ink.bottom, 20 + size.cy);
}

TEST(Drawing, KeepsToItsRectangle) {
    const Paper paper;
    const RECT clip{20, 22, 30, 28};
    SetBkColor(paper.context, RGB(255, 0, 0));
    ASSERT_TRUE(ExtTextOutW(paper.context, 10, 20, ETO_CLIPPED, &clip, u"Hello", 5, nullptr));
    const RECT ink = paper.ink();
    EXPECT_GE(ink.left, 20);
    EXPECT_LE(ink.right, 30);
    EXPECT_GE(ink.top, 22);
    EXPECT_LE(ink.bottom, 28);
    const RECT filled{1, 2, 3, 4};
    ASSERT_TRUE(ExtTextOutW(paper.context, 10, 20, ETO_OPAQUE, &filled, nullptr, 0, nullptr));
    EXPECT_EQ(GetPixel(paper.context, 1, 2), RGB(255, 0, 0));
    EXPECT_EQ(GetPixel(paper.context, 3, 3), RGB(255, 255, 255));
}

TEST(Drawing, TakesGivenSpacing) {
    const Paper paper;
    const int spacing[] = {100, 50, 7};
    SetBkMode(paper.context, TRANSPARENT);
    ASSERT_TRUE(ExtTextOutW(paper.context, 0, 0, 0, nullptr, u"l\u0301l", 3, spacing));
    const RECT ink = paper.ink();
    EXPECT_GE(ink.right, 150);
    EXPECT_LE(ink.right, 160);
}

TEST(Drawing, FillsAndFrames) {
    const Paper paper(20, 20);
    const HBRUSH red = CreateSolidBrush(RGB(255, 0, 0));
    const RECT rectangle{-5, 15, 5, 900};
    EXPECT_EQ(FillRect(paper.context, &rectangle, red), 1);
    EXPECT_EQ(GetPixel(paper.context, 0, 15), RGB(255, 0, 0));
    EXPECT_EQ(GetPixel(paper.context, 5, 15), RGB(255, 255, 255));
    EXPECT_EQ(GetPixel(paper.context, 0, 14), RGB(255, 255, 255));
    const RECT inside_out{10, 10, 2, 2};
    EXPECT_EQ(FillRect(paper.context, &inside_out, red), 1);
    EXPECT_EQ(GetPixel(paper.context, 5, 5), RGB(255, 255, 255));
    SelectObject(paper.context, red);
    EXPECT_TRUE(Rectangle(paper.context, 10, 10, 4, 4));
    EXPECT_EQ(GetPixel(paper.context, 4, 4), RGB(0, 0, 0));
    EXPECT_EQ(GetPixel(paper.context, 9, 9), RGB(0, 0, 0));
    EXPECT_EQ(GetPixel(paper.context, 5, 5), RGB(255, 0, 0));
    EXPECT_EQ(GetPixel(paper.context, 10, 10), RGB(255, 255, 255));
    SelectObject(paper.context, GetStockObject(WHITE_BRUSH));
    EXPECT_TRUE(DeleteObject(red));
    EXPECT_EQ(SetPixel(paper.context, 3, 3, RGB(9, 8, 7)), RGB(9, 8, 7));
    EXPECT_EQ(GetPixel(paper.context, 3, 3), RGB(9, 8, 7));
    EXPECT_EQ(SetPixel(paper.context, 20, 3, 0), CLR_INVALID);
    EXPECT_EQ(GetPixel(paper.context, -1, 3), CLR_INVALID);
}

TEST(Drawing, GoesNowhereWithoutABitmap) {
    const HDC screen = GetDC(nullptr);
    RECT rectangle{0, 0, 10, 10};
    EXPECT_TRUE(ExtTextOutW(screen, 0, 0, 0, nullptr, u"x", 1, nullptr));
    EXPECT_GT(DrawTextW(screen, u"x", 1, &rectangle, 0), 0);
    EXPECT_TRUE(Rectangle(screen, 0, 0, 5, 5));
    EXPECT_EQ(ReleaseDC(nullptr, screen), 1);
    EXPECT_EQ(CreateCompatibleBitmap(screen, 1, 1), nullptr);
}

TEST(Drawing, BitmapsHaveBounds) {
    const Paper paper;
    EXPECT_EQ(CreateCompatibleBitmap(paper.context, -1, 5), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(CreateCompatibleBitmap(paper.context, 40'000, 5), nullptr);
    const HBITMAP empty = CreateCompatibleBitmap(paper.context, 0, 5);
    BITMAP facts{};
    GetObjectW(empty, sizeof facts, &facts);
    EXPECT_EQ(facts.bmWidth * facts.bmHeight, 1);
    EXPECT_TRUE(DeleteObject(empty));
}

TEST(Drawing, IsWrittenAsPng) {
    const Paper paper(50, 40);
    SetPixel(paper.context, 3, 4, RGB(10, 20, 30));
    const zr::test::TempFolder folder;
    ASSERT_TRUE(ZrWriteBitmapPng(paper.bitmap, (folder.handheld() + u"\\a.png").c_str()));
    cairo_surface_t* const read = cairo_image_surface_create_from_png((folder.host() / "a.png").c_str());
    ASSERT_EQ(cairo_surface_status(read), CAIRO_STATUS_SUCCESS);
    EXPECT_EQ(cairo_image_surface_get_width(read), 50);
    EXPECT_EQ(cairo_image_surface_get_height(read), 40);
    const unsigned char* const row = cairo_image_surface_get_data(read) + 4 * cairo_image_surface_get_stride(read);
    EXPECT_EQ(reinterpret_cast<const std::uint32_t*>(row)[3] & 0xFFFFFF, 0x0A141Eu);
    cairo_surface_destroy(read);
    EXPECT_FALSE(ZrWriteBitmapPng(paper.bitmap, u"\\no such folder\\a.png"));
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
}

// ---- DrawTextW ----

RECT calculated(const Paper& paper, std::u16string_view text, int width, UINT format) {
    RECT rectangle{5, 6, 5 + width, 6};
    const int height =
        DrawTextW(paper.context, text.data(), static_cast<int>(text.size()), &rectangle, format | DT_CALCRECT);
    EXPECT_EQ(height, rectangle.bottom - 6);
    EXPECT_EQ(rectangle.left, 5);
    EXPECT_EQ(rectangle.top, 6);
    return {0, 0, rectangle.right - 5, rectangle.bottom - 6};
}

class Lines : public testing::Test {
protected:
    const Paper paper;
    const int line = paper.extent(u"x").cy;
    int lines(std::u16string_view text, int width, UINT format = DT_WORDBREAK) const {
        return calculated(paper, text, width, format).bottom / line;
    }
};

TEST_F(Lines, EndWhereTheTextSays) {
    EXPECT_EQ(lines(u"one", 1000), 1);
    EXPECT_EQ(lines(u"", 1000), 1);
    EXPECT_EQ(lines(u"one\ntwo\r\nthree\rfour", 1000), 4);
    EXPECT_EQ(lines(u"one\n\ntwo", 1000), 3);
    EXPECT_EQ(lines(u"one\n", 1000), 1);
    EXPECT_EQ(lines(u"one\ntwo", 1000, DT_SINGLELINE), 1);
    EXPECT_EQ(lines(u"one\ntwo", 1000, 0), 2);
}

TEST_F(Lines, BreakBetweenWords) {
    const int two = paper.width(u"one two");
    EXPECT_EQ(lines(u"one two three", two), 2);
    EXPECT_EQ(calculated(paper, u"one two three", two, DT_WORDBREAK).right, std::max(two, paper.width(u"three")));
    EXPECT_EQ(lines(u"one two three", two - 1), 3);
    EXPECT_EQ(lines(u"one    two", paper.width(u"one")), 2);
    EXPECT_EQ(lines(u"one two three", two, 0), 1);
    EXPECT_EQ(lines(u"one two-three/four", paper.width(u"two-three/four")), 2);
}

TEST_F(Lines, AWordThatIsTooWideStaysWhole) {
    const RECT found = calculated(paper, u"a immeasurable b", 10, DT_WORDBREAK);
    EXPECT_EQ(found.right, paper.width(u"immeasurable"));
    EXPECT_EQ(found.bottom, 3 * line);
    EXPECT_EQ(calculated(paper, u"x", -50, DT_WORDBREAK).right, paper.width(u"x"));
}

TEST_F(Lines, ScriptsWithoutSpacesBreakWhereTheyMay) {
    const std::u16string text = u"日本語日本語";
    EXPECT_EQ(lines(text, paper.width(text)), 1);
    EXPECT_EQ(lines(text, paper.width(u"日本語")), 2);
    EXPECT_EQ(lines(text, 1), 6);
    EXPECT_EQ(lines(u"ab 日本。", paper.width(u"ab 日")), 2);
}

TEST_F(Lines, PrefixesAreNotCounted) {
    EXPECT_EQ(calculated(paper, u"&Open", 1000, 0).right, paper.width(u"Open"));
    EXPECT_EQ(calculated(paper, u"a&&b", 1000, 0).right, paper.width(u"a&b"));
    EXPECT_EQ(calculated(paper, u"ab&", 1000, 0).right, paper.width(u"ab"));
    EXPECT_EQ(calculated(paper, u"&Open", 1000, DT_NOPREFIX).right, paper.width(u"&Open"));
}

TEST_F(Lines, TabsGoToTheirStops) {
    TEXTMETRICW metrics{};
    GetTextMetricsW(paper.context, &metrics);
    const int stop = 8 * metrics.tmAveCharWidth;
    EXPECT_EQ(calculated(paper, u"a\tb", 1000, DT_EXPANDTABS).right, stop + paper.width(u"b"));
    EXPECT_EQ(calculated(paper, u"\t\tb", 1000, DT_EXPANDTABS).right, 2 * stop + paper.width(u"b"));
    EXPECT_EQ(calculated(paper, u"a\tb", 1000, 0).right, paper.width(u"ab"));
}

TEST_F(Lines, AreDrawnWhereTheyBelong) {
    const int width = paper.width(u"Hill");
    const auto ink = [&](UINT format) {
        const Paper sheet;
        SetBkColor(sheet.context, RGB(0, 255, 0));
        RECT rectangle{10, 10, 210, 90};
        EXPECT_GT(DrawTextW(sheet.context, u"Hill", -1, &rectangle, format), 0);
        return sheet.ink();
    };
    EXPECT_EQ(ink(0).left, 10);
    EXPECT_EQ(ink(0).top, 10);
    EXPECT_EQ(ink(DT_RIGHT).right, 210);
    EXPECT_EQ(ink(DT_RIGHT).left, 210 - width);
    EXPECT_EQ(ink(DT_CENTER).left, 10 + (200 - width) / 2);
    EXPECT_EQ(ink(DT_SINGLELINE | DT_BOTTOM).bottom, 90);
    EXPECT_EQ(ink(DT_SINGLELINE | DT_VCENTER).top, 10 + (80 - line) / 2);
    EXPECT_EQ(ink(DT_BOTTOM).top, 10);  // of several lines there is no bottom
    RECT rectangle{10, 10, 210, 90};
    EXPECT_EQ(DrawTextW(paper.context, u"Hill", -1, &rectangle, DT_SINGLELINE | DT_BOTTOM), 80);
    EXPECT_EQ(rectangle.right, 210);
}

TEST_F(Lines, AreClippedToTheirRectangle) {
    const auto ink = [&](UINT format) {
        const Paper sheet;
        RECT rectangle{10, 10, 30, 20};
        DrawTextW(sheet.context, u"Mountain\nMountain", -1, &rectangle, format);
        return sheet.ink();
    };
    EXPECT_LE(ink(0).right, 30);
    EXPECT_LE(ink(0).bottom, 20);
    EXPECT_GT(ink(DT_NOCLIP).right, 60);
    EXPECT_GT(ink(DT_NOCLIP).bottom, 10 + line);
}

TEST_F(Lines, EndInDotsWhereTheyAreTooWide) {
    const std::u16string text = u"Mountains and rivers";
    const int room = paper.width(u"Mountains...") + 2;
    const RECT found = calculated(paper, text, room, DT_SINGLELINE | DT_END_ELLIPSIS);
    EXPECT_LE(found.right, room);
    EXPECT_GE(found.right, paper.width(u"Mountain..."));
    EXPECT_EQ(calculated(paper, text, 1000, DT_END_ELLIPSIS).right, paper.width(text));
    EXPECT_EQ(calculated(paper, text, 1, DT_END_ELLIPSIS).right, paper.width(u"..."));
    EXPECT_GT(calculated(paper, u"Mountains and\nMount", room, DT_END_ELLIPSIS).right, room);
    EXPECT_LE(calculated(paper, u"Mountains and\nMount", room, DT_WORD_ELLIPSIS).right, room);
}

TEST_F(Lines, RefuseWhatTheyCannotRead) {
    RECT rectangle{};
    EXPECT_EQ(DrawTextW(paper.context, u"x", -2, &rectangle, 0), 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(DrawTextW(paper.context, nullptr, 1, &rectangle, 0), 0);
    EXPECT_EQ(DrawTextW(paper.context, u"x", 1, nullptr, 0), 0);
    EXPECT_EQ(GetLastError(), ERROR_NOACCESS);
}

TEST_F(Lines, OfLongTextsAreInTime) {
    std::u16string text;
    while (text.size() < 2'000'000) {
        text += u"several words of a text ";
    }
    EXPECT_GT(lines(text, 200), 50'000);
    RECT rectangle{0, 0, 300, 100};
    EXPECT_GT(DrawTextW(paper.context, text.data(), static_cast<int>(text.size()), &rectangle, DT_WORDBREAK), 0);
    EXPECT_GT(DrawTextW(paper.context, text.data(), static_cast<int>(text.size()), &rectangle, DT_SINGLELINE), 0);
}

}  // namespace
