#include <gtest/gtest.h>

#include <string>

#include "guard_page.h"
#include "platform/base.h"

namespace {

constexpr std::size_t kTooMany = STRSAFE_MAX_CCH + 1;

class StringSafe : public testing::Test {
protected:
    std::u16string text() const { return buffer; }

    WCHAR buffer[8] = u"old";
};

TEST_F(StringSafe, PrintfFits) {
    EXPECT_EQ(StringCchPrintfW(buffer, 8, u"%s:%03d", u"ab", 7), S_OK);
    EXPECT_EQ(text(), u"ab:007");
    EXPECT_EQ(StringCchPrintfW(buffer, 8, u"1234567"), S_OK);
    EXPECT_EQ(text(), u"1234567");
}

TEST_F(StringSafe, PrintfCutsAndTerminates) {
    EXPECT_EQ(StringCchPrintfW(buffer, 8, u"12345678"), STRSAFE_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(text(), u"1234567");
    EXPECT_EQ(StringCchPrintfW(buffer, 3, u"%d", 12345), STRSAFE_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(text(), u"12");
    EXPECT_EQ(StringCchPrintfW(buffer, 1, u"x"), STRSAFE_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(text(), u"");
    EXPECT_EQ(StringCchPrintfW(buffer, 1, u""), S_OK);
}

TEST_F(StringSafe, PrintfRefuses) {
    EXPECT_EQ(StringCchPrintfW(buffer, 0, u"x"), STRSAFE_E_INVALID_PARAMETER);
    EXPECT_EQ(StringCchPrintfW(buffer, kTooMany, u"x"), STRSAFE_E_INVALID_PARAMETER);
    EXPECT_EQ(text(), u"old");
    EXPECT_EQ(StringCchPrintfW(nullptr, 8, u"x"), STRSAFE_E_INVALID_PARAMETER);
    EXPECT_EQ(StringCchPrintfW(buffer, 8, nullptr), STRSAFE_E_INVALID_PARAMETER);
    EXPECT_EQ(text(), u"");
}

TEST_F(StringSafe, Copy) {
    EXPECT_EQ(StringCchCopyW(buffer, 8, u"1234567"), S_OK);
    EXPECT_EQ(text(), u"1234567");
    EXPECT_EQ(StringCchCopyW(buffer, 4, u"abcdef"), STRSAFE_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(text(), u"abc");
    EXPECT_EQ(StringCchCopyW(buffer, 0, u"x"), STRSAFE_E_INVALID_PARAMETER);
    EXPECT_EQ(StringCchCopyW(buffer, kTooMany, u"x"), STRSAFE_E_INVALID_PARAMETER);
    EXPECT_EQ(text(), u"abc");
    EXPECT_EQ(StringCchCopyW(buffer, 8, nullptr), STRSAFE_E_INVALID_PARAMETER);
    EXPECT_EQ(text(), u"");
    EXPECT_EQ(StringCchCopyW(nullptr, 8, u"x"), STRSAFE_E_INVALID_PARAMETER);
}

TEST_F(StringSafe, CountedCopyReadsNoFurtherThanItsCount) {
    const zr::test::GuardedText source(u"abc");
    EXPECT_EQ(StringCchCopyNW(buffer, 8, source.wide(), 3), S_OK);
    EXPECT_EQ(text(), u"abc");
    EXPECT_EQ(StringCchCopyNW(buffer, 3, source.wide(), 3), STRSAFE_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(text(), u"ab");
    EXPECT_EQ(StringCchCopyNW(buffer, 8, u"x", 5), S_OK);
    EXPECT_EQ(text(), u"x");
    EXPECT_EQ(StringCchCopyNW(buffer, 8, u"x", 0), S_OK);
    EXPECT_EQ(text(), u"");
}

TEST_F(StringSafe, Append) {
    EXPECT_EQ(StringCchCatW(buffer, 8, u"1234"), S_OK);
    EXPECT_EQ(text(), u"old1234");
    EXPECT_EQ(StringCchCatW(buffer, 8, u"5"), STRSAFE_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(text(), u"old1234");
    EXPECT_EQ(StringCchCatW(buffer, 8, u""), S_OK);
    buffer[3] = 0;
    EXPECT_EQ(StringCchCatNW(buffer, 8, u"xyz", 2), S_OK);
    EXPECT_EQ(text(), u"oldxy");
    EXPECT_EQ(StringCchCatW(buffer, 5, u"z"), STRSAFE_E_INVALID_PARAMETER) << "no terminator within the capacity";
    EXPECT_EQ(StringCchCatW(buffer, 8, nullptr), STRSAFE_E_INVALID_PARAMETER);
    EXPECT_EQ(StringCchCatW(buffer, 0, u"z"), STRSAFE_E_INVALID_PARAMETER);
    EXPECT_EQ(text(), u"oldxy");
}

TEST_F(StringSafe, Length) {
    std::size_t length = 99;
    EXPECT_EQ(StringCchLengthW(u"abc", 4, &length), S_OK);
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(StringCchLengthW(u"abc", 3, &length), STRSAFE_E_INVALID_PARAMETER);
    EXPECT_EQ(length, 0u);
    length = 99;
    EXPECT_EQ(StringCchLengthW(nullptr, 3, &length), STRSAFE_E_INVALID_PARAMETER);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(StringCchLengthW(u"abc", kTooMany, &length), STRSAFE_E_INVALID_PARAMETER);
    EXPECT_EQ(StringCchLengthW(u"abc", 0, &length), STRSAFE_E_INVALID_PARAMETER);
    EXPECT_EQ(StringCchLengthW(u"abc", STRSAFE_MAX_CCH, nullptr), S_OK);
}

TEST_F(StringSafe, BytesCountWholeCharacters) {
    EXPECT_EQ(StringCbPrintfW(buffer, 7, u"%s", u"abcd"), STRSAFE_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(text(), u"ab");
    EXPECT_EQ(StringCbCopyW(buffer, 16, u"1234567"), S_OK);
    EXPECT_EQ(text(), u"1234567");
    EXPECT_EQ(StringCbCopyW(buffer, 1, u"x"), STRSAFE_E_INVALID_PARAMETER);
    EXPECT_EQ(StringCbCopyNW(buffer, 16, u"abcdef", 4), S_OK);
    EXPECT_EQ(text(), u"ab");
    EXPECT_EQ(StringCbCatW(buffer, 8, u"cd"), STRSAFE_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(text(), u"abc");
    EXPECT_EQ(StringCbCatNW(buffer, 16, u"xyz", 2), S_OK);
    EXPECT_EQ(text(), u"abcx");
    std::size_t bytes = 0;
    EXPECT_EQ(StringCbLengthW(buffer, 16, &bytes), S_OK);
    EXPECT_EQ(bytes, 8u);
    EXPECT_EQ(StringCbLengthW(buffer, 8, &bytes), STRSAFE_E_INVALID_PARAMETER);
    EXPECT_EQ(bytes, 0u);
}

}  // namespace
