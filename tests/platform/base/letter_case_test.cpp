#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "platform/base.h"

namespace {

constexpr unsigned kPlane = 0x10000;

WCHAR unit(unsigned value) {
    return static_cast<WCHAR>(value);
}

// A run of capitals and the run of small letters that they fold to.
struct Range {
    unsigned first;
    unsigned last;
    unsigned small;
};

TEST(LetterCase, FoldsTheAlphabets) {
    const Range ranges[] = {
        {u'A', u'Z', u'a'},        // ASCII
        {0xC0, 0xD6, 0xE0},        // Latin-1
        {0xD8, 0xDE, 0xF8},        // Latin-1
        {0x391, 0x3A1, 0x3B1},     // Greek
        {0x3A3, 0x3AB, 0x3C3},     // Greek
        {0x410, 0x42F, 0x430},     // Cyrillic
        {0x400, 0x40F, 0x450},     // Cyrillic
        {0x531, 0x556, 0x561},     // Armenian
        {0x10A0, 0x10C5, 0x2D00},  // Georgian, old capitals
        {0x1C90, 0x1CBA, 0x10D0},  // Georgian, new capitals
        {0x2160, 0x216F, 0x2170},  // Roman numerals
        {0x24B6, 0x24CF, 0x24D0},  // circled letters
        {0x2C00, 0x2C2F, 0x2C30},  // Glagolitic
        {0xAB70, 0xABBF, 0x13A0},  // Cherokee folds to its capitals
        {0x13F8, 0x13FD, 0x13F0},  // Cherokee
        {0xFF21, 0xFF3A, 0xFF41},  // full width
    };
    for (const Range& range : ranges) {
        for (unsigned code = range.first; code <= range.last; ++code) {
            EXPECT_EQ(towlower(unit(code)), unit(range.small + code - range.first)) << std::hex << code;
        }
    }
}

TEST(LetterCase, FoldsTheSingularLetters) {
    const unsigned pairs[][2] = {{0x1E9E, 0xDF},   {0x3C2, 0x3C3},   {0x17F, u's'},    {0x212A, u'k'}, {0x212B, 0xE5},
                                 {0x2126, 0x3C9},  {0xB5, 0x3BC},    {0x1FBE, 0x3B9},  {0x178, 0xFF},  {0x130, 0x130},
                                 {0x131, 0x131},   {0xDF, 0xDF},     {0x1C5, 0x1C6},   {0x1C4, 0x1C6}, {0x1F88, 0x1F80},
                                 {0xA64A, 0xA64B}, {0x1C88, 0xA64B}, {0x4E00, 0x4E00}, {0xD7, 0xD7},   {0xF7, 0xF7},
                                 {0x2C2F, 0x2C5F}, {0xA7C0, 0xA7C1}};
    for (const auto& pair : pairs) {
        EXPECT_EQ(towlower(unit(pair[0])), unit(pair[1])) << std::hex << pair[0];
    }
}

TEST(LetterCase, FoldingIsDoneInOneStepAndLeavesSurrogatesAlone) {
    for (unsigned code = 0; code < kPlane; ++code) {
        const WCHAR lower = towlower(unit(code));
        EXPECT_EQ(towlower(lower), lower) << std::hex << code;
        if (code >= 0xD800 && code <= 0xDFFF) {
            EXPECT_EQ(lower, unit(code));
            EXPECT_EQ(towupper(unit(code)), unit(code));
        }
    }
}

// The whole table against the data it was made from, where the machine has that data in the same version.
TEST(LetterCase, IsTheWholeSimpleCaseFolding) {
    std::ifstream data("/usr/share/unicode/CaseFolding.txt");
    std::string line;
    std::getline(data, line);
    if (line != "# CaseFolding-15.0.0.txt") GTEST_SKIP() << "no Unicode 15.0 data on this machine";
    std::vector<WCHAR> expected(kPlane);
    for (unsigned code = 0; code < kPlane; ++code) {
        expected[code] = unit(code);
    }
    while (std::getline(data, line)) {
        unsigned code = 0;
        unsigned target = 0;
        char status = 0;
        if (std::sscanf(line.c_str(), "%x; %c; %x;", &code, &status, &target) != 3 || code >= kPlane) continue;
        if (status == 'C' || status == 'S') expected[code] = unit(target);
    }
    for (unsigned code = 0; code < kPlane; ++code) {
        EXPECT_EQ(towlower(unit(code)), expected[code]) << std::hex << code;
    }
}

TEST(LetterCase, Upper) {
    EXPECT_EQ(towupper(u'z'), u'Z');
    EXPECT_EQ(towupper(u'\xE9'), u'\xC9');
    EXPECT_EQ(towupper(u'\xDF'), u'\xDF');
    EXPECT_EQ(towupper(u'\xFF'), u'\x178');
    EXPECT_EQ(towupper(u'\x131'), u'I');
    EXPECT_EQ(towupper(u'\x3C2'), u'\x3A3');
    EXPECT_EQ(towupper(u'\x44F'), u'\x42F');
    EXPECT_EQ(towupper(u'1'), u'1');
}

// Apart from the dotless i, whose capital is I, upper-casing never changes what a text compares equal to.
TEST(LetterCase, UpperCasingAgreesWithFolding) {
    for (unsigned code = 0; code < kPlane; ++code) {
        if (code == 0x131) continue;
        EXPECT_EQ(towlower(towupper(unit(code))), towlower(unit(code))) << std::hex << code;
    }
}

TEST(LetterCase, ComparesIgnoringCase) {
    EXPECT_EQ(_wcsicmp(u"Stra\xDF"
                       u"E",
                       u"sTRA\xDF"
                       u"e"),
              0);
    EXPECT_EQ(_wcsicmp(u"\x0416\x0418", u"\x0436\x0438"), 0);
    EXPECT_LT(_wcsicmp(u"ab", u"ABC"), 0);
    EXPECT_GT(_wcsicmp(u"ABC", u"ab"), 0);
    EXPECT_LT(_wcsicmp(u"_", u"A"), 0) << "by the lower-cased values";
    EXPECT_EQ(_wcsicmp(u"", u""), 0);
    EXPECT_EQ(_wcsnicmp(u"ABx", u"aby", 2), 0);
    EXPECT_NE(_wcsnicmp(u"ABx", u"aby", 3), 0);
    EXPECT_EQ(_wcsnicmp(u"a", u"b", 0), 0);
    EXPECT_EQ(_wcsnicmp(u"ab", u"AB", 1000), 0);
}

TEST(LetterCase, EqualIgnoringCaseIsEqualAfterLowerCasing) {
    std::mt19937 random(2);
    const WCHAR letters[] = u"aAbB\xE9\xC9kK\x212As\x17F\x3C3\x3C2\x3A3";
    for (int i = 0; i < 50000; ++i) {
        std::u16string a(random() % 4, u'a');
        std::u16string b(random() % 4, u'a');
        for (std::u16string* const text : {&a, &b}) {
            for (char16_t& character : *text) {
                const bool any = random() % 8 == 0;
                character = any ? unit(static_cast<unsigned>(1 + random() % (kPlane - 1)))
                                : letters[random() % (std::size(letters) - 1)];
            }
        }
        std::u16string low_a = a;
        std::u16string low_b = b;
        EXPECT_EQ(CharLowerBuffW(low_a.data(), static_cast<DWORD>(low_a.size())), low_a.size());
        _wcslwr(low_b.data());
        EXPECT_EQ(_wcsicmp(a.c_str(), b.c_str()) == 0, low_a == low_b);
        EXPECT_EQ(_wcsicmp(a.c_str(), b.c_str()) < 0, low_a < low_b);
        EXPECT_EQ(_wcsnicmp(a.c_str(), b.c_str(), 2) == 0, low_a.substr(0, 2) == low_b.substr(0, 2));
    }
}

TEST(LetterCase, BuffersAreChangedOverTheirWholeLength) {
    WCHAR text[] = u"AB\0CD";
    EXPECT_EQ(CharLowerBuffW(text, 5), 5u);
    EXPECT_EQ(std::u16string(text, 5), std::u16string(u"ab\0cd", 5));
    EXPECT_EQ(CharUpperBuffW(text, 4), 4u);
    EXPECT_EQ(std::u16string(text, 5), std::u16string(u"AB\0Cd", 5));
    EXPECT_EQ(CharLowerBuffW(nullptr, 3), 0u);
    EXPECT_EQ(CharUpperBuffW(nullptr, 3), 0u);
}

TEST(LetterCase, StringsAndSingleCharacters) {
    WCHAR text[] = u"\xC9t\xC9";
    EXPECT_EQ(CharLowerW(text), text);
    EXPECT_EQ(std::u16string(text), u"\xE9t\xE9");
    EXPECT_EQ(CharUpperW(text), text);
    EXPECT_EQ(std::u16string(text), u"\xC9T\xC9");
    const auto single = [](unsigned value) { return reinterpret_cast<WCHAR*>(static_cast<ULONG_PTR>(value)); };
    EXPECT_EQ(CharLowerW(single(0x416)), single(0x436));
    EXPECT_EQ(CharUpperW(single(0x436)), single(0x416));
    EXPECT_EQ(CharLowerW(nullptr), nullptr);
    WCHAR upper[] =
        u"stra\xDF"
        u"e";
    EXPECT_EQ(std::u16string(_wcsupr(upper)),
              u"STRA\xDF"
              u"E");
}

TEST(LetterCase, NarrowComparesAsciiLetters) {
    EXPECT_EQ(_stricmp("Content-Type", "content-tYPE"), 0);
    EXPECT_LT(_stricmp("a", "B"), 0);
    EXPECT_GT(_stricmp("\xE9", "z"), 0);
    EXPECT_NE(_stricmp("\xE9", "\xC9"), 0);
    EXPECT_EQ(_strnicmp("ABx", "aby", 2), 0);
    EXPECT_EQ(_strnicmp("x", "y", 0), 0);
    EXPECT_NE(_stricmp("@", "`"), 0);
}

TEST(CharacterClass, Space) {
    std::u16string spaces;
    for (unsigned code = 0; code < kPlane; ++code) {
        if (iswspace(unit(code)) != 0) spaces.push_back(unit(code));
    }
    EXPECT_EQ(spaces,
              u"\t\n\v\f\r \x85\xA0\x1680\x2000\x2001\x2002\x2003\x2004\x2005\x2006\x2007\x2008\x2009\x200A\x2028\x2029"
              u"\x202F\x205F\x3000");
    EXPECT_EQ(iswspace(u' '), 8) << "the platform's own class bit";
}

TEST(CharacterClass, Ascii) {
    for (unsigned code = 0; code < 0x80; ++code) {
        const WCHAR wide = unit(code);
        const int narrow = static_cast<int>(code);
        EXPECT_EQ(iswalpha(wide) != 0, std::isalpha(narrow) != 0) << code;
        EXPECT_EQ(iswdigit(wide) != 0, std::isdigit(narrow) != 0) << code;
        EXPECT_EQ(iswxdigit(wide) != 0, std::isxdigit(narrow) != 0) << code;
        EXPECT_EQ(iswalnum(wide) != 0, std::isalnum(narrow) != 0) << code;
        EXPECT_EQ(iswupper(wide) != 0, std::isupper(narrow) != 0) << code;
        EXPECT_EQ(iswlower(wide) != 0, std::islower(narrow) != 0) << code;
        EXPECT_EQ(iswpunct(wide) != 0, std::ispunct(narrow) != 0) << code;
        EXPECT_EQ(iswcntrl(wide) != 0, std::iscntrl(narrow) != 0) << code;
        EXPECT_EQ(iswprint(wide) != 0, std::isprint(narrow) != 0) << code;
        EXPECT_EQ(iswspace(wide) != 0, std::isspace(narrow) != 0) << code;
    }
}

TEST(CharacterClass, BeyondAscii) {
    EXPECT_TRUE(iswalpha(u'\xE9') && iswlower(u'\xE9') && !iswupper(u'\xE9'));
    EXPECT_TRUE(iswalpha(u'\x416') && iswupper(u'\x416') && !iswlower(u'\x416'));
    EXPECT_TRUE(iswalpha(u'\x4E2D') && !iswupper(u'\x4E2D') && !iswlower(u'\x4E2D'));
    EXPECT_TRUE(iswalpha(u'\xAC00'));
    EXPECT_FALSE(iswdigit(u'\x665')) << "a digit is one that _wtol reads";
    EXPECT_TRUE(iswpunct(u'\x2014') && iswpunct(u'\x20AC'));
    EXPECT_TRUE(iswcntrl(u'\x81'));
    EXPECT_FALSE(iswprint(u'\xD800') || iswprint(u'\xE000') || iswalpha(u'\xDC00'));
}

TEST(CharacterClass, ArithmeticResultsMeanTheWideCharacter) {
    const WCHAR text[] = u"\xC9";
    EXPECT_EQ(towlower(text[0] + 0), u'\xE9');
    EXPECT_NE(iswalpha(text[0] + 0), 0);
}

}  // namespace
