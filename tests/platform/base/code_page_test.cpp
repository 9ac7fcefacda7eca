#include <gtest/gtest.h>

#include <string>

#include "platform/base.h"

namespace {

std::u16string decode(UINT page, const std::string& text, DWORD flags = 0) {
    const int needed = MultiByteToWideChar(page, flags, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::u16string wide(static_cast<std::size_t>(needed), u'?');
    EXPECT_EQ(MultiByteToWideChar(page, flags, text.data(), static_cast<int>(text.size()), wide.data(), needed),
              needed);
    return wide;
}

std::string encode(UINT page, const std::u16string& wide, DWORD flags = 0) {
    const int length = static_cast<int>(wide.size());
    const int needed = WideCharToMultiByte(page, flags, wide.data(), length, nullptr, 0, nullptr, nullptr);
    std::string text(static_cast<std::size_t>(needed), '!');
    EXPECT_EQ(WideCharToMultiByte(page, flags, wide.data(), length, text.data(), needed, nullptr, nullptr), needed);
    return text;
}

TEST(CodePage, Utf8) {
    EXPECT_EQ(decode(CP_UTF8, "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80z"), u"a\xE9\x4E2D\xD83D\xDE00z");
    EXPECT_EQ(encode(CP_UTF8, u"a\xE9\x4E2D\xD83D\xDE00z"), "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80z");
    EXPECT_EQ(decode(CP_UTF8, "long enough to take the fast path \xC3\xBC and back"),
              u"long enough to take the fast path \xFC and back");
}

TEST(CodePage, DamagedUtf8IsReplacedPartByPart) {
    EXPECT_EQ(decode(CP_UTF8,
                     "a\xFF"
                     "b"),
              u"a\xFFFD"
              u"b");
    EXPECT_EQ(decode(CP_UTF8, "\xC3"), u"\xFFFD");
    EXPECT_EQ(decode(CP_UTF8, "\xE4\xB8x"), u"\xFFFDx");
    EXPECT_EQ(decode(CP_UTF8, "\xF0\x9F\x98x"), u"\xFFFDx");
    EXPECT_EQ(decode(CP_UTF8, "\xC0\xAF"), u"\xFFFD\xFFFD") << "overlong";
    EXPECT_EQ(decode(CP_UTF8, "\xE0\x80\xAF"), u"\xFFFD\xFFFD\xFFFD");
    EXPECT_EQ(decode(CP_UTF8, "\xED\xA0\x80"), u"\xFFFD\xFFFD\xFFFD") << "a spelled surrogate";
    EXPECT_EQ(decode(CP_UTF8, "\xF4\x90\x80\x80"), u"\xFFFD\xFFFD\xFFFD\xFFFD");
    EXPECT_EQ(encode(CP_UTF8,
                     u"a\xD800"
                     u"b\xDC00"),
              "a\xEF\xBF\xBD"
              "b\xEF\xBF\xBD");
}

TEST(CodePage, DamageCanBeRefused) {
    SetLastError(0);
    WCHAR wide[4];
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, "a\xFF", 2, wide, 4), 0);
    EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, "ab", 2, wide, 4), 2);
    char text[8];
    SetLastError(0);
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, u"\xD800", 1, text, 8, nullptr, nullptr), 0);
    EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
}

TEST(CodePage, EveryByteOf1252ComesBack) {
    for (const UINT page : {CP_ACP, UINT{1252}}) {
        std::string all(256, '\0');
        for (int i = 0; i < 256; ++i) {
            all[static_cast<std::size_t>(i)] = static_cast<char>(i);
        }
        const std::u16string wide = decode(page, all);
        EXPECT_EQ(wide.size(), 256u);
        EXPECT_EQ(encode(page, wide), all);
        EXPECT_EQ(wide[0x80], u'\x20AC');
        EXPECT_EQ(wide[0x81], u'\x81');
        EXPECT_EQ(wide[0x9F], u'\x178');
        EXPECT_EQ(wide[0xE9], u'\xE9');
    }
}

