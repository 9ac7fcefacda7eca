#include "zr/mail/html_charset.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using zr::html_charset;

TEST(HtmlCharset, IsThatOfAMark) {
    EXPECT_EQ(html_charset("\xEF\xBB\xBF<meta charset=koi8-r>"), "utf-8");
    EXPECT_EQ(html_charset(std::string("\xFF\xFE<\0", 4)), "utf-16le");
    EXPECT_EQ(html_charset(std::string("\xFE\xFF\0<", 4)), "utf-16be");
}

TEST(HtmlCharset, IsThatOfAMetaElement) {
    EXPECT_EQ(html_charset("<html><META CharSet = 'KOI8-R'>"), "koi8-r");
    EXPECT_EQ(html_charset("<meta charset=\"iso-8859-2\"/>"), "iso-8859-2");
    EXPECT_EQ(html_charset("<meta charset=gb18030>"), "gb18030");
    EXPECT_EQ(html_charset("<meta/charset=gb18030/>"), "gb18030");
    EXPECT_EQ(html_charset("<meta http-equiv=Content-Type content=\"text/html; charset=Shift_JIS\">"), "shift_jis");
    EXPECT_EQ(html_charset("<meta name=charset content=x><meta charset=big5>"), "big5");
    EXPECT_EQ(html_charset("<meta charset=utf-16>"), "utf-8");
}

TEST(HtmlCharset, IsNone) {
    EXPECT_EQ(html_charset(""), "");
    EXPECT_EQ(html_charset("<"), "");
    EXPECT_EQ(html_charset("<meta"), "");
    EXPECT_EQ(html_charset("<meta charset"), "");
    EXPECT_EQ(html_charset("<meta charset= "), "");
    EXPECT_EQ(html_charset("<metal charset=big5>"), "");
    EXPECT_EQ(html_charset("<p>charset=big5</p>"), "");
    EXPECT_EQ(html_charset("<!-- <meta charset=big5> --><meta charset=big6>"), "big6");
    EXPECT_EQ(html_charset("<!-- <meta charset=big5>"), "");
    EXPECT_EQ(html_charset(std::string(1024, ' ') + "<meta charset=big5>"), "");
}

}  // namespace
