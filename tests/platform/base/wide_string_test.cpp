#include <gtest/gtest.h>

#include <cstdlib>
#include <cwchar>
#include <random>
#include <string>

#include "platform/base.h"

namespace {

int sign(int value) {
    return (value > 0) - (value < 0);
}

std::u16string random_text(std::mt19937& random, std::size_t most) {
    std::u16string text(random() % (most + 1), u'a');
    for (char16_t& character : text) {
        character = static_cast<char16_t>(u'a' + random() % 3);
    }
    return text;
}

TEST(WideString, Length) {
    EXPECT_EQ(wcslen(u""), 0u);
    EXPECT_EQ(wcslen(u"abc"), 3u);
    EXPECT_EQ(wcslen(u"\xD83D\xDE00"), 2u);
    EXPECT_EQ(wcsnlen(u"abc", 2), 2u);
    EXPECT_EQ(wcsnlen(u"abc", 9), 3u);
}

TEST(WideString, TheCLibrarysOwnNamesStayReachable) {
    EXPECT_EQ(wcslen(L"abcd"), 4u);
    EXPECT_NE(iswalpha(L'a'), 0);
    EXPECT_EQ(towlower(L'A'), std::wint_t{L'a'});
}

TEST(WideString, CopyReturnsItsTargetAndTerminates) {
    WCHAR buffer[8] = u"xxxxxxx";
    EXPECT_EQ(wcscpy(buffer, u"abc"), buffer);
    EXPECT_EQ(std::u16string(buffer), u"abc");
    EXPECT_EQ(wcscat(buffer, u"de"), buffer);
    EXPECT_EQ(std::u16string(buffer), u"abcde");
    EXPECT_EQ(wcsncat(buffer, u"fghi", 1), buffer);
    EXPECT_EQ(std::u16string(buffer), u"abcdef");
}

TEST(WideString, CountedCopyPadsAndDoesNotTerminateWhatFillsIt) {
    WCHAR buffer[6] = {1, 1, 1, 1, 1, 1};
    wcsncpy(buffer, u"ab", 5);
    EXPECT_EQ(std::u16string(buffer, 6), std::u16string(u"ab\0\0\0\1", 6));
    wcsncpy(buffer, u"uvwxyz", 3);
    EXPECT_EQ(std::u16string(buffer, 4), std::u16string(u"uvw\0", 4));
}

TEST(WideString, ComparesByUnsignedUnit) {
    EXPECT_EQ(wcscmp(u"abc", u"abc"), 0);
    EXPECT_LT(wcscmp(u"ab", u"abc"), 0);
    EXPECT_GT(wcscmp(u"\xFFFD", u"a"), 0);
    EXPECT_GT(wcscmp(u"\xE000", u"\xD83D\xDE00"), 0);
    EXPECT_EQ(wcsncmp(u"abx", u"aby", 2), 0);
    EXPECT_LT(wcsncmp(u"abx", u"aby", 3), 0);
    EXPECT_EQ(wcsncmp(u"ab", u"ab", 99), 0);
    EXPECT_EQ(wcsncmp(u"a", u"b", 0), 0);
}

TEST(WideString, Searches) {
    const WCHAR* const text = u"abcabc";
    EXPECT_EQ(wcschr(text, u'b'), text + 1);
    EXPECT_EQ(wcschr(text, u'\0'), text + 6);
    EXPECT_EQ(wcschr(text, u'x'), nullptr);
    EXPECT_EQ(wcsrchr(text, u'b'), text + 4);
    EXPECT_EQ(wcsrchr(text, u'\0'), text + 6);
    EXPECT_EQ(wcsrchr(text, u'x'), nullptr);
    EXPECT_EQ(wcsstr(text, u"ca"), text + 2);
    EXPECT_EQ(wcsstr(text, u""), text);
    EXPECT_EQ(wcsstr(text, u"cab "), nullptr);
    EXPECT_EQ(wcspbrk(text, u"xc"), text + 2);
    EXPECT_EQ(wcspbrk(text, u"x"), nullptr);
    EXPECT_EQ(wcscspn(text, u"c"), 2u);
    EXPECT_EQ(wcsspn(text, u"ab"), 2u);
    WCHAR writable[] = u"a-b";
    *wcschr(writable, u'-') = u'+';
    EXPECT_EQ(std::u16string(writable), u"a+b");
}

TEST(WideString, TokensSkipRunsOfDelimiters) {
    WCHAR text[] = u",,a,b;;c,";
    EXPECT_EQ(std::u16string(wcstok(text, u",;")), u"a");
    EXPECT_EQ(std::u16string(wcstok(nullptr, u",;")), u"b");
    EXPECT_EQ(std::u16string(wcstok(nullptr, u",;")), u"c");
    EXPECT_EQ(wcstok(nullptr, u",;"), nullptr);
    EXPECT_EQ(wcstok(nullptr, u",;"), nullptr);
}

TEST(WideString, TokensWithAContextNest) {
    WCHAR outer[] = u"a b";
    WCHAR inner[] = u"1 2";
    WCHAR* outer_context = nullptr;
    WCHAR* inner_context = nullptr;
    EXPECT_EQ(std::u16string(wcstok(outer, u" ", &outer_context)), u"a");
    EXPECT_EQ(std::u16string(wcstok(inner, u" ", &inner_context)), u"1");
    EXPECT_EQ(std::u16string(wcstok(nullptr, u" ", &outer_context)), u"b");
    EXPECT_EQ(std::u16string(wcstok(nullptr, u" ", &inner_context)), u"2");
    EXPECT_EQ(wcstok(nullptr, u" ", &outer_context), nullptr);
}

TEST(WideString, Memory) {
    WCHAR buffer[5] = {};
    EXPECT_EQ(wmemcpy(buffer, u"abcd", 5), buffer);
    wmemmove(buffer + 1, buffer, 3);
    EXPECT_EQ(std::u16string(buffer), u"aabc");
    wmemset(buffer, u'z', 2);
    EXPECT_EQ(std::u16string(buffer), u"zzbc");
    EXPECT_EQ(wmemcmp(u"a\0b", u"a\0b", 3), 0);
    EXPECT_LT(wmemcmp(u"a\0b", u"a\0c", 3), 0);
}

TEST(WideString, Duplicate) {
    WCHAR* const copy = _wcsdup(u"text");
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(std::u16string(copy), u"text");
    std::free(copy);
    EXPECT_EQ(_wcsdup(nullptr), nullptr);
}

TEST(WideString, AgreesWithTheStandardStringOnRandomText) {
    std::mt19937 random(1);
    for (int i = 0; i < 20000; ++i) {
        const std::u16string a = random_text(random, 9);
        const std::u16string b = random_text(random, 3);
        EXPECT_EQ(sign(wcscmp(a.c_str(), b.c_str())), sign(a.compare(b)));
        const std::size_t count = random() % 5;
        EXPECT_EQ(sign(wcsncmp(a.c_str(), b.c_str(), count)), sign(a.substr(0, count).compare(b.substr(0, count))));
        const std::size_t at = a.find(b);
        EXPECT_EQ(wcsstr(a.c_str(), b.c_str()), at == std::u16string::npos ? nullptr : a.c_str() + at);
        EXPECT_EQ(wcscspn(a.c_str(), b.c_str()), std::min(a.find_first_of(b), a.size()));
        EXPECT_EQ(wcsspn(a.c_str(), b.c_str()), std::min(a.find_first_not_of(b), a.size()));
    }
}

}  // namespace
