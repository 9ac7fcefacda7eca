#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>

#include "support/sandbox.h"
#include "support/zones.h"
#include "time/zone.h"
#include "zr/commands/tool.h"

using nlohmann::json;
using zr::test::lines_of;
using zr::test::Result;

namespace {

Result zone(const char* tz, std::vector<std::string> args = {}) {
    setenv("TZ", tz, 1);
    args.insert(args.begin(), "zone");
    return zr::test::zr(args);
}

TEST(ZoneCommand, ShowsTheZone) {
    const Result result = zone("Europe/Berlin");
    ASSERT_EQ(result.code, 0) << result.err;
    const std::vector<std::string> lines = lines_of(result.out);
    ASSERT_EQ(lines.size(), 9u);
    EXPECT_EQ(lines[0], "zone      Europe/Berlin");
    EXPECT_EQ(lines[2], "standard  CET (UTC+01:00) from the last Sunday of October at 03:00:00");
    EXPECT_EQ(lines[3], "daylight  CEST (UTC+02:00) from the last Sunday of March at 02:00:00");
    EXPECT_EQ(lines[4], "index     exact 110, coarse 110");
    EXPECT_TRUE(lines[5].ends_with(" UTC: CET (UTC+01:00) to CEST (UTC+02:00)") ||
                lines[5].ends_with(" UTC: CEST (UTC+02:00) to CET (UTC+01:00)"))
        << lines[5];
}

TEST(ZoneCommand, ShowsAZoneWithoutDaylightTime) {
    const std::vector<std::string> lines = lines_of(zone("Asia/Kathmandu").out);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], "zone      Asia/Kathmandu");
    EXPECT_TRUE(lines[1].ends_with(" +0545 (UTC+05:45)")) << lines[1];
    EXPECT_EQ(lines[2], "standard  +0545 (UTC+05:45) all year");
    EXPECT_EQ(lines[3], "index     exact 193, coarse 193");
    EXPECT_EQ(lines[4], "next      no change");
}

TEST(ZoneCommand, TellsNoNumberFromNumberZero) {
    EXPECT_EQ(json::parse(zone("Australia/Lord_Howe", {"--json"}).out)["exact_index"], nullptr);
    EXPECT_EQ(json::parse(zone("Australia/Lord_Howe", {"--json"}).out)["coarse_index"], nullptr);
    EXPECT_EQ(json::parse(zone("Etc/GMT+12", {"--json"}).out)["exact_index"], 0);
    EXPECT_EQ(json::parse(zone("Etc/GMT+12", {"--json"}).out)["coarse_index"], 0);
}

TEST(ZoneCommand, ShowsTheNextChangesOfTheData) {
    const char* const name = "Europe/Berlin";
    std::ifstream file(std::string("/usr/share/zoneinfo/") + name, std::ios::binary);
    const auto data = zr::platform::Zone::of_file(
        std::string{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()});
    ASSERT_TRUE(data);
    const std::time_t before = time(nullptr);
    const json shown = json::parse(zone(name, {"--json", "--next", "7"}).out);
    ASSERT_EQ(shown["transitions"].size(), 7u);
    std::int64_t after = before;
    for (const json& transition : shown["transitions"]) {
        const auto change = data->next(after);
        ASSERT_TRUE(change);
        const std::time_t at = change->at;
        std::tm utc{};
        gmtime_r(&at, &utc);
        char text[64];
        strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
        EXPECT_EQ(transition["utc"], text);
        EXPECT_EQ(transition["before"]["offset"], change->before.offset);
        EXPECT_EQ(transition["after"]["name"], std::string(change->after.name));
        after = change->at;
    }
}

TEST(ZoneCommand, ShowsJson) {
    const json shown = json::parse(zone("<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", {"--json"}).out);
    EXPECT_EQ(shown["zone"], "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0");
    EXPECT_EQ(
        shown["standard"],
        json({{"name", "+1030"}, {"offset", 37800}, {"month", 4}, {"week", 1}, {"weekday", 0}, {"time", "02:00:00"}}));
    EXPECT_EQ(
        shown["daylight"],
        json({{"name", "+11"}, {"offset", 39600}, {"month", 10}, {"week", 1}, {"weekday", 0}, {"time", "02:00:00"}}));
    EXPECT_EQ(shown["offset"], shown["daylight_now"] == true ? 39600 : 37800);
    EXPECT_EQ(shown["transitions"].size(), 4u);
    const json plain = json::parse(zone("", {"--json"}).out);
    EXPECT_EQ(plain["zone"], "UTC");
    EXPECT_EQ(plain["daylight"], nullptr);
    EXPECT_EQ(plain["utc"].get<std::string>(), plain["local"].get<std::string>() + "Z");
}

TEST(ZoneCommand, ShowsTheSystemsZone) {
    const std::filesystem::path link = zr::test::sandbox() / "localtime";
    std::filesystem::create_symlink("/usr/share/zoneinfo/Asia/Tokyo", link);
    setenv("ZR_ZONE_FILE", link.c_str(), 1);
    unsetenv("TZ");
    const Result result = zr::test::zr({"zone"});
    EXPECT_EQ(lines_of(result.out).at(0), "zone      Asia/Tokyo");
    std::ofstream(zr::test::sandbox() / "broken") << "nothing";
    setenv("ZR_ZONE_FILE", (zr::test::sandbox() / "broken").c_str(), 1);
    const Result broken = zr::test::zr({"zone"});
    EXPECT_EQ(broken.code, 13);
    EXPECT_EQ(broken.err,
              "zr: the system's zone, " + (zr::test::sandbox() / "broken").string() + ": this is no zone data\n");
}

TEST(ZoneCommand, RefusesAZoneThatIsNotThere) {
    const Result result = zone("Nowhere/City");
    EXPECT_EQ(result.code, 13);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "zr: TZ=Nowhere/City: there is no such zone\n");
    EXPECT_EQ(zone("zone.tab").err, "zr: TZ=zone.tab: this is no zone data\n");
    EXPECT_EQ(zone("a\x1b[31m").err, "zr: TZ=a\\x1b[31m: there is no such zone\n");
}

TEST(ZoneCommand, RefusesAWrongCommandLine) {
    EXPECT_EQ(zone("UTC", {"--next", "0"}).code, 2);
    EXPECT_EQ(zone("UTC", {"--next", "x"}).code, 2);
    EXPECT_EQ(zone("UTC", {"Europe/Berlin"}).code, 2);
}

}  // namespace
