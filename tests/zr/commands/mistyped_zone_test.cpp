#include <gtest/gtest.h>
#include <stdlib.h>

#include "support/sandbox.h"
#include "zr/commands/tool.h"

namespace {

using zr::test::Result;
using zr::test::zr;

// A zone that is not there would be taken for UTC, and appointments be off by hours.
TEST(MistypedZone, ConvertsNoTimes) {
    const zr::test::TempFolder folder;
    setenv("ZR_HOME", folder.host().c_str(), 1);
    const std::string calendar =
        "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nBEGIN:VEVENT\r\nUID:u\r\nDTSTART:20260105T090000Z\r\n"
        "RRULE:FREQ=DAILY;COUNT=3\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
    setenv("TZ", "Europe/Berln", 1);
    for (const std::vector<std::string>& command : {std::vector<std::string>{"calendar", "import", "-"},
                                                    {"calendar", "export"},
                                                    {"calendar", "occurrence", "1", "2026-01-05"},
                                                    {"zone"}}) {
        const Result result = zr(command, calendar);
        EXPECT_EQ(result.code, 13) << command.back();
        EXPECT_EQ(result.err, "zr: TZ=Europe/Berln: there is no such zone\n");
        EXPECT_EQ(result.out, "");
    }
    setenv("TZ", "Europe/Berlin", 1);
    EXPECT_EQ(zr({"calendar", "list"}).code, 1);
    EXPECT_EQ(zr({"calendar", "import", "-"}, calendar).code, 0);
    EXPECT_NE(zr({"calendar", "list"}).out.find("2026-01-05 10:00"), std::string::npos);
    unsetenv("TZ");
}

}  // namespace
