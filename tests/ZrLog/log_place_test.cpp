// What becomes of a kept log when its file is cut, moved, removed, too long or somebody else's.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "ZrLog/ZrLog.h"
#include "ZrLog/ZrLogReader.h"
#include "ZrLog/log_support.h"
#include "support/child.h"
#include "support/forked.h"
#include "support/instrumented.h"
#include "support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using zr::test::Child;
using zr::test::LogContents;
using zr::test::read_log;
using zr::test::TempFolder;

class Variable {
public:
    Variable(const char* name, const std::string& value) : name_(name) { setenv(name, value.c_str(), 1); }
    ~Variable() { unsetenv(name_); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

private:
    const char* const name_;
};

class LogPlaceTest : public testing::Test {
protected:
    ~LogPlaceTest() override { zrLogSetFile(nullptr); }

    void empty() const { ASSERT_EQ(truncate(path_.c_str(), 0), 0); }
    std::string earlier(int number) const { return path_ + "." + std::to_string(number); }

    // Writes until it has looked at the file again.
    static void write_on(int line = -1) {
        for (int i = 0; i < 400; ++i) {
            zrKelDebugBinLog2("go on", line, 1, 1, 2);
        }
    }

    TempFolder folder_;
    const std::string path_ = (folder_.host() / "log").string();
};

// Writes records 0.. until it is told to end.
ZR_CHILD(log_until_told) {
    zrKelDebugBinLog0("until", 0, 1);
    zr::test::say("ready");
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 1; !stop; ++i) {
            zrKelDebugBinLog0("until", i, 1);
        }
    });
    zr::test::hear();
    stop = true;
    writer.join();
    zrKelDebugBinLog0("last", 0, 1);
    return zrLogError() ? 1 : 0;
}

ZR_CHILD(log_count) {
    zr::test::say("ready");
    zr::test::hear();
    for (int i = 0; i < std::stoi(args[0]); ++i) {
        zrKelDebugBinLog1("count", i, 1, 5);
    }
    return zrLogError() ? 1 : 0;
}

void expect_last_of(const LogContents& log, pid_t process) {
    EXPECT_TRUE(std::any_of(log.entries.begin(), log.entries.end(), [&](const ZrLogEntry& entry) {
        return entry.source == "last" && entry.process == static_cast<std::uint32_t>(process);
    })) << process;
}

}  // namespace

TEST_F(LogPlaceTest, TruncatingItWhileProcessesWriteEndsNobody) {
    const Variable log("ZR_LOG", path_);
    Child one("log_until_told");
    Child other("log_until_told");
    ASSERT_EQ(one.hear(), "ready");
    ASSERT_EQ(other.hear(), "ready");
    const pid_t processes[] = {one.pid(), other.pid()};
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    for (int i = 0; i < 200; ++i) {
        empty();
        write_on(i);
    }
    one.say("end");
    other.say("end");
    EXPECT_EQ(one.wait(), 0);
    EXPECT_EQ(other.wait(), 0);
    const LogContents contents = read_log(path_);
    expect_last_of(contents, processes[0]);
    expect_last_of(contents, processes[1]);
    EXPECT_GT(contents.statistics.cuts, 0u);
    EXPECT_EQ(contents.statistics.damaged, 0u);
}

TEST_F(LogPlaceTest, CuttingItInTheMiddleOfARecordCostsThatRecord) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    write_on();
    ASSERT_EQ(truncate(path_.c_str(), 1000), 0);
    write_on();
    zrKelDebugBinLog0("s", 1, 1);
    const LogContents contents = read_log(path_);
    EXPECT_EQ(contents.entries.back().line, 1);
    EXPECT_EQ(contents.statistics.cuts, 1u);
    EXPECT_EQ(contents.statistics.damaged, 1u);
}

TEST_F(LogPlaceTest, RemovingItBeginsANewOne) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    for (int i = 0; i < 20; ++i) {
        zrKelDebugBinLog0("before", i, 1);
        ASSERT_TRUE(fs::remove(path_));
        write_on();
        zrKelDebugBinLog0("after", i, 1);
        EXPECT_EQ(zrLogError(), nullptr);
        const LogContents contents = read_log(path_);
        ASSERT_FALSE(contents.entries.empty()) << contents.error;
        EXPECT_EQ(contents.entries.back().source, "after");
        EXPECT_EQ(contents.statistics.cuts, 1u);
    }
}

TEST_F(LogPlaceTest, MovingItLosesNothing) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    zrKelDebugBinLog0("s", 0, 1);
    fs::rename(path_, earlier(1));
    for (int i = 1; i < 1000; ++i) {
        zrKelDebugBinLog0("s", i, 1);
    }
    ASSERT_TRUE(fs::exists(path_));
    const LogContents contents = read_log(path_);
    ASSERT_EQ(contents.entries.size(), 1000u);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(contents.entries[i].line, i);
    }
    EXPECT_EQ(contents.statistics.cuts, 0u);
}

