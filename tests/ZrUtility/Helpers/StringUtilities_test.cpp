#include "ZrUtility/Helpers/StringUtilities.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/base.h"
#include "platform/diagnostics.h"
#include "split_address.h"
#include "support/failing_new.h"
#include "support/text.h"

namespace {

using std::u16string;
using std::u16string_view;
using zr::test::FailingNew;
using zr::test::randomText;
using zr::test::split_by;
using zr::test::Text;
using Utilities = StringUtilities;
using Decoded = zr::test::SplitAddress;

// A string that the library handed out.
class Owned {
public:
    explicit Owned(WCHAR* text) : text_(text) {}
    ~Owned() { StringUtilities::DeleteString(text_); }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;

    bool null() const { return text_ == nullptr; }
    u16string string() const { return text_; }

private:
    WCHAR* text_;
};

// ---- Allocation

TEST(NewString, GivesRoomForTheCount) {
    const long before = zr::test::live_news();
    for (const int count : {0, 1, 5, 100000}) {
        WCHAR* s = Utilities::NewString(count);
        ASSERT_NE(s, nullptr);
        std::fill_n(s, count, u'x');
        Utilities::DeleteString(s);
        EXPECT_EQ(s, nullptr);
    }
    EXPECT_EQ(zr::test::live_news(), before);
}

TEST(NewString, NegativeCountsAreImpossible) {
    EXPECT_EQ(Utilities::NewString(-1), nullptr);
    EXPECT_EQ(Utilities::NewString(INT_MIN), nullptr);
}

TEST(NewString, WithoutMemoryGivesNull) {
    const FailingNew failing;
    EXPECT_EQ(Utilities::NewString(1), nullptr);
    EXPECT_EQ(Utilities::NewAndCopyString(u"a"), nullptr);
    EXPECT_EQ(Utilities::FixNewLine(u"a"), nullptr);
}

TEST(NewAndCopyString, CopiesWithTheTerminator) {
    EXPECT_EQ(Utilities::NewAndCopyString(nullptr), nullptr);
    for (const u16string text : {u"", u"abc", u"\xD800\xFFFF"}) {
        EXPECT_EQ(Owned(Utilities::NewAndCopyString(text.c_str())).string(), text);
    }
}

TEST(DeleteString, TakesNullAndConst) {
    WCHAR* none = nullptr;
    Utilities::DeleteString(none);
    EXPECT_EQ(none, nullptr);
    const long before = zr::test::live_news();
    const WCHAR* text = Utilities::NewAndCopyString(u"abc");
    Utilities::DeleteString(text);
    EXPECT_EQ(text, nullptr);
    Utilities::DeleteString(text);
    EXPECT_EQ(zr::test::live_news(), before);
}

// ---- Whitespace

TEST(IsWhitespace, IsThePlatformsSpaceClass) {
    for (const WCHAR c : {u'\t', u'\n', u'\v', u'\f', u'\r', u' '}) {
        EXPECT_NE(Utilities::IsWhitespace(c), 0) << int{c};
    }
    for (const int c : {0x00, 0x01, 0x61, 0x5F, 0x7F, 0xD800, 0xFFFF}) {
        EXPECT_EQ(Utilities::IsWhitespace(static_cast<WCHAR>(c)), 0) << c;
    }
    for (int c = 0; c <= 0xFFFF; ++c) {
        ASSERT_EQ(Utilities::IsWhitespace(static_cast<WCHAR>(c)), iswspace(static_cast<WCHAR>(c))) << c;
    }
}

TEST(SkipPreceedingSpaces, SkipsSpacesAlone) {
    const WCHAR* p = u"  \t a";
    Utilities::SkipPreceedingSpaces(p);
    EXPECT_EQ(u16string(p), u"\t a");
    p = u"   ";
    Utilities::SkipPreceedingSpaces(p);
    EXPECT_EQ(u16string(p), u"");
    p = nullptr;
    Utilities::SkipPreceedingSpaces(p);
    EXPECT_EQ(p, nullptr);
}

TEST(TrimLeadingWhitespace, SkipsAllWhitespace) {
    const WCHAR* p = u" \t\r\n\v\fa ";
    Utilities::TrimLeadingWhitespace(&p);
    EXPECT_EQ(u16string(p), u"a ");
    p = u" \t";
    Utilities::TrimLeadingWhitespace(&p);
    EXPECT_EQ(u16string(p), u"");
    Utilities::TrimLeadingWhitespace(nullptr);
    p = nullptr;
    Utilities::TrimLeadingWhitespace(&p);
    EXPECT_EQ(p, nullptr);
}

TEST(TrimTrailingWhitespace, OverwritesWithNul) {
    u16string text = u" a b\t\r\n ";
    Utilities::TrimTrailingWhitespace(text.data());
    EXPECT_EQ(text, u16string_view(u" a b\0\0\0\0", 8));
    Utilities::TrimTrailingWhitespace(nullptr);
}

TEST(TrimTrailingWhitespace, StopsAtTheStart) {
    u16string room = u" \n \t";
    Utilities::TrimTrailingWhitespace(room.data() + 1);
    EXPECT_EQ(room, u16string_view(u" \0\0\0", 4));
    room = u16string(u" \0", 2);
    Utilities::TrimTrailingWhitespace(room.data() + 1);
    EXPECT_EQ(room, u16string_view(u" \0", 2));
}

// ---- Comparison

int compare(const WCHAR* a, const WCHAR* b, int mode) {
    return Utilities::CompareFunction(a, b, static_cast<Utilities::COMPARE_TYPE>(mode));
}

TEST(CompareFunction, Modes) {
    EXPECT_EQ(Utilities::COMPARE_EXACT, 0);
    EXPECT_EQ(Utilities::COMPARE_PREFIX, 1);
    EXPECT_EQ(Utilities::COMPARE_WORD_PREFIX, 2);
    const struct {
        const WCHAR* a;
        const WCHAR* b;
        int exact;
        int prefix;
        int word;
    } cases[] = {{u"a", u"A", 1, 1, 1},
                 {u"John Smith", u"sm", 0, 0, 1},
                 {u"John Smith", u"JOHN", 0, 1, 1},
                 {u"John Smith", u"john smith", 1, 1, 1},
                 {u"John Smith", u"mith", 0, 0, 0},
                 {u"John  Smith", u"sm", 0, 0, 1},
                 {u"  John", u"j", 0, 0, 1},
                 {u"  John", u" ", 0, 1, 0},
                 {u"John\tSmith", u"sm", 0, 0, 0},
                 {u"A John Smith", u"john s", 0, 0, 1},
                 {u"John ", u"x", 0, 0, 0},
                 {u"", u"", 1, 1, 1},
                 {u"", u"a", 0, 0, 0},
                 {u"ab", u"", 0, 1, 1},
                 {u" ", u"", 0, 1, 1},
                 {u"ab", u"abc", 0, 0, 0},
                 {u"ÉCOLE", u"école", 1, 1, 1},
                 {u"\xD800", u"\xD801", 0, 0, 0},
                 {u"\xFFFF", u"\xFFFF", 1, 1, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(u16string(c.a)) + " " + testing::PrintToString(u16string(c.b)));
        EXPECT_EQ(compare(c.a, c.b, 0), c.exact);
        EXPECT_EQ(compare(c.a, c.b, 1), c.prefix);
        EXPECT_EQ(compare(c.a, c.b, 2), c.word);
        for (const int other : {-1, 3, 1000}) {
            EXPECT_EQ(compare(c.a, c.b, other), c.exact);
        }
        for (const int mode : {0, 1, 2, 3}) {
            EXPECT_EQ(Utilities::CompareFunctionWithNulls(c.a, c.b, static_cast<Utilities::COMPARE_TYPE>(mode)),
                      compare(c.a, c.b, mode));
        }
    }
}

TEST(CompareFunction, Nulls) {
    EXPECT_EQ(compare(nullptr, u"a", 2), 0);
    for (const int value : {0, 1, 2, 3}) {
        const auto mode = static_cast<Utilities::COMPARE_TYPE>(value);
        EXPECT_EQ(Utilities::CompareFunctionWithNulls(nullptr, u"a", mode), 0);
        EXPECT_EQ(Utilities::CompareFunctionWithNulls(u"a", nullptr, mode), 0);
        EXPECT_EQ(Utilities::CompareFunctionWithNulls(nullptr, nullptr, mode), 0);
    }
}

u16string lower(u16string text) {
    _wcslwr(text.data());
    return text;
}

// The words of a text, from each word's start to the text's end; an empty one when it ends with spaces or is empty.
std::vector<u16string> fromEachWord(const u16string& text) {
    std::vector<u16string> starts;
    std::size_t at = 0;
    do {
        at = text.find_first_not_of(u' ', at);
        starts.push_back(at == u16string::npos ? u16string() : text.substr(at));
        at = text.find(u' ', at);
    } while (at != u16string::npos);
    return starts;
}

TEST(CompareFunction, AgreesWithLowerCasedTextOverRandomTexts) {
    std::mt19937 random(11);
    for (int i = 0; i < 20000; ++i) {
        const u16string a = randomText(random, u"aAbB  éÉ\xD800", 8);
        const u16string b = randomText(random, u"aAbB éÉ\xD800", 3);
        const u16string low = lower(b);
        ASSERT_EQ(compare(a.c_str(), b.c_str(), 0), lower(a) == low);
        ASSERT_EQ(compare(a.c_str(), b.c_str(), 1), lower(a).starts_with(low));
        const auto words = fromEachWord(lower(a));
        ASSERT_EQ(compare(a.c_str(), b.c_str(), 2), std::any_of(words.begin(), words.end(), [&](const u16string& word) {
                      return word.starts_with(low);
                  }));
    }
}

TEST(StartsWithIgnoreCase, PrefixComesFirst) {
    EXPECT_EQ(Utilities::StartsWithIgnoreCase(Text(u""), Text(u"abc")), 1);
    EXPECT_EQ(Utilities::StartsWithIgnoreCase(Text(u"AB"), Text(u"abc")), 1);
    EXPECT_EQ(Utilities::StartsWithIgnoreCase(Text(u"abc"), Text(u"ab")), 0);
    EXPECT_EQ(Utilities::StartsWithIgnoreCase(Text(u"bc"), Text(u"abc")), 0);
    EXPECT_EQ(Utilities::StartsWithIgnoreCase(nullptr, Text(u"abc")), 0);
    EXPECT_EQ(Utilities::StartsWithIgnoreCase(Text(u"abc"), nullptr), 0);
}

TEST(CompareFunction, EveryUnitEqualsItsOtherCase) {
    for (unsigned code = 1; code < 0x10000; ++code) {
        const WCHAR self[] = {static_cast<WCHAR>(code), 0};
        const WCHAR next[] = {static_cast<WCHAR>(towlower(self[0]) + 1), 0};
        for (const WCHAR other : {towlower(self[0]), towupper(self[0])}) {
            WCHAR text[] = {other, 0};
            WCHAR longer[] = {other, u'x', 0};
            EXPECT_EQ(Utilities::CompareFunction(self, text, Utilities::COMPARE_EXACT), 1) << std::hex << code;
            EXPECT_EQ(Utilities::CompareFunction(longer, self, Utilities::COMPARE_PREFIX), 1) << std::hex << code;
            EXPECT_EQ(Utilities::StartsWithIgnoreCase(text, longer), 1) << std::hex << code;
        }
        const WCHAR low[] = {towlower(self[0]), 0};
        EXPECT_EQ(Utilities::EndsWithIgnoreCase(low, self), 1) << std::hex << code;
        const bool equal = towlower(next[0]) == towlower(self[0]);
        EXPECT_EQ(Utilities::CompareFunction(self, next, Utilities::COMPARE_EXACT), equal ? 1 : 0) << std::hex << code;
    }
}

TEST(EndsWithIgnoreCase, ASmallLetterWithoutCapitalIsItself) {
    EXPECT_EQ(Utilities::EndsWithIgnoreCase(u"\xB5", u"5 \xB5"), 1);
    EXPECT_EQ(Utilities::EndsWithIgnoreCase(u"\x3C2", u"\x39F\x3C2"), 1);
    EXPECT_EQ(Utilities::EndsWithIgnoreCase(u"\x3BC", u"5 \xB5"), 0);
}

TEST(EndsWithIgnoreCase, SuffixComesFirst) {
    EXPECT_EQ(Utilities::EndsWithIgnoreCase(u"", u"abc"), 0);
    EXPECT_EQ(Utilities::EndsWithIgnoreCase(u"", u""), 0);
    EXPECT_EQ(Utilities::EndsWithIgnoreCase(u"BC", u"abc"), 1);
    EXPECT_EQ(Utilities::EndsWithIgnoreCase(u"bc", u"ABC"), 1);
    EXPECT_EQ(Utilities::EndsWithIgnoreCase(u"abc", u"abc"), 1);
    EXPECT_EQ(Utilities::EndsWithIgnoreCase(u"xabc", u"abc"), 0);
    EXPECT_EQ(Utilities::EndsWithIgnoreCase(u"ab", u"abc"), 0);
    EXPECT_EQ(Utilities::EndsWithIgnoreCase(nullptr, u"abc"), 0);
    EXPECT_EQ(Utilities::EndsWithIgnoreCase(u"abc", nullptr), 0);
}

TEST(EndsWithIgnoreCase, FoldsOnlyAsciiInTheSuffix) {
    EXPECT_EQ(Utilities::EndsWithIgnoreCase(u"é", u"CAFÉ"), 1);
    EXPECT_EQ(Utilities::EndsWithIgnoreCase(u"É", u"CAFÉ"), 0);
    EXPECT_EQ(Utilities::EndsWithIgnoreCase(u"É", u"café"), 0);
}

TEST(CompareStringIgnoreCRAndLF, LineEndsAreAlikeWhenThereIsAnLF) {
    const struct {
        const WCHAR* a;
        const WCHAR* b;
        int sign;
    } cases[] = {{u"", u"", 0},
                 {u"line\r", u"line", 0},
                 {u"line", u"line\n", 0},
                 {u"line\r", u"line\n", 0},
                 {u"a\r\nb", u"a\n\rb", 0},
                 {u"linex", u"line", 1},
                 {u"line", u"linex", 1},
                 {u"line\r\n", u"line", 1},
                 {u"a", u"b", -1},
                 {u"b", u"a", 1},
                 {u"a\rb", u"a\nb", 0},
                 {u"a\rb", u"axb", -1},
                 {u"a\nb", u"axb", -1},
                 {u"a\rb\n", u"a\rc\n", -1},
                 {u"a\rx", u"a\ry\n", -1},
                 {u"\r", u"", 0},
                 {u"", u"\n", 0},
                 {u"\xFFFF", u"a", 1}};
    for (const auto& [a, b, sign] : cases) {
        const int result = Utilities::CompareStringIgnoreCRAndLF(a, b);
        EXPECT_EQ((result > 0) - (result < 0), sign)
            << testing::PrintToString(u16string(a)) << " " << testing::PrintToString(u16string(b));
    }
}

// A longer string's line end that is left out takes part in the search for an LF, and in nothing else.
TEST(CompareStringIgnoreCRAndLF, AgreesWithTheRulesOverRandomTexts) {
    std::mt19937 random(12);
    for (int i = 0; i < 40000; ++i) {
        const u16string a = randomText(random, u"\r\nab", 4);
        const u16string b = randomText(random, u"\r\nab", 4);
        const u16string& longer = a.size() > b.size() ? a : b;
        const std::size_t length = std::min(a.size(), b.size());
        u16string left = a.substr(0, length);
        u16string right = b.substr(0, length);
        int expected = left.compare(right);
        if ((a + b).find(u'\n') != u16string::npos) {
            std::replace(left.begin(), left.end(), u'\r', u'\n');
            std::replace(right.begin(), right.end(), u'\r', u'\n');
            if (left == right) expected = 0;
        }
        const bool comparable = longer.size() == length ||
                                (longer.size() == length + 1 && (longer.back() == u'\r' || longer.back() == u'\n'));
        if (!comparable) expected = 1;
        const int result = Utilities::CompareStringIgnoreCRAndLF(a.c_str(), b.c_str());
        ASSERT_EQ((result > 0) - (result < 0), (expected > 0) - (expected < 0))
            << testing::PrintToString(a) << " " << testing::PrintToString(b);
    }
}

// ---- Narrow buffers

TEST(strnistr, FirstByteMustMatchExactly) {
    const char* hay = "xABc";
    EXPECT_EQ(Utilities::strnistr(hay, 4, "abc"), nullptr);
    EXPECT_EQ(Utilities::strnistr(hay, 4, "ABC"), hay + 1);
    hay = "xabC";
    EXPECT_EQ(Utilities::strnistr(hay, 4, "abc"), hay + 1);
    EXPECT_EQ(Utilities::strnistr(hay, 3, "abc"), nullptr);
    EXPECT_EQ(Utilities::strnistr(hay, 4, "xabcd"), nullptr);
    EXPECT_EQ(Utilities::strnistr(hay, 0, "a"), nullptr);
    EXPECT_EQ(Utilities::strnistr(hay, 4, "C"), hay + 3);
    EXPECT_EQ(Utilities::strnistr("\xE9", 1, "\xC9"), nullptr);
    EXPECT_STREQ(Utilities::strnistr("a\xE9", 2, "\xE9"), "\xE9");
}

TEST(strnistr, ReadsPastNulsAndNeverPastTheBuffer) {
    const std::unique_ptr<char[]> hay(new char[5]{'\0', 'a', '\0', 'a', 'b'});
    EXPECT_EQ(Utilities::strnistr(hay.get(), 5, "ab"), hay.get() + 3);
    EXPECT_EQ(Utilities::strnistr(hay.get(), 5, "abc"), nullptr);
    EXPECT_EQ(Utilities::strnistr(hay.get(), 5, ""), hay.get());
    EXPECT_EQ(Utilities::strnistr(hay.get() + 3, 2, ""), nullptr);
    EXPECT_EQ(Utilities::strnistr(hay.get() + 5, 0, ""), nullptr);
}

TEST(strncspn, StopsAtARejectedByteOrNul) {
    EXPECT_EQ(Utilities::strncspn("abc;d", 5, ";,"), 3u);
    EXPECT_EQ(Utilities::strncspn("abc;d", 2, ";,"), 2u);
    EXPECT_EQ(Utilities::strncspn("abc\0d", 5, ";"), 3u);
    EXPECT_EQ(Utilities::strncspn("abc", 0, "a"), 0u);
    EXPECT_EQ(Utilities::strncspn("a\xE9", 2, "\xE9"), 1u);
    const std::unique_ptr<char[]> unterminated(new char[2]{'a', 'b'});
    EXPECT_EQ(Utilities::strncspn(unterminated.get(), 2, ""), 2u);
}

TEST(StripNonDigitsFromString, KeepsDigitsInOrder) {
    char phone[] = "+1 (555) 01-23\xB2x";
    Utilities::StripNonDigitsFromString(phone);
    EXPECT_STREQ(phone, "15550123");
    char none[] = "abc";
    Utilities::StripNonDigitsFromString(none);
    EXPECT_STREQ(none, "");
    char empty[] = "";
    Utilities::StripNonDigitsFromString(empty);
    EXPECT_STREQ(empty, "");
}

// ---- Parsing

// What NextToken gives, call after call, until it gives NULL, no longer moves, or has given 100 tokens.
std::vector<u16string> tokens(const u16string& text, const u16string& delimiters, int outSize, std::size_t length) {
    Text s(text);
    Text list(delimiters);
    const auto out = std::make_unique<WCHAR[]>(outSize);
    std::vector<u16string> found;
    WCHAR* cur = s;
    WCHAR* const end = cur + length;
    while (found.size() < 100) {
        out[0] = u'?';
        WCHAR* next = Utilities::NextToken(cur, end, out.get(), outSize, list);
        if (next == nullptr) {
            EXPECT_EQ(out[0], u'?');
            break;
        }
        EXPECT_LE(next, std::max(cur, end));
        found.emplace_back(out.get());
        if (next == cur && cur >= end) break;
        cur = next;
    }
    return found;
}

std::vector<u16string> tokens(const u16string& text, const u16string& delimiters, int outSize = 100) {
    return tokens(text, delimiters, outSize, text.size());
}

using Texts = std::vector<u16string>;

TEST(NextToken, SplitsAtRunsOfDelimiters) {
    EXPECT_EQ(tokens(u"a,,b", u","), (Texts{u"a", u"b"}));
    EXPECT_EQ(tokens(u"", u","), Texts());
    EXPECT_EQ(tokens(u",a", u","), (Texts{u"", u"a"}));
    EXPECT_EQ(tokens(u"a,", u","), (Texts{u"a"}));
    EXPECT_EQ(tokens(u"a;,; ,b c", u", ;"), (Texts{u"a", u"b", u"c"}));
    EXPECT_EQ(tokens(u"a,b", u""), (Texts{u"a,b"}));
}

TEST(NextToken, ReturnsTheStartOfTheNextToken) {
    Text s(u"a,,b");
    Text list(u",");
    WCHAR out[10];
    EXPECT_EQ(Utilities::NextToken(s, s + 4, out, 10, list), s + 3);
}

TEST(NextToken, CutsLongTokensIntoPieces) {
    EXPECT_EQ(tokens(u"abcdefgh,ij", u",", 4), (Texts{u"abc", u"def", u"gh", u"ij"}));
    // A piece that fills the room leaves the delimiter behind it for the next call.
    EXPECT_EQ(tokens(u"abc,de", u",", 4), (Texts{u"abc", u"", u"de"}));
    EXPECT_EQ(tokens(u"abc", u",", 4), (Texts{u"abc"}));
}

TEST(NextToken, EndsAtTheEndOfTheRange) {
    EXPECT_EQ(tokens(u"ab,cd", u",", 10, 4), (Texts{u"ab", u"c", u""}));
    // A delimiter just behind the range is not consumed, also when it follows another in the list's order.
    EXPECT_EQ(tokens(u"ab,;;cd", u",;", 10, 3), (Texts{u"ab", u""}));
    EXPECT_EQ(tokens(u"ab", u",", 10, 0), (Texts{u""}));
}

TEST(NextToken, RoomForNothing) {
    Text s(u"ab");
    Text list(u",");
    WCHAR out[2] = {u'x', u'x'};
    EXPECT_EQ(Utilities::NextToken(s, s + 2, out, 1, list), s);
    EXPECT_EQ(out[0], 0);
    for (const int size : {0, -1, INT_MIN}) {
        out[0] = u'x';
        EXPECT_EQ(Utilities::NextToken(s, s + 2, out, size, list), s);
        EXPECT_EQ(Utilities::NextToken(s, s, out, size, list), s);
        EXPECT_EQ(out[0], u'x');
    }
}

TEST(NextToken, AgreesWithTheRulesOverRandomTexts) {
    std::mt19937 random(13);
    for (int i = 0; i < 20000; ++i) {
        const u16string text = randomText(random, u"ab,; ", 12);
        const u16string delimiters = randomText(random, u",; ", 3);
        const std::size_t room = 1 + random() % 4;
        Texts expected;
        for (std::size_t at = 0; at < text.size();) {
            const std::size_t found = std::min(text.find_first_of(delimiters, at), text.size());
            expected.push_back(text.substr(at, std::min(found - at, room)));
            at = found - at < room ? std::min(text.find_first_not_of(delimiters, found), text.size()) : at + room;
        }
        ASSERT_EQ(tokens(text, delimiters, static_cast<int>(room + 1)), expected)
            << testing::PrintToString(text) << " " << testing::PrintToString(delimiters) << " " << room;
    }
}

TEST(DecodeInteger, ReadsAtMost19Characters) {
    EXPECT_EQ(Utilities::DecodeInteger(Text(u"123"), 3), 123);
    EXPECT_EQ(Utilities::DecodeInteger(Text(u"123"), 2), 12);
    EXPECT_EQ(Utilities::DecodeInteger(Text(u" \t-45x"), 6), -45);
    EXPECT_EQ(Utilities::DecodeInteger(Text(u"+7"), 2), 7);
    EXPECT_EQ(Utilities::DecodeInteger(Text(u"x7"), 2), 0);
    EXPECT_EQ(Utilities::DecodeInteger(Text(u""), 0), 0);
    EXPECT_EQ(Utilities::DecodeInteger(Text(u"12"), -1), 0);
    EXPECT_EQ(Utilities::DecodeInteger(Text(u"0000000000000000001234"), 22), 1);
    EXPECT_EQ(Utilities::DecodeInteger(Text(u"                  12345"), 23), 1);
}

TEST(DecodeInteger, StopsAtTheTextsEnd) {
    EXPECT_EQ(Utilities::DecodeInteger(Text(u"42"), 19), 42);
    EXPECT_EQ(Utilities::DecodeInteger(Text(u"42"), INT_MAX), 42);
}

Decoded decode(const u16string& text) {
    return split_by(Utilities::DecodeAddress, text);
}

Decoded expectedDecoding(const u16string& text) {
    const std::size_t open = text.find(u'<');
    u16string before = text.substr(0, open);
    std::erase(before, u'"');
    if (open == u16string::npos) return {before, {}};
    const u16string name = before.substr(0, before.find_last_not_of(u' ') + 1);
    const std::size_t start = text.find_first_not_of(u' ', open + 1);
    if (start == u16string::npos) return {u"", name};
    if (text[start] == u'>') return {u">", name};
    const u16string address = text.substr(start, text.find(u'>', start) - start);
    return {address.substr(0, address.find_last_not_of(u' ') + 1), name};
}

TEST(DecodeAddress, SplitsInPlace) {
    const struct {
        u16string text;
        Decoded decoded;
    } cases[] = {{u"\"Jo Doe\" <jo.doe>", {u"jo.doe", u"Jo Doe"}},
                 {u"jo.doe", {u"jo.doe", {}}},
                 {u" <ab>", {u"ab", u""}},
                 {u"<ab>", {u"ab", u""}},
                 {u"", {u"", {}}},
                 {u"\"\"", {u"", {}}},
                 {u"\"jo\"", {u"jo", {}}},
                 {u"a <>", {u">", u"a"}},
                 {u"a < >", {u">", u"a"}},
                 {u"a <", {u"", u"a"}},
                 {u"a <  ", {u"", u"a"}},
                 {u"a <\"b\">", {u"\"b\"", u"a"}},
                 {u"a < b c >d", {u"b c", u"a"}},
                 {u"a\t<b", {u"b", u"a\t"}},
                 {u"\"\"<\xD800>", {u"\xD800", u""}}};
    for (const auto& [text, decoded] : cases) {
        EXPECT_EQ(decode(text), decoded) << testing::PrintToString(text);
    }
}

TEST(DecodeAddress, ClosesUpWhatTheQuotesLeft) {
    Text s(u"\"Jo\" <jo>");
    WCHAR* address = nullptr;
    WCHAR* name = nullptr;
    Utilities::DecodeAddress(s, &address, &name);
    EXPECT_EQ(address, s + 4);
}

TEST(DecodeAddress, WritesNothingBehindTheText) {
    for (const u16string_view text : {u"a <", u"a <  ", u"<", u"<   "}) {
        u16string room(text);
        room += u'\0';
        room += u"xy";
        WCHAR* address = nullptr;
        WCHAR* name = nullptr;
        Utilities::DecodeAddress(room.data(), &address, &name);
        EXPECT_EQ(room.substr(text.size()), u16string_view(u"\0xy", 3));
    }
}

TEST(DecodeAddress, AgreesWithTheRulesOverRandomTexts) {
    std::mt19937 random(14);
    for (int i = 0; i < 60000; ++i) {
        const u16string text = randomText(random, u"<<>>\"\"  ab", 10);
        ASSERT_EQ(decode(text), expectedDecoding(text)) << testing::PrintToString(text);
    }
}

TEST(BypassKelAttachmentPrefix, SkipsThePrefixAndOneSpace) {
    const struct {
        u16string name;
        std::size_t start;
    } cases[] = {{u"x-keldevice:a", 12},
                 {u"X-KelDevice-7: a", 15},
                 {u"x-keldevice:  a", 13},
                 {u"x-keldevice a", 0},
                 {u"my x-keldevice:a", 0},
                 {u"x-keldevice:", 12},
                 {u"", 0},
                 {u"x-keldevic:a", 0}};
    for (const auto& [name, start] : cases) {
        Text s(name);
        WCHAR* out = nullptr;
        Utilities::BypassKelAttachmentPrefix(s, &out);
        EXPECT_EQ(out, s + start) << testing::PrintToString(name);
    }
}

TEST(BypassKelAttachmentPrefix, NullsDoNothing) {
    Text s(u"x-keldevice:a");
    WCHAR* out = s;
    Utilities::BypassKelAttachmentPrefix(nullptr, &out);
    EXPECT_EQ(out, s);
    Utilities::BypassKelAttachmentPrefix(s, nullptr);
}

// ---- Conversion

TEST(HexFromBin, TwoUpperCaseDigitsEach) {
    unsigned char bytes[] = {0x0A, 0xFF, 0x00, 0x9C};
    WCHAR out[9];
    Utilities::HexFromBin(bytes, 2, out);
    EXPECT_EQ(u16string(out), u"0AFF");
    Utilities::HexFromBin(bytes, 4, out);
    EXPECT_EQ(u16string(out), u"0AFF009C");
    for (const int count : {0, -1}) {
        out[0] = out[1] = u'x';
        Utilities::HexFromBin(bytes, count, out);
        EXPECT_EQ(u16string_view(out, 2), u16string_view(u"\0x", 2));
    }
}

// The characters that Windows-1252 has in 0x80 to 0x9F, in the order of their bytes; 0 where it has none.
constexpr WCHAR kSpecial[32] = {0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
                                0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
                                0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

unsigned char expectedByte(WCHAR c) {
    const auto* found = std::find(std::begin(kSpecial), std::end(kSpecial), c);
    if (c != 0 && found != std::end(kSpecial)) return static_cast<unsigned char>(0x80 + (found - kSpecial));
    return c < 0x100 ? static_cast<unsigned char>(c) : 0x9D;
}

std::vector<unsigned char> toAscii(const u16string& text) {
    std::vector<unsigned char> bytes(text.size() + 1, 0xAA);
    Utilities::ToASCII(bytes.data(), text.data(), static_cast<int>(text.size()), 0);
    EXPECT_EQ(bytes.back(), 0);
    bytes.pop_back();
    return bytes;
}

u16string toWchar(std::vector<unsigned char> bytes) {
    u16string text(bytes.size() + 1, u'?');
    Utilities::ToWCHAR(text.data(), bytes.data(), static_cast<int>(bytes.size()), 0);
    EXPECT_EQ(text.back(), 0);
    text.pop_back();
    return text;
}

TEST(ToASCII, MapsEveryCharacter) {
    u16string all(0x10000, u'\0');
    for (std::size_t c = 0; c < all.size(); ++c) {
        all[c] = static_cast<WCHAR>(c);
    }
    const auto bytes = toAscii(all);
    for (std::size_t c = 0; c < all.size(); ++c) {
        ASSERT_EQ(bytes[c], expectedByte(all[c])) << c;
        ASSERT_EQ(toAscii(all.substr(c, 1))[0], bytes[c]) << c;
    }
    EXPECT_EQ(toAscii(u"€Āé\x9F"), (std::vector<unsigned char>{0x80, 0x9D, 0xE9, 0x9F}));
}

TEST(ToWCHAR, MapsEveryByte) {
    std::vector<unsigned char> all(256);
    for (std::size_t byte = 0; byte < all.size(); ++byte) {
        all[byte] = static_cast<unsigned char>(byte);
    }
    const u16string text = toWchar(all);
    for (std::size_t byte = 0; byte < all.size(); ++byte) {
        const WCHAR special = byte >= 0x80 && byte < 0xA0 ? kSpecial[byte - 0x80] : u'\0';
        EXPECT_EQ(text[byte], special != 0 ? special : byte) << byte;
    }
    EXPECT_EQ(text[0x81], 0x81);
    EXPECT_EQ(toAscii(text), all);
}

TEST(ToASCII, StartsAtTheOffsetAndTerminates) {
    unsigned char bytes[] = "xxxxxx";
    Utilities::ToASCII(bytes, u"ab\0c", 2, 1);
    EXPECT_EQ(std::memcmp(bytes, "xab\0xx", 6), 0);
    Utilities::ToASCII(bytes, u"z", 0, 4);
    EXPECT_EQ(std::memcmp(bytes, "xab\0\0x", 6), 0);
    Utilities::ToASCII(bytes, u"z", -5, 0);
    EXPECT_EQ(std::memcmp(bytes, "\0ab\0\0x", 6), 0);
    EXPECT_EQ(toAscii(u16string(u"a\0b", 3)), (std::vector<unsigned char>{'a', 0, 'b'}));
}

TEST(ToWCHAR, StartsAtTheOffsetAndTerminates) {
    u16string text = u"xxxxxx";
    unsigned char bytes[] = "ab";
    Utilities::ToWCHAR(text.data(), bytes, 2, 1);
    EXPECT_EQ(text, u16string_view(u"xab\0xx", 6));
    Utilities::ToWCHAR(text.data(), bytes, 0, 4);
    EXPECT_EQ(text, u16string_view(u"xab\0\0x", 6));
    Utilities::ToWCHAR(text.data(), bytes, -1, 0);
    EXPECT_EQ(text, u16string_view(u"\0ab\0\0x", 6));
}

TEST(ToASCII, EncodesATextOverItself) {
    u16string text;
    for (int i = 0; i < 100; ++i) {
        text += static_cast<WCHAR>(u'a' + i % 26);
        if (i % 7 == 0) text += u'€';
    }
    const auto expected = toAscii(text);
    u16string room = text;
    auto* bytes = reinterpret_cast<unsigned char*>(room.data());
    Utilities::ToASCII(bytes, room.data(), static_cast<int>(room.size()), 0);
    EXPECT_EQ(std::memcmp(bytes, expected.data(), expected.size()), 0);
}

TEST(ToASCII, RoundTripsOverRandomBytesOfEveryLength) {
    std::mt19937 random(15);
    for (std::size_t length = 0; length < 200; ++length) {
        for (const unsigned int range : {0x80u, 0x100u}) {
            std::vector<unsigned char> bytes(length);
            for (auto& byte : bytes) {
                byte = static_cast<unsigned char>(random() % range);
            }
            ASSERT_EQ(toAscii(toWchar(bytes)), bytes);
            u16string text(length, u'\0');
            for (WCHAR& c : text) {
                c = static_cast<WCHAR>(random() % (random() % 20 == 0 ? 0x10000 : range));
            }
            const auto encoded = toAscii(text);
            for (std::size_t i = 0; i < length; ++i) {
                ASSERT_EQ(encoded[i], expectedByte(text[i]));
            }
        }
    }
}

// ---- Line ends

u16string fixNewLine(const u16string& text) {
    return Owned(Utilities::FixNewLine(Text(text))).string();
}

TEST(FixNewLine, MakesLoneLineEndsPairs) {
    EXPECT_EQ(Utilities::FixNewLine(nullptr), nullptr);
    EXPECT_EQ(fixNewLine(u""), u"");
    EXPECT_EQ(fixNewLine(u"a\rb\nc\r\n"), u"a\r\nb\r\nc\r\n");
    EXPECT_EQ(fixNewLine(u"\n"), u"\r\n");
    EXPECT_EQ(fixNewLine(u"\r"), u"\r\n");
    EXPECT_EQ(fixNewLine(u"\r\r\n\n"), u"\r\n\r\n\r\n");
    EXPECT_EQ(fixNewLine(u"\n\r"), u"\r\n\r\n");
    EXPECT_EQ(fixNewLine(u16string(1000, u'\n')).size(), 2000u);
}

TEST(FixNewLine, LeavesNoLoneLineEndAndNothingElseChanged) {
    std::mt19937 random(16);
    for (int i = 0; i < 20000; ++i) {
        const u16string text = randomText(random, u"\r\n\r\na\xD800", 12);
        const u16string fixed = fixNewLine(text);
        for (std::size_t at = 0; at < fixed.size(); ++at) {
            ASSERT_EQ(fixed[at] == u'\r', at + 1 < fixed.size() && fixed[at + 1] == u'\n');
            ASSERT_EQ(fixed[at] == u'\n', at > 0 && fixed[at - 1] == u'\r');
        }
        ASSERT_EQ(fixNewLine(fixed), fixed);
        // Each line break of the text, of whichever kind, is one pair; what stands between is untouched.
        u16string expected;
        for (std::size_t at = 0; at < text.size(); ++at) {
            const bool pair = text.compare(at, 2, u"\r\n") == 0;
            if (text[at] == u'\r' || text[at] == u'\n') {
                expected += u"\r\n";
            } else {
                expected += text[at];
            }
            if (pair) ++at;
        }
        ASSERT_EQ(fixed, expected) << testing::PrintToString(text);
    }
}

u16string fixReturns(const u16string& text) {
    u16string fixed(2 * text.size() + 1, u'?');
    EXPECT_EQ(Utilities::FixUnicodeReturnChar(text.data(), fixed.data(), static_cast<int>(text.size())), 1);
    const std::size_t end = fixed.find(u'?');
    EXPECT_EQ(fixed.find_first_not_of(u'?', end), u16string::npos);
    return fixed.substr(0, end);
}

TEST(FixUnicodeReturnChar, AddsAnLFAfterEachLoneCR) {
    EXPECT_EQ(fixReturns(u"a\rb"), u"a\r\nb");
    EXPECT_EQ(fixReturns(u"a\r\nb"), u"a\r\nb");
    EXPECT_EQ(fixReturns(u"a\nb"), u"a\nb");
    EXPECT_EQ(fixReturns(u"\r\r"), u"\r\n\r\n");
    EXPECT_EQ(fixReturns(u16string(u"a\0\rb", 4)), u16string_view(u"a\0\r\nb", 5));
    WCHAR out[3] = {u'x', u'x', u'x'};
    // The LF behind the last of the count is not looked at.
    EXPECT_EQ(Utilities::FixUnicodeReturnChar(u"\r\n", out, 1), 1);
    EXPECT_EQ(u16string_view(out, 3), u"\r\nx");
}

TEST(FixUnicodeReturnChar, NothingToDo) {
    WCHAR out[1] = {u'x'};
    EXPECT_EQ(Utilities::FixUnicodeReturnChar(nullptr, out, 1), 0);
    EXPECT_EQ(Utilities::FixUnicodeReturnChar(u"\r", nullptr, 1), 0);
    EXPECT_EQ(Utilities::FixUnicodeReturnChar(u"\r", out, 0), 1);
    EXPECT_EQ(Utilities::FixUnicodeReturnChar(u"\r", out, -1), 1);
    EXPECT_EQ(out[0], u'x');
}

TEST(removeLFFromCRLF, KeepsTheCR) {
    const struct {
        u16string text;
        u16string removed;
    } cases[] = {{u"", u""},           {u"a\r\nb\r\n", u"a\rb\r"}, {u"a\nb", u"a\nb"},    {u"\r\n\n", u"\r\n"},
                 {u"\r\r\n", u"\r\r"}, {u"\n\r", u"\n\r"},         {u"\r\n\r\n", u"\r\r"}};
    for (const auto& [text, removed] : cases) {
        Text s(text);
        EXPECT_EQ(Utilities::removeLFFromCRLF(s), 1);
        EXPECT_EQ(s.string(), removed) << testing::PrintToString(text);
    }
    EXPECT_EQ(Utilities::removeLFFromCRLF(nullptr), 0);
}

// ---- Formatting

TEST(SafeFormatString, FormatsIntoANewString) {
    EXPECT_EQ(Owned(Utilities::SafeFormatString(u"%s is %d, %x", u"Jo", 42, 0xBEEF)).string(), u"Jo is 42, beef");
    EXPECT_EQ(Owned(Utilities::SafeFormatString(u"")).string(), u"");
    EXPECT_EQ(Owned(Utilities::SafeFormatString(u"100%%")).string(), u"100%");
}

TEST(SafeFormatString, AnyLengthComesBackWhole) {
    for (const std::size_t length : {254u, 255u, 256u, 257u, 511u, 512u, 5000u, 100000u, 1000000u, 3u}) {
        const u16string text(length, u'x');
        EXPECT_EQ(Owned(Utilities::SafeFormatString(u"%s|%d", text.c_str(), 7)).string(), text + u"|7");
    }
}

TEST(SafeFormatString, ARefusedFormatGivesWhatWasWritten) {
    EXPECT_EQ(Owned(Utilities::SafeFormatString(nullptr)).string(), u"");
}

TEST(SafeFormatString, WithoutMemoryGivesNullAndKeepsNothing) {
    const LONGLONG heapBefore = ZrLiveObjects(ZrLiveKind::HeapBlocks);
    const u16string text(1000, u'x');
    for (const LONGLONG successes : {0, 1}) {
        ZrFailHeapAfter(successes);
        WCHAR* formatted = Utilities::SafeFormatString(u"%s", text.c_str());
        WCHAR* longer = Utilities::SafeFormatString(u"%s%s%s%s%s", text.c_str(), text.c_str(), text.c_str(),
                                                    text.c_str(), text.c_str());
        ZrFailHeapAfter(-1);
        EXPECT_EQ(longer, nullptr);
        Utilities::DeleteString(formatted);
    }
    WCHAR* formatted = nullptr;
    {
        const FailingNew failing;
        formatted = Utilities::SafeFormatString(u"%d", 1);
    }
    EXPECT_EQ(formatted, nullptr);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), heapBefore);
    EXPECT_EQ(Owned(Utilities::SafeFormatString(u"%d", 1)).string(), u"1");
}

TEST(SafeFormatString, FromManyThreads) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([i] {
            for (int j = 0; j < 200; ++j) {
                const u16string text(static_cast<std::size_t>(i * j), static_cast<WCHAR>(u'a' + i));
                EXPECT_EQ(Owned(Utilities::SafeFormatString(u"%s%d", text.c_str(), 5)).string(), text + u"5");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
