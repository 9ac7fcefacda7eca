#include "ZrUtility/Helpers/StringTokenizer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <new>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base.h"
#include "support/failing_new.h"
#include "support/text.h"

namespace {

using std::u16string;
using std::u16string_view;
using zr::test::FailingNew;
using zr::test::randomText;
using zr::test::Text;

struct Token {
    u16string text;
    int offset;

    friend bool operator==(const Token&, const Token&) = default;
};
using Tokens = std::vector<Token>;

Tokens rest(StringTokenizer& tokenizer) {
    Tokens tokens;
    int offset = -1;
    while (const WCHAR* token = tokenizer.NextToken(&offset)) {
        tokens.push_back({token, offset});
    }
    EXPECT_EQ(tokenizer.NextToken(nullptr), nullptr);
    return tokens;
}

Tokens tokenise(u16string_view text, u16string_view delimiters, int delimiterIsString) {
    StringTokenizer tokenizer(Text(text), Text(delimiters), delimiterIsString);
    return rest(tokenizer);
}

TEST(StringTokenizer, PassesOverEmptyPieces) {
    EXPECT_EQ(tokenise(u"a,,b,", u",", 0), (Tokens{{u"a", 0}, {u"b", 3}}));
    EXPECT_EQ(tokenise(u",,a", u",", 0), (Tokens{{u"a", 2}}));
    EXPECT_EQ(tokenise(u",,,", u",", 0), Tokens{});
    EXPECT_EQ(tokenise(u"", u",", 0), Tokens{});
}

TEST(StringTokenizer, CutsAtAnyOfTheCharacters) {
    EXPECT_EQ(tokenise(u"a;b c,;d", u",; ", 0), (Tokens{{u"a", 0}, {u"b", 2}, {u"c", 4}, {u"d", 7}}));
    EXPECT_EQ(tokenise(u"a\xD83D\xDE00z", u"\xDE00", 0), (Tokens{{u"a\xD83D", 0}, {u"z", 3}}));
}

TEST(StringTokenizer, CutsAtTheWholeString) {
    EXPECT_EQ(tokenise(u"x::y", u"::", 1), (Tokens{{u"x", 0}, {u"y", 3}}));
    EXPECT_EQ(tokenise(u"x:y::z:", u"::", 1), (Tokens{{u"x:y", 0}, {u"z:", 5}}));
    EXPECT_EQ(tokenise(u"::::x:::::y", u"::", -5), (Tokens{{u"x", 4}, {u":y", 9}}));
    EXPECT_EQ(tokenise(u"::", u"::", 1), Tokens{});
    EXPECT_EQ(tokenise(u"aab", u"ab", 1), (Tokens{{u"a", 0}}));
    EXPECT_EQ(tokenise(u"a", u"aa", 1), (Tokens{{u"a", 0}}));
}

TEST(StringTokenizer, LeavesATextWithoutDelimitersWhole) {
    for (const int delimiterIsString : {0, 1}) {
        EXPECT_EQ(tokenise(u"a,b", u"", delimiterIsString), (Tokens{{u"a,b", 0}}));
        EXPECT_EQ(tokenise(u"a,b", u";", delimiterIsString), (Tokens{{u"a,b", 0}}));
    }
}

TEST(StringTokenizer, TellsTheOffsetOfWhatItPassedOverLast) {
    StringTokenizer tokenizer(Text(u"a,,"), Text(u","), 0);
    int offset = 0;
    EXPECT_EQ(u16string_view(tokenizer.NextToken(nullptr)), u"a");
    EXPECT_EQ(tokenizer.NextToken(&offset), nullptr);
    EXPECT_EQ(offset, 2);
    offset = -7;
    EXPECT_EQ(tokenizer.NextToken(&offset), nullptr);
    EXPECT_EQ(offset, -7);
}

TEST(StringTokenizer, StartsAgainAfterReset) {
    StringTokenizer tokenizer(Text(u"a,b,c"), Text(u","), 0);
    tokenizer.Reset();
    WCHAR* first = tokenizer.NextToken(nullptr);
    first[0] = u'z';
    tokenizer.NextToken(nullptr);
    tokenizer.Reset();
    EXPECT_EQ(u16string_view(first), u"a,b,c");
    EXPECT_EQ(rest(tokenizer), (Tokens{{u"a", 0}, {u"b", 2}, {u"c", 4}}));
    tokenizer.Reset();
    EXPECT_EQ(rest(tokenizer).size(), 3u);
}

TEST(StringTokenizer, WorksOnCopies) {
    std::optional<Text> text(u"a,b");
    std::optional<Text> delimiters(u",");
    StringTokenizer tokenizer(*text, *delimiters, 0);
    tokenizer.NextToken(nullptr);
    EXPECT_EQ(text->string(), u"a,b");
    text.reset();
    delimiters.reset();
    EXPECT_EQ(rest(tokenizer), (Tokens{{u"b", 2}}));
}

// What a caller writes into a token does not change where the next one is found.
TEST(StringTokenizer, TokensAreTheCallers) {
    StringTokenizer tokenizer(Text(u"ab,cd"), Text(u","), 0);
    WCHAR* token = tokenizer.NextToken(nullptr);
    token[0] = u',';
    token[1] = u',';
    EXPECT_EQ(rest(tokenizer), (Tokens{{u"cd", 3}}));
}

TEST(StringTokenizer, HasNoTokensWithoutATextOrDelimiters) {
    StringTokenizer nothing(nullptr, Text(u","), 0);
    StringTokenizer uncut(Text(u"a"), nullptr, 0);
    StringTokenizer unseparated(Text(u"a"), nullptr, 1);
    for (StringTokenizer* tokenizer : {&nothing, &uncut, &unseparated}) {
        EXPECT_EQ(rest(*tokenizer), Tokens{});
        tokenizer->Reset();
        EXPECT_EQ(rest(*tokenizer), Tokens{});
    }
}

TEST(StringTokenizer, HasNoTokensWhenMemoryIsShort) {
    const Text text(u"a,b");
    const Text delimiters(u",");
    const long before = zr::test::live_news();
    bool enough = false;
    for (int successes = 0; !enough; ++successes) {
        ASSERT_LT(successes, 10);
        std::optional<StringTokenizer> tokenizer;
        {
            const FailingNew failing(successes);
            tokenizer.emplace(text, delimiters, 0);
        }
        enough = !rest(*tokenizer).empty();
        tokenizer->Reset();
        EXPECT_EQ(rest(*tokenizer).size(), enough ? 2u : 0u);
        EXPECT_EQ(enough, successes > 0);
        tokenizer.reset();
        EXPECT_EQ(zr::test::live_news(), before);
    }
}

// Only one of the two is destroyed: the other is laid in memory that is never destroyed.
TEST(StringTokenizer, CopiesShareTheBuffersAndHaveAPlaceEach) {
    StringTokenizer tokenizer(Text(u"a,b,c"), Text(u","), 0);
    const WCHAR* first = tokenizer.NextToken(nullptr);
    alignas(StringTokenizer) unsigned char room[sizeof(StringTokenizer)];
    auto* copy = new (room) StringTokenizer(tokenizer);
    EXPECT_EQ(copy->NextToken(nullptr), first + 2);
    EXPECT_EQ(tokenizer.NextToken(nullptr), first + 2);
    tokenizer.NextToken(nullptr);
    *copy = tokenizer;
    EXPECT_EQ(copy->NextToken(nullptr), nullptr);
    copy->Reset();
    EXPECT_EQ(u16string_view(first), u"a,b,c");
}

TEST(StringTokenizer, FieldsStandInOrder) {
    StringTokenizer tokenizer(Text(u"ab,c"), Text(u",;"), 9);
    const WCHAR* pointers[4];
    int mode = 0;
    std::memcpy(pointers, &tokenizer, sizeof pointers);
    EXPECT_EQ(pointers[3], nullptr);
    tokenizer.NextToken(nullptr);
    std::memcpy(pointers, &tokenizer, sizeof pointers);
    std::memcpy(&mode, reinterpret_cast<const unsigned char*>(&tokenizer) + sizeof pointers, sizeof mode);
    EXPECT_EQ(u16string_view(pointers[1]), u"ab,c");
    EXPECT_EQ(u16string_view(pointers[2]), u",;");
    EXPECT_EQ(mode, 9);
}

// What a tokenizer is to do, step by step, on whole strings.
class TokenizerModel {
public:
    TokenizerModel(u16string text, u16string delimiters, bool isString)
        : source_(std::move(text)), delimiters_(std::move(delimiters)), isString_(isString), working_(source_) {}

