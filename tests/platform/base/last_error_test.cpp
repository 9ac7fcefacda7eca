#include <gtest/gtest.h>

#include <thread>

#include "platform/base.h"

TEST(LastError, KeepsWhatIsSet) {
    SetLastError(ERROR_ACCESS_DENIED);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}

TEST(LastError, BelongsToItsThread) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    DWORD before = 1;
    std::thread other([&before] {
        before = GetLastError();
        SetLastError(ERROR_BUSY);
    });
    other.join();
    EXPECT_EQ(before, ERROR_SUCCESS);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}
