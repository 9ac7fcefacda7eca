#include <gtest/gtest.h>

#include "support/log_capture.h"

TEST(Sink, SeesWholeRecords) {
    zr::test::LogCapture log;
    zrKelDebugBinLog2("source", 12, zrLogCategory(0x18, kZrLogWarning), 7, 8);
    const auto records = log.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].source, "source");
    EXPECT_EQ(records[0].line, 12);
    EXPECT_EQ(records[0].category, 0x180008u);
    EXPECT_EQ(records[0].arguments, (std::vector<std::uintptr_t>{7, 8}));
}
