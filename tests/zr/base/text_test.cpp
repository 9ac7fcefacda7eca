#include "zr/base/text.h"

#include <gtest/gtest.h>

#include <random>

namespace {

TEST(Text, EscapesWhatSteersATerminal) {
    EXPECT_EQ(zr::printable("a\x1B[31mb\a\t\n\x7F"), "a\\x1b[31mb\\x07\\t\\n\\x7f");
    EXPECT_EQ(zr::printable("\xC2\x9B\xE2\x80\xAE"), "\\x9b\\u202e");
    EXPECT_EQ(zr::printable("Zoë 山 😀 नमस्ते"), "Zoë 山 😀 नमस्ते");
    EXPECT_EQ(zr::printable("\xFF"), "\xEF\xBF\xBD");
}

TEST(Text, ConvertsEveryCodePointBothWays) {
    for (char32_t c = 1; c < 0x110000; c += c < 0x3000 ? 1 : 97) {
        if (c >= 0xD800 && c < 0xE000) continue;
        std::string text;
        zr::append_utf8(text, c);
        ASSERT_TRUE(zr::is_utf8(text));
        ASSERT_EQ(zr::to_utf8(zr::to_utf16(text)), text);
    }
}

TEST(Text, TellsValidUtf8) {
    EXPECT_TRUE(zr::is_utf8(""));
    for (const char* bad :
         {"\x80", "\xC0\x80", "\xC3", "\xE0\x80\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF5", "a\xFF"}) {
        EXPECT_FALSE(zr::is_utf8(bad)) << bad;
    }
    const char16_t lone[] = {u'a', 0xD800, u'b'};
    EXPECT_EQ(zr::to_utf8({lone, 3}),
              "a\xEF\xBF\xBD"
              "b");
}

}  // namespace