TEST(CodePage, WhatIsNotIn1252BecomesWhatFitsBest) {
    const auto narrow = [](const std::u16string& wide, DWORD flags, BOOL& used) {
        char text[64] = {};
        const int length =
            WideCharToMultiByte(1252, flags, wide.c_str(), static_cast<int>(wide.size()), text, 64, "#", &used);
        return std::string(text, static_cast<std::size_t>(length));
    };
    const std::u16string wide = u"\x100\x142\x111\x159 \xFF21\xFF5E \x2212\x2215\x3000\x2080 \x3A9\x3C0 \x130\x131";
    BOOL used = TRUE;
    EXPECT_EQ(narrow(wide, 0, used), "Aldr A~ -/ 0 Op Ii");
    EXPECT_FALSE(used);
    EXPECT_EQ(narrow(wide, WC_NO_BEST_FIT_CHARS, used), "#### ## #### ## ##");
    EXPECT_TRUE(used);
    EXPECT_EQ(narrow(u"\x152\x178\x17E\x20AC\x192", WC_NO_BEST_FIT_CHARS, used), "\x8C\x9F\x9E\x80\x83");
    EXPECT_FALSE(used);
    EXPECT_EQ(narrow(u"\x416\x4E2D\x133\x17F\xD83D\xDE00", 0, used), "######");  // nothing fits these
    EXPECT_TRUE(used);
    // What 1252 has is never replaced, and all of the rest is the same byte, or none, whatever stands around it.
    for (unsigned code = 0; code < 0x10000; ++code) {
        const std::u16string one(1, static_cast<WCHAR>(code));
        const std::string exact = narrow(one, WC_NO_BEST_FIT_CHARS, used);
        const bool has = !used;
        EXPECT_TRUE(!has || narrow(one, 0, used) == exact) << std::hex << code;
    }
}

TEST(CodePage, WhatIsNotIn1252IsReplaced) {
    char text[4] = {};
    BOOL used = FALSE;
    EXPECT_EQ(WideCharToMultiByte(1252, 0, u"a\x4E2D", 3, text, 4, "#", &used), 3);
    EXPECT_STREQ(text, "a#");
    EXPECT_TRUE(used);
    EXPECT_EQ(WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, u"\x100", -1, text, 4, nullptr, &used), 2);
    EXPECT_STREQ(text, "?");
    EXPECT_EQ(WideCharToMultiByte(1252, 0, u"\x20AC", -1, text, 4, nullptr, &used), 2);
    EXPECT_STREQ(text, "\x80");
    EXPECT_FALSE(used);
}

TEST(CodePage, LengthMinusOneTakesTheTerminatorAlong) {
    WCHAR wide[4] = {9, 9, 9, 9};
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "ab", -1, wide, 4), 3);
    EXPECT_EQ(std::u16string(wide, 4), std::u16string(u"ab\0\t", 4));
    char text[4] = {9, 9, 9, 9};
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, u"ab", -1, text, 4, nullptr, nullptr), 3);
    EXPECT_EQ(std::string(text, 4), std::string("ab\0\t", 4));
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "abc", 2, wide, 4), 2) << "no terminator is added";
}

TEST(CodePage, TooLittleRoom) {
    WCHAR wide[3] = {9, 9, 9};
    SetLastError(0);
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "abcd", 4, wide, 2), 0);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(wide[2], 9);
    char text[3] = {9, 9, 9};
    SetLastError(0);
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, u"a\x4E2D", 2, text, 2, nullptr, nullptr), 0);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(text[2], 9);
}

TEST(CodePage, WrongArguments) {
    WCHAR wide[4];
    char text[4] = "abc";
    BOOL used = FALSE;
    const auto refused = [](int result, DWORD error) {
        const DWORD found = GetLastError();
        SetLastError(0);
        return result == 0 && found == error;
    };
    EXPECT_TRUE(refused(MultiByteToWideChar(CP_UTF8, 0, nullptr, 1, wide, 4), ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(refused(MultiByteToWideChar(CP_UTF8, 0, text, 0, wide, 4), ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(refused(MultiByteToWideChar(CP_UTF8, 0, text, -2, wide, 4), ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(refused(MultiByteToWideChar(CP_UTF8, 0, text, 1, wide, -1), ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(refused(MultiByteToWideChar(CP_UTF8, 0, text, 1, nullptr, 4), ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(refused(MultiByteToWideChar(932, 0, text, 1, wide, 4), ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(refused(MultiByteToWideChar(CP_UTF8, MB_PRECOMPOSED, text, 1, wide, 4), ERROR_INVALID_FLAGS));
    EXPECT_TRUE(refused(MultiByteToWideChar(CP_ACP, 0x100, text, 1, wide, 4), ERROR_INVALID_FLAGS));
    EXPECT_TRUE(refused(WideCharToMultiByte(CP_UTF8, 0, u"a", 1, text, 4, "?", nullptr), ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(refused(WideCharToMultiByte(CP_UTF8, 0, u"a", 1, text, 4, nullptr, &used), ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(refused(WideCharToMultiByte(1252, WC_ERR_INVALID_CHARS, u"a", 1, text, 4, nullptr, nullptr),
                        ERROR_INVALID_FLAGS));
    EXPECT_TRUE(refused(WideCharToMultiByte(77, 0, u"a", 1, text, 4, nullptr, nullptr), ERROR_INVALID_PARAMETER));
    EXPECT_EQ(MultiByteToWideChar(CP_ACP, MB_PRECOMPOSED, text, 1, wide, 4), 1);
}

}  // namespace
