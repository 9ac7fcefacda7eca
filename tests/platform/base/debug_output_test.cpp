#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "platform/base.h"
#include "support/standard_error.h"

namespace {

std::string written(const WCHAR* text, const char* listener) {
    if (listener != nullptr) {
        setenv("ZR_DEBUG_OUTPUT", listener, 1);
    } else {
        unsetenv("ZR_DEBUG_OUTPUT");
    }
    const zr::test::StandardError collected;
    OutputDebugStringW(text);
    unsetenv("ZR_DEBUG_OUTPUT");
    return collected.text();
}

TEST(DebugOutput, GoesToStandardErrorWhenSomebodyListens) {
    EXPECT_EQ(written(u"caf\u00E9 \U0001F600\r\n", "1"), "caf\xC3\xA9 \xF0\x9F\x98\x80\r\n");
    EXPECT_EQ(written(u"nobody", nullptr), "");
    EXPECT_EQ(written(u"nobody", ""), "");
    EXPECT_EQ(written(nullptr, "1"), "");
    EXPECT_EQ(written(u"", "1"), "");
}

TEST(DebugOutput, LongTextsComeWhole) {
    std::u16string text;
    std::string expected;
    for (int i = 0; i < 1000; ++i) {
        text += u"x\U0001F600";
        expected += "x\xF0\x9F\x98\x80";
    }
    EXPECT_EQ(written(text.c_str(), "1"), expected);
    EXPECT_EQ(written((u"y" + text).c_str(), "1"), "y" + expected);
    EXPECT_EQ(written((u"yy" + text).c_str(), "1"), "yy" + expected);
}

TEST(DebugOutput, LeavesErrorsAlone) {
    SetLastError(ERROR_BUSY);
    setenv("ZR_DEBUG_OUTPUT", "1", 1);
    int after = 0;
    {
        const zr::test::StandardError collected;
        close(STDERR_FILENO);
        errno = EAGAIN;
        OutputDebugStringW(u"text");
        after = errno;
    }
    unsetenv("ZR_DEBUG_OUTPUT");
    EXPECT_EQ(after, EAGAIN);
    EXPECT_EQ(GetLastError(), ERROR_BUSY);
}

TEST(DebugOutput, ALoneSurrogateIsNoObstacle) {
    EXPECT_EQ(written(u"a\xD800"
                      u"b",
                      "1"),
              "a\xED\xA0\x80"
              "b");
}

}  // namespace