TEST_F(LogPlaceTest, CopyingAndTruncatingItKeepsWhatWasThere) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    for (int i = 0; i < 10; ++i) {
        zrKelDebugBinLog0("s", i, 1);
    }
    fs::copy_file(path_, earlier(1));
    empty();
    for (int i = 10; i < 500; ++i) {
        zrKelDebugBinLog0("s", i, 1);
    }
    const LogContents contents = read_log(path_);
    ASSERT_EQ(contents.entries.size(), 500u);
    EXPECT_EQ(contents.entries[499].line, 499);
    EXPECT_EQ(contents.statistics.cuts, 1u);
}

TEST_F(LogPlaceTest, WhereItCannotBeMadeAgainRecordsAreCounted) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    zrKelDebugBinLog0("s", 0, 1);
    fs::remove(path_);
    ASSERT_EQ(symlink("/dev/null", path_.c_str()), 0);
    write_on();
    ASSERT_NE(zrLogError(), nullptr);
    EXPECT_THAT(zrLogError(), testing::HasSubstr("removed"));
    fs::remove(path_);
    write_on();
    EXPECT_EQ(zrLogError(), nullptr);
    EXPECT_GT(read_log(path_).statistics.lost, 0u);
}

TEST_F(LogPlaceTest, RotatesAndKeepsSoManyFiles) {
    const Variable size("ZR_LOG_SIZE", "64K");
    const Variable files("ZR_LOG_FILES", "3");
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    constexpr int kRecords = 20000;
    for (int i = 0; i < kRecords; ++i) {
        zrKelDebugBinLog1("count", i, 1, 5);
    }
    EXPECT_TRUE(fs::exists(earlier(3)));
    EXPECT_FALSE(fs::exists(earlier(4)));
    for (const std::string& file : {path_, earlier(1), earlier(2), earlier(3)}) {
        EXPECT_LT(fs::file_size(file), 100000u) << file;
    }
    const LogContents contents = read_log(path_);
    ASSERT_GT(contents.entries.size(), 2000u);
    int line = kRecords - static_cast<int>(contents.entries.size());
    for (const ZrLogEntry& entry : contents.entries) {
        ASSERT_EQ(entry.line, line++);
    }
    EXPECT_EQ(contents.statistics.cuts + contents.statistics.damaged + contents.statistics.lost, 0u);
    EXPECT_EQ(read_log(earlier(2)).entries.front().line, read_log(earlier(3)).entries.back().line + 1);
}

TEST_F(LogPlaceTest, ProcessesRotateTogetherAndLoseNothing) {
    const Variable log("ZR_LOG", path_);
    const Variable size("ZR_LOG_SIZE", "64K");
    const Variable files("ZR_LOG_FILES", "1000");
    constexpr int kRecords = 10000;
    constexpr int kProcesses = 3;
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < kProcesses; ++i) {
        children.push_back(std::make_unique<Child>("log_count", std::vector{std::to_string(kRecords)}));
        ASSERT_EQ(children.back()->hear(), "ready");
    }
    for (const auto& child : children) {
        child->say("go");
    }
    for (const auto& child : children) {
        EXPECT_EQ(child->wait(), 0);
    }
    const LogContents contents = read_log(path_);
    EXPECT_EQ(contents.entries.size(), static_cast<std::size_t>(kProcesses * kRecords));
    std::map<std::uint32_t, int> next;
    for (const ZrLogEntry& entry : contents.entries) {
        ASSERT_EQ(entry.line, next[entry.process]++);
    }
    EXPECT_TRUE(fs::exists(earlier(10)));
    EXPECT_EQ(contents.statistics.cuts + contents.statistics.damaged + contents.statistics.lost, 0u);
}

TEST_F(LogPlaceTest, AKillInTheMiddleOfRotatingLeavesAWholeLog) {
    const Variable log("ZR_LOG", path_);
    const Variable size("ZR_LOG_SIZE", "1");
    const Variable files("ZR_LOG_FILES", "1000");
    std::vector<pid_t> processes;
    for (int round = 0; round < 20; ++round) {
        Child child("log_until_told");
        ASSERT_EQ(child.hear(), "ready");
        processes.push_back(child.pid());
        std::this_thread::yield();
        child.kill(SIGKILL);
        EXPECT_EQ(child.wait(), -SIGKILL);
    }
    const LogContents contents = read_log(path_);
    std::map<std::uint32_t, int> next;
    for (const ZrLogEntry& entry : contents.entries) {
        ASSERT_EQ(entry.line, next[entry.process]++);
    }
    EXPECT_EQ(next.size(), processes.size());
    EXPECT_EQ(contents.statistics.damaged, 0u);
}

TEST_F(LogPlaceTest, NothingThatIsNoLogIsRotatedOver) {
    const Variable size("ZR_LOG_SIZE", "64K");
    std::ofstream(earlier(1)) << "what somebody else keeps";
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    for (int i = 0; i < 2000; ++i) {
        zrKelDebugBinLog1("count", i, 1, 5);
    }
    EXPECT_EQ(fs::file_size(earlier(1)), 24u);
    EXPECT_EQ(read_log(path_).entries.size(), 2000u);
}

