#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>

#include "platform/base.h"
#include "support/text.h"

namespace {

using zr::test::widen;

TEST(WideNumber, Decimal) {
    EXPECT_EQ(_wtol(u"0"), 0);
    EXPECT_EQ(_wtol(u" \t\x3000-42abc"), -42);
    EXPECT_EQ(_wtol(u"+7"), 7);
    EXPECT_EQ(_wtol(u""), 0);
    EXPECT_EQ(_wtol(u"abc"), 0);
    EXPECT_EQ(_wtol(u"- 1"), 0);
    EXPECT_EQ(_wtol(u"+-1"), 0);
    EXPECT_EQ(_wtol(u"0x10"), 0);
    EXPECT_EQ(_wtol(u"010"), 10);
    EXPECT_EQ(_wtoi(u"123"), 123);
}

TEST(WideNumber, OutOfRangeIsTheNearest) {
    EXPECT_EQ(_wtol(u"2147483647"), 2147483647);
    EXPECT_EQ(_wtol(u"2147483648"), 2147483647);
    EXPECT_EQ(_wtol(u"-2147483648"), std::numeric_limits<LONG>::min());
    EXPECT_EQ(_wtol(u"-9999999999999999999999999"), std::numeric_limits<LONG>::min());
    EXPECT_EQ(_wtol(u"99999999999999999999999999"), std::numeric_limits<LONG>::max());
    EXPECT_EQ(_wtoi64(u"-9223372036854775808"), std::numeric_limits<LONGLONG>::min());
    EXPECT_EQ(_wtoi64(u"9223372036854775808"), std::numeric_limits<LONGLONG>::max());
    EXPECT_EQ(_wtoi64(u"-9223372036854775809"), std::numeric_limits<LONGLONG>::min());
}

TEST(WideNumber, Bases) {
    WCHAR* end = nullptr;
    const WCHAR* const hex = u"0x1Fg";
    EXPECT_EQ(wcstol(hex, &end, 0), 31);
    EXPECT_EQ(end, hex + 4);
    EXPECT_EQ(wcstol(u"1F", nullptr, 16), 31);
    EXPECT_EQ(wcstol(u"017", nullptr, 0), 15);
    EXPECT_EQ(wcstol(u"-zz", nullptr, 36), -1295);
    const WCHAR* const bare = u"0xg";
    EXPECT_EQ(wcstol(bare, &end, 16), 0);
    EXPECT_EQ(end, bare + 1);
    const WCHAR* const none = u"  q";
    EXPECT_EQ(wcstol(none, &end, 10), 0);
    EXPECT_EQ(end, none);
    EXPECT_EQ(wcstol(none, &end, 1), 0);
    EXPECT_EQ(end, none);
    EXPECT_EQ(wcstol(u"5", &end, 37), 0);
}

TEST(WideNumber, Unsigned) {
    EXPECT_EQ(wcstoul(u"4294967295", nullptr, 10), 4294967295u);
    EXPECT_EQ(wcstoul(u"4294967296", nullptr, 10), 4294967295u);
    EXPECT_EQ(wcstoul(u"-1", nullptr, 10), 4294967295u);
    EXPECT_EQ(wcstoul(u"ffFF0000", nullptr, 16), 0xFFFF0000u);
}

TEST(WideNumber, WritesIntegers) {
    WCHAR text[66];
    EXPECT_EQ(std::u16string(_itow(-42, text, 10)), u"-42");
    EXPECT_EQ(std::u16string(_itow(-1, text, 16)), u"ffffffff");
    EXPECT_EQ(std::u16string(_ltow(0, text, 2)), u"0");
    EXPECT_EQ(std::u16string(_ltow(std::numeric_limits<LONG>::min(), text, 10)), u"-2147483648");
    EXPECT_EQ(std::u16string(_ultow(4294967295u, text, 36)), u"1z141z3");
    EXPECT_EQ(std::u16string(_i64tow(std::numeric_limits<LONGLONG>::min(), text, 10)), u"-9223372036854775808");
    EXPECT_EQ(std::u16string(_ui64tow(std::numeric_limits<ULONGLONG>::max(), text, 2)), std::u16string(64, u'1'));
    EXPECT_EQ(std::u16string(_itow(5, text, 1)), u"");
    EXPECT_EQ(std::u16string(_itow(5, text, 37)), u"");
}

TEST(WideNumber, AgreesWithTheCLibraryOnRandomText) {
    std::mt19937 random(3);
    const char letters[] = "0123456789abcXx-+ zZ";
    for (int i = 0; i < 50000; ++i) {
        std::string text(random() % 10, '0');
        for (char& character : text) {
            character = letters[random() % (sizeof letters - 1)];
        }
        const int bases[] = {0, 2, 8, 10, 16, 36};
        const int base = bases[random() % std::size(bases)];
        // From C23 on this is how binary numbers begin.
        if ((base == 0 || base == 2) && text.find("0b") != std::string::npos) continue;
        char* narrow_end = nullptr;
        const long long expected = std::strtoll(text.c_str(), &narrow_end, base);
        const std::u16string wide = widen(text);
        WCHAR* end = nullptr;
        const LONG clamped = static_cast<LONG>(std::max<long long>(
            std::min<long long>(expected, std::numeric_limits<LONG>::max()), std::numeric_limits<LONG>::min()));
        EXPECT_EQ(wcstol(wide.c_str(), &end, base), clamped) << text << " base " << base;
        EXPECT_EQ(end - wide.c_str(), narrow_end - text.c_str()) << text << " base " << base;
    }
}

TEST(WideNumber, WhatIsWrittenReadsBack) {
    std::mt19937_64 random(4);
    for (int i = 0; i < 20000; ++i) {
        const auto value = static_cast<LONG>(random());
        WCHAR text[34];
        EXPECT_EQ(_wtol(_ltow(value, text, 10)), value);
        const int base = static_cast<int>(2 + random() % 35);
        EXPECT_EQ(wcstoul(_ultow(static_cast<ULONG>(value), text, base), nullptr, base), static_cast<ULONG>(value));
    }
}

}  // namespace
