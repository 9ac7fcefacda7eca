#include "zr/base/loaded_library.h"

#include <gmock/gmock.h>

#include <cmath>
#include <cstdio>
#include <string>

#include "zr/base/failure.h"

namespace {

using zr::Failure;
using zr::LoadedLibrary;

constexpr const char* kNeed = "rounding needs the package libm";

TEST(LoadedLibrary, GivesItsFunctions) {
    decltype(&::lround) round = nullptr;
    LoadedLibrary("libm.so.6", kNeed).find("lround", round);
    ASSERT_NE(round, nullptr);
    EXPECT_EQ(round(2.7), 3);
}

TEST(LoadedLibrary, ThatIsNotThereIsSaidWithTheNeed) {
    try {
        const LoadedLibrary library("libno-such-thing.so.0", kNeed);
        ADD_FAILURE() << "there is one";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code, zr::Exit::StoreFailed);
        EXPECT_THAT(failure.text, testing::StartsWith(std::string(kNeed) + ": libno-such-thing.so.0"));
    }
}

TEST(LoadedLibrary, WithoutAFunctionIsSaidLikewise) {
    const LoadedLibrary library("libm.so.6", kNeed);
    decltype(&::lround) round = nullptr;
    try {
        library.find("no_such_call", round);
        ADD_FAILURE() << "there is one";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code, zr::Exit::StoreFailed);
        EXPECT_EQ(failure.text, std::string(kNeed) + ": libm.so.6 has no no_such_call");
    }
}

// What brings many others along is not there before a command needs it.
TEST(LoadedLibrary, IsNoneThatTheToolBeginsWith) {
    std::FILE* const list = popen("LD_TRACE_LOADED_OBJECTS=1 " ZR_TOOL, "r");
    ASSERT_NE(list, nullptr);
    std::string all;
    char line[512];
    while (std::fgets(line, sizeof line, list) != nullptr) {
        all += line;
    }
    EXPECT_EQ(pclose(list), 0);
    EXPECT_THAT(all, testing::HasSubstr("libZrUtility"));
    for (const char* const library :
         {"libgmime", "libical", "libicu", "libebook", "libgobject", "libxml2", "libpango"}) {
        EXPECT_THAT(all, testing::Not(testing::HasSubstr(library)));
    }
}

}  // namespace