TEST_F(LogPlaceTest, TheReaderFollowsARotation) {
    const Variable size("ZR_LOG_SIZE", "64K");
    const Variable files("ZR_LOG_FILES", "100");
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    zrKelDebugBinLog0("count", 0, 1);
    std::string error;
    const auto reader = ZrLogReader::open(path_, error);
    ASSERT_TRUE(reader) << error;
    ZrLogEntry entry;
    ASSERT_TRUE(reader->next(entry));
    for (int i = 1; i < 5000; ++i) {
        zrKelDebugBinLog0("count", i, 1);
        if (i % 3 == 0) continue;
        do {
            ASSERT_TRUE(reader->next(entry)) << i;
        } while (entry.line != i);
        ASSERT_FALSE(reader->next(entry));
    }
    EXPECT_EQ(reader->statistics().records, 5000u);
}

TEST_F(LogPlaceTest, RefusesWhatOthersCouldHaveAHandIn) {
    const auto refused = [&](const char* why) {
        EXPECT_FALSE(zrLogSetFile(path_.c_str())) << why;
        ASSERT_NE(zrLogError(), nullptr);
        EXPECT_THAT(zrLogError(), testing::AllOf(testing::HasSubstr(path_), testing::HasSubstr(why)));
        zrLogSetFile(nullptr);
    };
    const std::string target = (folder_.host() / "target").string();
    ASSERT_EQ(symlink(target.c_str(), path_.c_str()), 0);
    refused("symbolic link");
    EXPECT_FALSE(fs::exists(target));
    fs::remove(path_);
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    refused("not a plain file");
    fs::remove(path_);
    ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);
    refused("not a plain file");
    fs::remove(path_);
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    zrLogSetFile(nullptr);
    for (const mode_t mode : {0620, 0602}) {
        ASSERT_EQ(chmod(path_.c_str(), mode), 0);
        refused("can be written by other users");
    }
    ASSERT_EQ(chmod(path_.c_str(), 0644), 0);
    EXPECT_TRUE(zrLogSetFile(path_.c_str()));
    if (chown(path_.c_str(), 12345, static_cast<gid_t>(-1)) == 0) refused("belongs to another user");
}

TEST_F(LogPlaceTest, RefusesLimitsThatSayNothing) {
    for (const char* text : {"many", "-1", "1KB", "99999999999999999999", "8388608T", " 1"}) {
        const Variable size("ZR_LOG_SIZE", text);
        EXPECT_FALSE(zrLogSetFile(path_.c_str())) << text;
        EXPECT_THAT(zrLogError(), testing::HasSubstr("ZR_LOG_SIZE"));
    }
    const Variable files("ZR_LOG_FILES", "0");
    EXPECT_FALSE(zrLogSetFile(path_.c_str()));
    EXPECT_THAT(zrLogError(), testing::HasSubstr("ZR_LOG_FILES"));
    EXPECT_FALSE(fs::exists(path_));
}

TEST_F(LogPlaceTest, SurvivesAProgramThatClosesAllDescriptors) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    zrKelDebugBinLog0("s", 0, 1);
    const std::string own = (folder_.host() / "own").string();
    EXPECT_EQ(zr::test::in_fork([&] {
                  closefrom(3);
                  const int file = open(own.c_str(), O_WRONLY | O_CREAT, 0600);
                  if (file != 3) return 1;
                  for (int i = 1; i < 1000; ++i) {
                      zrKelDebugBinLog0("s", i, 1);
                  }
                  return zrLogError() ? 2 : 0;
              }),
              0);
    EXPECT_EQ(fs::file_size(own), 0u);
    const LogContents contents = read_log(path_);
    ASSERT_EQ(contents.entries.size(), 1000u);
    EXPECT_EQ(contents.entries.back().line, 999);
}

TEST_F(LogPlaceTest, ForksUnderLoadLogOnInBothProcesses) {
    const Variable size("ZR_LOG_SIZE", "64K");
    const Variable files("ZR_LOG_FILES", "9999");
    constexpr int kForks = 300 / zr::test::kStride;
    constexpr int kEach = 100;
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    std::atomic<std::uint64_t> written{0};
    {
        const auto body = [&] {
            zrKelDebugBinLog0("load", 1, 1);
            written.fetch_add(1);
        };
        const zr::test::Load load({body, body});
        for (int i = 0; i < kForks; ++i) {
            const zr::test::Forked child([&] {
                for (int record = 0; record < kEach; ++record) {
                    zrKelDebugBinLog0("child", record, 1);
                }
                return zrLogError() ? 1 : 0;
            });
            zrKelDebugBinLog0("parent", i, 1);
            ASSERT_EQ(child.wait(), 0) << i;
        }
    }
    const LogContents contents = read_log(path_);
    std::map<std::string, std::uint64_t> count;
    for (const ZrLogEntry& entry : contents.entries) {
        ++count[entry.source];
    }
    EXPECT_EQ(count["parent"], std::uint64_t{kForks});
    EXPECT_EQ(count["child"], std::uint64_t{kForks * kEach});
    EXPECT_EQ(count["load"], written.load());
    EXPECT_EQ(contents.statistics.damaged + contents.statistics.lost + contents.statistics.cuts, 0u);
}
