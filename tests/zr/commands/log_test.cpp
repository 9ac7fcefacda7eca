// zr log show: since when, and what is written while it looks on.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <ctime>
#include <nlohmann/json.hpp>

#include "zr/commands/own_store.h"

namespace {

using nlohmann::json;
using zr::test::expect_failure;
using zr::test::lines_of;
using zr::test::RunningZr;
using zr::test::zr;

class LogTool : public zr::test::OwnStore {
protected:
    void log_something() const {
        setenv("ZR_LOG", file("zr.log").c_str(), 1);
        EXPECT_EQ(zr({"contacts", "find", "--exact", "a@x.y"}).code, 1);
        unsetenv("ZR_LOG");
    }
    std::size_t records_since(const std::string& when) const {
        return lines_of(zr({"log", "show", "--since", when, file("zr.log")}).out).size();
    }
};

TEST_F(LogTool, ShowsPathAndTagApart) {
    log_something();
    const std::string line = lines_of(zr({"log", "show", file("zr.log")}).out).at(0);
    EXPECT_NE(line.find(".cpp:"), std::string::npos) << line;
    EXPECT_NE(line.find(" zrwindowsmobile"), std::string::npos) << line;
    const json record = json::parse(lines_of(zr({"log", "show", "--json", file("zr.log")}).out).at(0));
    EXPECT_EQ(record["source"], record["path"].get<std::string>() + record["tag"].get<std::string>());
    EXPECT_EQ(record["tag"], "zrwindowsmobile");
}

TEST_F(LogTool, ShowsWhatIsNotBeforeATime) {
    log_something();
    const std::size_t all = lines_of(zr({"log", "show", file("zr.log")}).out).size();
    ASSERT_GT(all, 0u);
    EXPECT_EQ(records_since("2h"), all);
    EXPECT_EQ(records_since("2001-02-03"), all);
    EXPECT_EQ(records_since("4000-01-01T10:20"), 0u);
    // The first record's own time, as it is printed, leaves nothing out.
    const std::string first = lines_of(zr({"log", "show", file("zr.log")}).out).at(0);
    EXPECT_EQ(records_since(first.substr(0, first.find(' '))), all);
    for (const char* const wrong :
         {"yesterday", "10x", "2026-13-01", "2026-01-01T25:00", "2026-01-01T10:00:99", "-5m"}) {
        expect_failure(zr({"log", "show", "--since=" + std::string(wrong), file("zr.log")}), 2, "--since");
    }
}

TEST_F(LogTool, FollowsALogThatIsWrittenAndRotated) {
    log_something();
    const std::vector<std::string> before = lines_of(zr({"log", "show", file("zr.log")}).out);
    RunningZr follow({"log", "show", "--follow", file("zr.log")});
    for (const std::string& line : before) {
        EXPECT_EQ(follow.read_line(), line);
    }
    log_something();
    const std::string next = follow.read_line();
    const std::vector<std::string> now = lines_of(zr({"log", "show", file("zr.log")}).out);
    ASSERT_GT(now.size(), before.size());
    EXPECT_EQ(next, now[before.size()]);
    for (std::size_t i = before.size() + 1; i < now.size(); ++i) {
        EXPECT_EQ(follow.read_line(), now[i]);
    }
    std::filesystem::rename(file("zr.log"), file("zr.log.1"));
    log_something();
    EXPECT_EQ(follow.read_line(), lines_of(zr({"log", "show", file("zr.log")}).out).at(now.size()));
    follow.kill(SIGTERM);
    EXPECT_EQ(follow.wait(), 0);
}

TEST_F(LogTool, NamesTheFileOnce) {
    const std::string path = file("no.log", "text\n");
    const auto result = zr({"log", "show", path});
    EXPECT_EQ(result.err, "zr: " + path + ": not a log file of this version\n");
}

}  // namespace
