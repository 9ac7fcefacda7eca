#include "base/utf.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

using namespace zr::platform;

TEST(Utf, ValidTextIsPlainlyConverted) {
    EXPECT_EQ(host_to_wide(""), u"");
    EXPECT_EQ(host_to_wide("a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80"), u"a\xE9\x4E2D\xD83D\xDE00");
    EXPECT_EQ(wide_to_host(u"a\xE9\x4E2D\xD83D\xDE00"), "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80");
    EXPECT_EQ(host_to_wide(std::string_view("a\0b", 3)), std::u16string_view(u"a\0b", 3));
    EXPECT_EQ(host_to_wide("\xF4\x8F\xBF\xBF"), u"\xDBFF\xDFFF");
}

TEST(Utf, InvalidBytesBecomeLowSurrogates) {
    EXPECT_EQ(host_to_wide("a\xFF\x80"), u"a\xDCFF\xDC80");
    EXPECT_EQ(host_to_wide("\xE4\xB8"), u"\xDCE4\xDCB8");
    EXPECT_EQ(host_to_wide("\xC0\xAF"), u"\xDCC0\xDCAF");
    EXPECT_EQ(wide_to_host(u"a\xDCFF\xDC80"), "a\xFF\x80");
}

TEST(Utf, OtherLoneSurrogatesAreSpelledOut) {
    EXPECT_EQ(wide_to_host(u"\xD800x"), "\xED\xA0\x80x");
    EXPECT_EQ(host_to_wide("\xED\xA0\x80x"), u"\xD800x");
    EXPECT_EQ(wide_to_host(u"\xDC00"), "\xED\xB0\x80");
    EXPECT_EQ(host_to_wide("\xED\xB0\x80"), u"\xDC00");
}

TEST(Utf, SpelledSurrogatesThatWouldJoinAreEscaped) {
    EXPECT_EQ(host_to_wide("\xED\xA0\x80\xED\xB0\x80"), u"\xDCED\xDCA0\xDC80\xDC00");
    EXPECT_EQ(host_to_wide("\xED\xA0\x80\xFF"), u"\xDCED\xDCA0\xDC80\xDCFF");
    EXPECT_EQ(host_to_wide("\xED\xB2\x80"), u"\xDCED\xDCB2\xDC80") << "a spelled escape";
    EXPECT_EQ(host_to_wide("\xED\xA0\x80\xED\xA0\x81z"), u"\xD800\xD801z");
}

// Every byte string, as far as four fragments of every kind go.
TEST(Utf, HostNamesSurviveTheRoundTripInEveryCombination) {
    const std::vector<std::string> fragments = {"a",
                                                "\xC3\xA9",
                                                "\xE4\xB8\xAD",
                                                "\xF0\x9F\x98\x80",
                                                "\xED\xA0\x80",
                                                "\xED\xAF\xBF",
                                                "\xED\xB0\x80",
                                                "\xED",
                                                "\xED\xB2\x80",
                                                "\xED\xB3\xBF",
                                                "\xED\xB4\x80",
                                                "\x80",
                                                "\xFF",
                                                "\xA0",
                                                "\xE4\xB8",
                                                "\xF0\x9F",
                                                ""};
    const std::size_t n = fragments.size();
    for (std::size_t i = 0; i < n * n * n * n; ++i) {
        const std::string text =
            fragments[i % n] + fragments[i / n % n] + fragments[i / n / n % n] + fragments[i / n / n / n];
        ASSERT_EQ(wide_to_host(host_to_wide(text)), text);
    }
}

TEST(Utf, RandomBytesSurviveTheRoundTrip) {
    std::mt19937 random(9);
    for (int i = 0; i < 100000; ++i) {
        std::string bytes(random() % 24, '\0');
        const bool mostly_high = random() % 2 == 0;
        for (char& byte : bytes) {
            byte = static_cast<char>(mostly_high ? 0x80 | (random() & 0x7F) : random());
        }
        const std::u16string wide = host_to_wide(bytes);
        ASSERT_EQ(wide_to_host(wide), bytes);
        ASSERT_EQ(host_to_wide(wide_to_host(wide)), wide);
    }
}

