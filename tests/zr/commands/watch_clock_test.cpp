#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/time_changes.h"
#include "zr/commands/tool.h"

namespace {

using nlohmann::json;
using zr::test::Child;
using zr::test::read_file;
using zr::test::RunningZr;
using zr::test::TimeChanges;

// Changes what it is told to; a process of its own, as whoever sets the clock is.
ZR_CHILD(changer) {
    const TimeChanges changes = TimeChanges::of_parent();
    for (std::string what = zr::test::hear(); !what.empty(); what = zr::test::hear()) {
        if (what == "clock") {
            changes.set_clock();
        } else {
            changes.make_zone(what, read_file("/usr/share/zoneinfo/" + what));
            changes.link_zone(what);
        }
    }
    return 0;
}

class WatchClock : public testing::Test {
protected:
    WatchClock() {
        unsetenv("TZ");
        std::filesystem::create_directories(changes_.folder() / "Europe");
        std::filesystem::create_directories(changes_.folder() / "Asia");
        std::filesystem::create_directories(changes_.folder() / "Etc");
        changes_.make_zone("Etc/UTC", read_file("/usr/share/zoneinfo/Etc/UTC"));
        changes_.link_zone("Etc/UTC");
    }
    void change(const std::string& what) { changer_.say(what); }

    const TimeChanges changes_;

private:
    Child changer_{"changer"};
};

void expect_line(const std::string& line, const std::string& rest) {
    const std::string time = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )";
    EXPECT_TRUE(std::regex_match(line, std::regex(time + rest))) << line;
}

const std::string kLocal = R"(: \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )";

}  // namespace

TEST_F(WatchClock, PrintsChangesAsTheyCome) {
    RunningZr watch({"watch", "--clock"});
    expect_line(watch.read_line(), "now" + kLocal + R"(\+00:00 .*)");
    change("clock");
    expect_line(watch.read_line(), "clock" + kLocal + R"(\+00:00 .*)");
    change("Asia/Tokyo");
    expect_line(watch.read_line(), "zone" + kLocal + R"(\+09:00 .*)");
    change("clock");
    expect_line(watch.read_line(), "clock" + kLocal + R"(\+09:00 .*)");
    change("Asia/Kolkata");
    expect_line(watch.read_line(), "zone" + kLocal + R"(\+05:30 .*)");
    watch.kill(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
    EXPECT_EQ(watch.read_line(), "");
}

TEST_F(WatchClock, PrintsJsonLines) {
    RunningZr watch({"watch", "--clock", "--json"});
    json line = json::parse(watch.read_line());
    EXPECT_EQ(line["change"], "now");
    EXPECT_EQ(line["offset"], 0);
    EXPECT_FALSE(line.contains("moved"));
    EXPECT_EQ(line["time"], line["local"].get<std::string>() + "Z");
    change("clock");
    line = json::parse(watch.read_line());
    EXPECT_EQ(line["change"], "clock");
    EXPECT_EQ(line["moved"], 0.0);
    change("Asia/Tokyo");
    line = json::parse(watch.read_line());
    EXPECT_EQ(line["change"], "zone");
    EXPECT_EQ(line["offset"], 9 * 3600);
    EXPECT_TRUE(line["zone"].is_string());
    watch.kill(SIGINT);
    EXPECT_EQ(watch.wait(), 0);
}

TEST_F(WatchClock, TellsEveryWatcherEachChangeOnce) {
    RunningZr first({"watch", "--clock"});
    RunningZr second({"watch", "--clock"});
    expect_line(first.read_line(), "now.*");
    expect_line(second.read_line(), "now.*");
    for (int round = 0; round < 5; ++round) {
        change("clock");
        expect_line(first.read_line(), "clock.*");
        expect_line(second.read_line(), "clock.*");
    }
    // One that ends is no change to the other.
    first.kill(SIGHUP);
    EXPECT_EQ(first.wait(), 0);
    change("Europe/Berlin");
    expect_line(second.read_line(), "zone.*");
}

TEST_F(WatchClock, SaysThatAZoneCannotBeRead) {
    setenv("TZ", "No/Such_Zone", 1);
    RunningZr lines({"watch", "--clock"});
    expect_line(lines.read_line(), "now: no zone No/Such_Zone");
    RunningZr objects({"watch", "--clock", "--json"});
    const json line = json::parse(objects.read_line());
    EXPECT_TRUE(line["local"].is_null());
    EXPECT_TRUE(line["offset"].is_null());
    EXPECT_EQ(line["zone"], "No/Such_Zone");
}

TEST_F(WatchClock, SaysThatTheClockCannotBeWatched) {
    setenv("ZR_ZONE_FILE", "/nowhere/localtime", 1);
    const zr::test::Result result = zr::test::zr({"watch", "--clock"});
    EXPECT_EQ(result.code, 6);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(result.err.starts_with("zr: the clock cannot be watched: ")) << result.err;
}
