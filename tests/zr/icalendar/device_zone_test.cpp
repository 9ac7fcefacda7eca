#include "zr/icalendar/device_zone.h"

#include <gtest/gtest.h>

#include <random>

#include "zr/icalendar/calendars.h"
#include "zr/icalendar/zones.h"

namespace {

using namespace std::chrono;
using zr::test::at;
using zr::test::use_zone;

// The zone as a calendar of another device would read it.
zr::Zone read_again(zr::CalendarZones& zones, const std::string& vtimezone, const std::string& id) {
    const std::string text = zr::test::calendar_text(vtimezone);
    zr::LineReader lines(zr::read_from_memory(text));
    zr::CalendarSplitter splitter(lines);
    zr::RawComponent raw;
    std::vector<zr::Problem> problems;
    EXPECT_EQ(splitter.next(raw, problems), zr::CalendarSplitter::Part::Component);
    zones.add(raw, problems);
    EXPECT_TRUE(problems.empty()) << problems[0].reason;
    zr::Zone zone;
    EXPECT_TRUE(zones.find(id, zone));
    return zone;
}

TEST(DeviceZone, WritesWhatOtherProgramsReadAlike) {
    for (const char* name :
         {"Europe/Berlin", "America/New_York", "America/St_Johns", "Australia/Lord_Howe", "Africa/Casablanca",
          "Europe/Dublin", "Asia/Jerusalem", "Asia/Kolkata", "America/Sao_Paulo", "Pacific/Apia", "Africa/Cairo",
          "America/Santiago", "Pacific/Auckland", "Asia/Tehran", "EST5EDT,M3.2.0,M11.1.0", "<+0330>-3:30"}) {
        use_zone(name);
        std::string text;
        zr::append_device_vtimezone(text, 1980);
        const std::string id = zr::device_zone_id();
        use_zone("Asia/Tokyo");
        zr::CalendarZones zones;
        const zr::Zone zone = read_again(zones, text, id);
        ASSERT_EQ(zone.kind, zr::Zone::Kind::Other) << name;
        use_zone(name);
        std::mt19937 random(1);
        std::uniform_int_distribution<std::int64_t> instants(
            sys_days(year(1980) / 1 / 1).time_since_epoch() / seconds(1),
            sys_days(year(2099) / 1 / 1).time_since_epoch() / seconds(1));
        for (int i = 0; i < 3000; ++i) {
            const sys_seconds instant{seconds(instants(random))};
            ASSERT_EQ(zr::wall_of(instant, zone), zr::device_time(instant))
                << name << " " << instant.time_since_epoch().count();
        }
        // Right around each change too.
        for (const zr::ZoneChange& change :
             zr::zone_changes(sys_days(year(1980) / 1 / 1), sys_days(year(2099) / 1 / 1))) {
            for (const seconds off : {seconds(-1), seconds(0)}) {
                ASSERT_EQ(zr::wall_of(change.at + off, zone), zr::device_time(change.at + off)) << name;
            }
        }
    }
}

TEST(DeviceZone, GoesBothWays) {
    for (const char* name : {"Europe/Berlin", "America/New_York", "Australia/Lord_Howe", "UTC"}) {
        use_zone(name);
        std::mt19937 random(2);
        std::uniform_int_distribution<std::int64_t> instants(-9000000000, 60000000000);
        for (int i = 0; i < 2000; ++i) {
            const zr::Moment wall = zr::device_time(sys_seconds(seconds(instants(random))));
            ASSERT_EQ(zr::device_time(zr::device_utc(wall)), wall) << name;
        }
    }
    use_zone("Europe/Berlin");
    EXPECT_EQ(zr::device_utc(at(2026, 7, 1, 12)), sys_days(year(2026) / 7 / 1) + hours(10));
    // A time that the clock skips is that of the offset before.
    EXPECT_EQ(zr::device_utc(at(2026, 3, 29, 2, 30)), sys_days(year(2026) / 3 / 29) + hours(1) + minutes(30));
}

TEST(DeviceZone, HasAName) {
    use_zone("Europe/Berlin");
    EXPECT_EQ(zr::device_zone_id(), "Europe/Berlin");
    EXPECT_FALSE(zr::device_is_utc());
    use_zone(":/usr/share/zoneinfo/Asia/Tokyo");
    EXPECT_EQ(zr::device_zone_id(), "Asia/Tokyo");
    use_zone("");
    EXPECT_EQ(zr::device_zone_id(), "UTC");
    EXPECT_TRUE(zr::device_is_utc());
    use_zone("EST5EDT,M3.2.0,M11.1.0");
    EXPECT_EQ(zr::device_zone_id(), "EST5EDT,M3.2.0,M11.1.0");
}

}  // namespace