    bool next(u16string& token, int& offset) {
        for (;;) {
            if (position_ >= source_.size()) return false;
            const auto found =
                isString_ ? source_.find(delimiters_, position_) : source_.find_first_of(delimiters_, position_);
            const std::size_t end = found == u16string::npos ? source_.size() : found;
            const std::size_t skip = found != u16string::npos && isString_ ? delimiters_.size() : 1;
            token = source_.substr(position_, end - position_);
            offset = static_cast<int>(position_);
            if (end < working_.size()) working_[end] = 0;
            position_ = end + skip;
            if (!token.empty()) return true;
        }
    }
    void reset() {
        position_ = 0;
        working_ = source_;
    }
    const u16string& working() const { return working_; }

private:
    u16string source_;
    u16string delimiters_;
    bool isString_;
    u16string working_;
    std::size_t position_ = 0;
};

// The buffer is seen through the first token that there ever was.
void compare(StringTokenizer& tokenizer, TokenizerModel& model, std::mt19937& random, int steps) {
    const WCHAR* buffer = nullptr;
    for (int i = 0; i < steps; ++i) {
        if (random() % 12 == 0) {
            tokenizer.Reset();
            model.reset();
        } else {
            int offset = -1;
            int expectedOffset = -1;
            u16string expected;
            const bool there = model.next(expected, expectedOffset);
            const WCHAR* token = tokenizer.NextToken(&offset);
            ASSERT_EQ(token != nullptr, there);
            ASSERT_EQ(offset, expectedOffset);
            if (token == nullptr) continue;
            ASSERT_EQ(u16string_view(token), expected);
            ASSERT_TRUE(buffer == nullptr || buffer == token - offset);
            buffer = token - offset;
        }
        if (buffer == nullptr) continue;
        ASSERT_EQ(u16string_view(buffer, model.working().size()), model.working());
    }
}

TEST(StringTokenizer, AgreesWithASimpleModelOverRandomOperations) {
    std::mt19937 random(20260101);
    for (int i = 0; i < 1500; ++i) {
        SCOPED_TRACE(i);
        const u16string text = randomText(random, u"ab,;:: \xE9\xDE00", 40);
        u16string delimiters = randomText(random, u"a,;: \xE9\xDE00", 3);
        const bool isString = random() % 2 != 0;
        if (delimiters.empty()) delimiters = u"::";
        StringTokenizer tokenizer(Text(text), Text(delimiters), isString ? 1 : 0);
        TokenizerModel model(text, delimiters, isString);
        compare(tokenizer, model, random, 30);
        ASSERT_FALSE(HasFatalFailure());
    }
}

// Many delimiters, and words of all lengths.
TEST(StringTokenizer, AgreesWithASimpleModelOverLongTexts) {
    std::mt19937 random(7);
    for (int i = 0; i < 100; ++i) {
        SCOPED_TRACE(i);
        u16string text;
        while (text.size() < 3000) {
            text.append(random() % 60, static_cast<WCHAR>(0x30 + random() % 0x4000));
            text += static_cast<WCHAR>(0x21 + random() % 15);
        }
        const u16string delimiters = u16string(u"!\"#$%&'()*+,-./").substr(0, 1 + random() % 15);
        StringTokenizer tokenizer(Text(text), Text(delimiters), 0);
        TokenizerModel model(text, delimiters, false);
        compare(tokenizer, model, random, 60);
        ASSERT_FALSE(HasFatalFailure());
    }
}

}  // namespace