TEST(Utf, ValidUtf16SurvivesTheRoundTrip) {
    std::mt19937 random(10);
    for (int i = 0; i < 50000; ++i) {
        std::u16string wide;
        for (std::size_t count = random() % 12; count != 0; --count) {
            const auto code = static_cast<char32_t>(random() % (random() % 3 == 0 ? 0x80 : 0x110000));
            if (code >= 0xD800 && code < 0xE000) continue;
            if (code >= 0x10000) {
                wide.push_back(static_cast<char16_t>(0xD7C0 + (code >> 10)));
                wide.push_back(static_cast<char16_t>(0xDC00 | (code & 0x3FF)));
            } else {
                wide.push_back(static_cast<char16_t>(code));
            }
        }
        ASSERT_TRUE(is_valid_utf16(wide));
        const std::string host = wide_to_host(wide);
        ASSERT_TRUE(is_valid_utf8(host));
        ASSERT_EQ(host_to_wide(host), wide);
        ASSERT_EQ(utf8_to_wide(host), wide);
        ASSERT_EQ(wide_to_utf8(wide), host);
    }
}

TEST(Utf, NoEscapeStandsForAnAsciiByte) {
    for (unsigned low = 0xDC00; low < 0xE000; ++low) {
        const WCHAR unit = static_cast<WCHAR>(low);
        for (const char byte : wide_to_host({&unit, 1})) {
            EXPECT_GE(static_cast<unsigned char>(byte), 0x80u);
        }
    }
}

TEST(Utf, LongRunsOfSpelledSurrogatesTakeNoLongerThanTheyShould) {
    std::string text;
    for (int i = 0; i < 200000; ++i) {
        text += "\xED\xA0\x80";
    }
    EXPECT_EQ(wide_to_host(host_to_wide(text)), text);
    text += "\xFF";
    EXPECT_EQ(wide_to_host(host_to_wide(text)), text);
}

TEST(Utf, IntoABufferTellsTheLengthAndWritesWhatFits) {
    WCHAR wide[4] = {9, 9, 9, 9};
    EXPECT_EQ(host_to_wide("ab\xC3\xA9", std::span(wide)), 3u);
    EXPECT_EQ(std::u16string(wide, 4), u"ab\xE9\t");
    EXPECT_EQ(host_to_wide("abcdefgh", std::span(wide, 2)), 8u);
    EXPECT_EQ(wide[2], u'\xE9') << "nothing beyond the buffer";
    char host[4] = {9, 9, 9, 9};
    EXPECT_EQ(wide_to_host(u"\x4E2D", std::span(host)), 3u);
    EXPECT_EQ(std::string(host, 4), "\xE4\xB8\xAD\t");
    EXPECT_EQ(wide_to_host(u"abc", std::span<char>()), 3u);
}

TEST(Utf, HalvesAreFoundWhereverTheyStand) {
    for (const char16_t half : {u'\xD800', u'\xDC00'}) {
        for (std::size_t at = 0; at < 70; ++at) {
            std::u16string text(70, u'x');
            EXPECT_TRUE(is_valid_utf16(text));
            text[at] = half;
            EXPECT_FALSE(is_valid_utf16(text)) << at;
            text[at] = u'\xE9';
            EXPECT_EQ(wide_to_utf8(text), std::string(at, 'x') + "\xC3\xA9" + std::string(69 - at, 'x'));
        }
    }
}

TEST(Utf, StrictConversionsReportInvalidText) {
    for (const char* const text : {"\xFF", "a\xC3", "\xED\xA0\x80", "\xC0\x80", "\xF4\x90\x80\x80", "\xE0\x9F\xBF"}) {
        EXPECT_FALSE(is_valid_utf8(text));
        EXPECT_EQ(utf8_to_wide(text), std::nullopt);
    }
    EXPECT_EQ(utf8_to_wide("caf\xC3\xA9"), u"caf\xE9");
    for (const WCHAR* const text : {u"\xD800", u"a\xDC00", u"\xDC00\xD800", u"\xD800\xD800"}) {
        EXPECT_FALSE(is_valid_utf16(text));
        EXPECT_EQ(wide_to_utf8(text), std::nullopt);
    }
    EXPECT_EQ(wide_to_utf8(u"\xD83D\xDE00"), "\xF0\x9F\x98\x80");
}

}  // namespace
