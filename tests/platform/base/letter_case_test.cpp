#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "platform/base.h"

namespace {

constexpr unsigned kPlane = 0x10000;

WCHAR unit(unsigned value) {
    return static_cast<WCHAR>(value);
}

// A run of capitals and the run of their small letters.
struct Range {
    unsigned first;
    unsigned last;
    unsigned small;
};

TEST(LetterCase, LowersTheAlphabets) {
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
        {0x13A0, 0x13EF, 0xAB70},  // Cherokee
        {0x13F0, 0x13F5, 0x13F8},  // Cherokee
        {0xFF21, 0xFF3A, 0xFF41},  // full width
    };
    for (const Range& range : ranges) {
        for (unsigned code = range.first; code <= range.last; ++code) {
            EXPECT_EQ(towlower(unit(code)), unit(range.small + code - range.first)) << std::hex << code;
            EXPECT_EQ(towupper(unit(range.small + code - range.first)), unit(code)) << std::hex << code;
        }
    }
}

TEST(LetterCase, LettersWithoutAPartnerOfTheirOwnStay) {
    const unsigned alone[] = {0xB5,   0xDF,   0x130,  0x131,  0x17F,  0x1C5,  0x1C8,  0x1CB,
                              0x1F2,  0x3C2,  0x3D0,  0x3F4,  0x1C80, 0x1C88, 0x1E9B, 0x1E9E,
                              0x1FBE, 0x2126, 0x212A, 0x212B, 0x4E00, 0xD7,   0xF7,   0x345};
    for (const unsigned code : alone) {
        EXPECT_EQ(towlower(unit(code)), unit(code)) << std::hex << code;
        EXPECT_EQ(towupper(unit(code)), unit(code)) << std::hex << code;
    }
}

TEST(LetterCase, IsOneMapOfPairsGoneBothWays) {
    for (unsigned code = 0; code < kPlane; ++code) {
        const WCHAR lower = towlower(unit(code));
        const WCHAR upper = towupper(unit(code));
        EXPECT_TRUE(lower == unit(code) || upper == unit(code)) << std::hex << code;
        EXPECT_EQ(towupper(lower), upper) << std::hex << code;
        EXPECT_EQ(towlower(upper), lower) << std::hex << code;
        EXPECT_FALSE(lower != unit(code) && iswlower(unit(code))) << std::hex << code;
        EXPECT_FALSE(upper != unit(code) && iswupper(unit(code))) << std::hex << code;
        const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
        EXPECT_FALSE(surrogate && (lower != unit(code) || upper != unit(code))) << std::hex << code;
    }
}

// Every unit beside its small and its capital letter, and beside what comes next to these.
TEST(LetterCase, EveryFunctionGoesByThatMap) {
    for (unsigned code = 1; code < kPlane; ++code) {
        const WCHAR self = unit(code);
        const WCHAR lower = towlower(self);
        const WCHAR upper = towupper(self);
        WCHAR text[] = {self, 0};
        EXPECT_EQ(*CharLowerW(text), lower);
        text[0] = self;
        EXPECT_EQ(*_wcsupr(text), upper);
        text[0] = self;
        EXPECT_EQ(CharUpperBuffW(text, 1), 1u);
        EXPECT_EQ(text[0], upper);
        text[0] = self;
        for (const WCHAR other : {lower, upper, unit(lower + 1u), unit(upper + 1u)}) {
            if (other == 0) continue;
            const WCHAR other_text[] = {other, 0};
            const bool equal = towlower(other) == lower;
            EXPECT_EQ(_wcsicmp(text, other_text) == 0, equal) << std::hex << code << " " << unsigned{other};
            EXPECT_EQ(_wcsnicmp(text, other_text, 1) == 0, equal);
            EXPECT_EQ(_wcsicmp(text, other_text) < 0, lower < towlower(other));
        }
    }
}

// The whole table against the data it was made from, where the machine has that data in the same version.
TEST(LetterCase, IsWhatTheDataCallsEachOthersCase) {
    std::ifstream data("/usr/share/unicode/UnicodeData.txt");
    std::ifstream version("/usr/share/unicode/CaseFolding.txt");
    std::string line;
    std::getline(version, line);
    if (!data || line != "# CaseFolding-15.0.0.txt") GTEST_SKIP() << "no Unicode 15.0 data on this machine";
    std::map<unsigned, unsigned> lower;
    std::map<unsigned, unsigned> upper;
    while (std::getline(data, line)) {
        std::istringstream fields(line);
        std::vector<std::string> all;
        for (std::string field; std::getline(fields, field, ';');)
            all.push_back(field);
        const auto number = [](const std::string& hex) { return static_cast<unsigned>(std::stoul(hex, nullptr, 16)); };
        if (all.size() > 12 && !all[12].empty()) upper[number(all[0])] = number(all[12]);
        if (all.size() > 13 && !all[13].empty()) lower[number(all[0])] = number(all[13]);
    }
    const auto partner = [](std::map<unsigned, unsigned>& there, std::map<unsigned, unsigned>& back, unsigned code) {
        return there.contains(code) && back.contains(there[code]) && back[there[code]] == code ? there[code] : code;
    };
    for (unsigned code = 0; code < kPlane; ++code) {
        EXPECT_EQ(towlower(unit(code)), unit(partner(lower, upper, code))) << std::hex << code;
        EXPECT_EQ(towupper(unit(code)), unit(partner(upper, lower, code))) << std::hex << code;
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
