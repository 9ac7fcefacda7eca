// Text of messages: character sets and HTML.

#include <gtest/gtest.h>

#include <string>

#include "zr/base/text.h"
#include "zr/mail/html_text.h"
#include "zr/mail/text_decoder.h"

namespace text_test {
namespace {

// In pieces of every length, which must all give the same.
std::string decoded(const std::string& charset, const std::string& bytes) {
    std::string first;
    for (std::size_t step = bytes.size() + 1; step > 0; --step) {
        zr::TextDecoder decoder(charset);
        std::string out;
        for (std::size_t at = 0; at < bytes.size(); at += step) {
            decoder.decode(std::string_view(bytes).substr(at, step), out);
        }
        decoder.finish(out);
        EXPECT_TRUE(zr::is_utf8(out));
        if (step == bytes.size() + 1) first = out;
        EXPECT_EQ(out, first) << step;
    }
    return first;
}

std::string page_text(const std::string& html) {
    std::string first;
    for (std::size_t step = html.size() + 1; step > 0; --step) {
        zr::HtmlText reader;
        std::string out;
        for (std::size_t at = 0; at < html.size(); at += step) {
            reader.read(std::string_view(html).substr(at, step), out);
        }
        reader.finish(out);
        if (step == html.size() + 1) first = out;
        EXPECT_EQ(out, first) << step;
    }
    return first;
}

TEST(TextDecoder, KnowsCharacterSets) {
    EXPECT_EQ(decoded("utf-8", "J\xC3\xB6rg \xF0\x9F\x98\x80"), "Jörg 😀");
    EXPECT_EQ(decoded("iso-8859-15", "\xA4"), "€");
    EXPECT_EQ(decoded("iso-2022-jp", "\x1b$B;3ED\x1b(B"), "山田");
    EXPECT_EQ(decoded("gb18030", "\xC4\xE3\xBA\xC3"), "你好");
    EXPECT_EQ(decoded("utf-16le", std::string("a\0\x3d\xd8\x00\xde", 6)), "a😀");
}

TEST(TextDecoder, WrongDeclarationsLoseLittle) {
    // No UTF-8, and nothing that anybody knows.
    EXPECT_EQ(decoded("us-ascii", "J\xF6rg"), "Jörg");
    EXPECT_EQ(decoded("no-such-set", "J\xF6rg \x80"), "Jörg €");
    EXPECT_EQ(decoded("", "J\xC3\xB6rg"), "Jörg");
    EXPECT_EQ(decoded("iso-8859-2", std::string("a\0b", 3)), std::string("a\0b", 3));
    // Damage is one sign, and what follows is read.
    EXPECT_EQ(decoded("euc-jp", "a\xFF\xA4\xA2"), "a\uFFFDあ");
    EXPECT_EQ(decoded("utf-16le", std::string("a\0b", 3)), "a\uFFFD");
}

TEST(TextDecoder, OneWrongByteChangesItsLineOnly) {
    zr::TextDecoder decoder("utf-8");
    std::string out;
    decoder.decode("J\xC3\xB6rg\nJ\xF6rg\nJ\xC3\xB6rg\n", out);
    decoder.finish(out);
    EXPECT_EQ(out, "Jörg\nJörg\nJörg\n");
}

TEST(HtmlText, ReadsLikeAPage) {
    EXPECT_EQ(page_text("<html><head><title>T</title><style>p {}</style></head><body><p>Hello,<br>\n  Jo &amp; "
                        "<b>Al</b>!</p><p>Bye</p></body></html>"),
              "Hello,\nJo & Al!\n\nBye\n");
    EXPECT_EQ(page_text("<ul><li>one<li>two</ul>"), "* one\n* two\n");
    EXPECT_EQ(page_text("<table><tr><td>a</td><td>b</td></tr><tr><td>c</td></tr></table>"), "a b\nc\n");
    EXPECT_EQ(page_text("<pre>a\n  b</pre>c  d"), "a\n  b\nc d\n");
    EXPECT_EQ(page_text("a<script>if (a < b) x(\"</p>\")</script>b"), "ab\n");
    EXPECT_EQ(page_text("a<!-- <p> -- > -->b"), "ab\n");
    EXPECT_EQ(page_text("<a href=\"x>y\" title='>'>link</a>"), "link\n");
    EXPECT_EQ(page_text(""), "");
    EXPECT_EQ(page_text("<p></p>"), "");
}

TEST(HtmlText, ReferencesAreCharacters) {
    EXPECT_EQ(page_text("&lt;b&gt; &#233;&#xE9;&eacute; &euro;"), "<b> ééé €\n");
    EXPECT_EQ(page_text("AT&T &unknown; & &#; &#xD800; &#99999999;"), "AT&T &unknown; & &#; \uFFFD \uFFFD\n");
    EXPECT_EQ(page_text("a&nbsp;b&amp"), "a b&\n");
    EXPECT_EQ(page_text("&aaaaaaaaaaaaaaaaaaaa;"), "&aaaaaaaaaaaaaaaaaaaa;\n");
}

TEST(HtmlText, WhatIsNoHtmlIsText) {
    EXPECT_EQ(page_text("1 < 2 and 3 > 2"), "1 < 2 and 3 > 2\n");
    EXPECT_EQ(page_text("a <"), "a <\n");
    EXPECT_EQ(page_text("<script>never closed"), "");
}

}  // namespace
}  // namespace text_test
