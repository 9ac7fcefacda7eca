#include "zr/base/loaded_library.h"

#include <gmock/gmock.h>

#include <cmath>

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

}  // namespace
