#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <thread>

#include "ZrLog/ZrLog.h"
#include "ZrLog/ZrLogReader.h"
#include "ZrLog/format.h"
#include "ZrLog/log_support.h"
#include "support/child.h"
#include "support/forked.h"
#include "support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using zr::test::Child;
using zr::test::LogContents;
using zr::test::read_log;
using zr::test::TempFolder;

std::string bytes_of(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void put_bytes(const fs::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

class LogFileTest : public testing::Test {
protected:
    ~LogFileTest() override { zrLogSetFile(nullptr); }

    TempFolder folder_;
    const fs::path path_ = folder_.host() / "log";
};

// Writes records 0.. until it is killed or `count` are written, and says each number after its record.
ZR_CHILD(log_writer) {
    const int count = std::stoi(args[0]);
    const bool tell = args[1] == "tell";
    zr::test::say("ready");
    for (int i = 0; i < count; ++i) {
        zrKelDebugBinLog2("child.cpp", i, 0x730010, static_cast<std::uintptr_t>(getpid()), i);
        if (tell) zr::test::say(std::to_string(i));
    }
    return zrLogError() ? 1 : 0;
}

}  // namespace

TEST_F(LogFileTest, KeepsEveryFact) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    EXPECT_EQ(zrLogError(), nullptr);
    zrKelDebugBinLog0("zero.cpp", 1, 0x730004);
    zrKelDebugBinLog4("four.cpp", -2, 0xFFFFFFFF, 1, 0, UINTPTR_MAX, 7);
    zrKelDebugBinLog1(nullptr, 3, 0x10, 5);
    const LogContents log = read_log(path_);
    ASSERT_EQ(log.entries.size(), 3u) << log.error;
    EXPECT_EQ(log.entries[0].source, "zero.cpp");
    EXPECT_EQ(log.entries[0].line, 1);
    EXPECT_EQ(log.entries[0].category, 0x730004u);
    EXPECT_EQ(log.entries[0].argumentCount, 0);
    EXPECT_EQ(log.entries[0].process, static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(log.entries[0].thread, static_cast<std::uint32_t>(gettid()));
    EXPECT_EQ(log.entries[1].line, -2);
    EXPECT_EQ(log.entries[1].category, 0xFFFFFFFFu);
    EXPECT_THAT(log.entries[1].arguments, testing::ElementsAre(1, 0, UINTPTR_MAX, 7));
    EXPECT_GE(log.entries[1].time, log.entries[0].time);
    EXPECT_EQ(log.entries[2].source, "");
    EXPECT_EQ(log.statistics.damaged + log.statistics.unfinished + log.statistics.missing + log.statistics.lost, 0u);
    struct stat state;
    ASSERT_EQ(stat(path_.c_str(), &state), 0);
    EXPECT_EQ(state.st_mode & 0777, 0600u);
}

TEST_F(LogFileTest, KeepsBuffersOfEverySizeUpToTheLimit) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    std::vector<std::string> written;
    std::mt19937 random(1);
    for (const std::size_t size : {0, 1, 23, 24, 25, 79, 80, 81, 136, 137, 4096, 1 << 20, (1 << 20) + 1}) {
        std::string data(size, '\0');
        for (char& c : data) {
            c = static_cast<char>(random());
        }
        zrKelDebugBinBuffer("b", 1, kZrLogBuffer, data.data(), data.size());
        written.push_back(data);
    }
    zrKelDebugBinBuffer("b", 1, kZrLogBuffer, nullptr, 0);
    const LogContents log = read_log(path_);
    ASSERT_EQ(log.entries.size(), written.size() + 1);
    for (std::size_t i = 0; i < written.size(); ++i) {
        EXPECT_TRUE(log.entries[i].isBuffer);
        EXPECT_EQ(log.entries[i].size, written[i].size());
        EXPECT_TRUE(log.entries[i].data == written[i].substr(0, 1 << 20)) << written[i].size();
    }
    EXPECT_TRUE(log.entries.back().isBuffer);
}

TEST_F(LogFileTest, KeepsSourceTagsWholeUpToTheLimit) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    const std::string longest(1024, 'x');
    std::vector<std::string> tags = {"", "a", longest, ".\\Helpers\\ContactsManager.cppzrwindowsmobile"};
    for (int i = 0; i < 3000; ++i) {
        tags.push_back("source " + std::to_string(i));
    }
    for (int round = 0; round < 2; ++round) {
        for (const std::string& tag : tags) {
            zrKelDebugBinLog0(tag.c_str(), 1, 1);
        }
    }
    zrKelDebugBinLog0((longest + "cut off").c_str(), 1, 1);
    const LogContents log = read_log(path_);
    ASSERT_EQ(log.entries.size(), tags.size() * 2 + 1);
    for (std::size_t i = 0; i < tags.size() * 2; ++i) {
        ASSERT_EQ(log.entries[i].source, tags[i % tags.size()]);
    }
    EXPECT_EQ(log.entries.back().source, longest);
}

TEST_F(LogFileTest, AppendsToALogThatIsThere) {
    for (int run = 0; run < 3; ++run) {
        setenv("ZR_LOG", path_.c_str(), 1);
        Child child("log_writer", {"10", "quiet"});
        EXPECT_EQ(child.wait(), 0);
        unsetenv("ZR_LOG");
    }
    const LogContents log = read_log(path_);
    ASSERT_EQ(log.entries.size(), 30u);
    EXPECT_EQ(log.entries[29].line, 9);
}

TEST_F(LogFileTest, RefusesWhatIsNoLogAndLeavesItAlone) {
    const std::string texts[] = {"x", "hello, world\n", std::string(8192, '\0'), std::string(100, 'Z')};
    for (const std::string& text : texts) {
        put_bytes(path_, text);
        EXPECT_FALSE(zrLogSetFile(path_.c_str()));
        ASSERT_NE(zrLogError(), nullptr);
        EXPECT_THAT(zrLogError(), testing::HasSubstr("not a log file"));
        zrKelDebugBinLog0("s", 1, 1);
        EXPECT_EQ(bytes_of(path_), text);
        EXPECT_NE(read_log(path_).error, "");
    }
    EXPECT_FALSE(zrLogSetFile(folder_.host().c_str()));
    EXPECT_FALSE(zrLogSetFile((folder_.host() / "no/such/folder").c_str()));
    EXPECT_FALSE(zrLogSetFile("/dev/null"));
    EXPECT_TRUE(zrLogSetFile(nullptr));
    EXPECT_EQ(zrLogError(), nullptr);
}

TEST_F(LogFileTest, TheSinkSeesTheSameRecords) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    std::vector<int> lines;
    zrLogSetSink([](const ZrLogRecord& record,
                    void* context) { static_cast<std::vector<int>*>(context)->push_back(record.line); },
                 &lines);
    for (int i = 0; i < 5; ++i) {
        zrKelDebugBinLog0("s", i, 1);
    }
    zrLogSetSink(nullptr, nullptr);
    zrKelDebugBinLog0("s", 5, 1);
    EXPECT_THAT(lines, testing::ElementsAre(0, 1, 2, 3, 4));
    EXPECT_EQ(read_log(path_).entries.size(), 6u);
}

TEST_F(LogFileTest, LeavesErrnoAlone) {
    put_bytes(path_, "no log");
    setenv("ZR_LOG", path_.c_str(), 1);
    errno = 1234;
    zrKelDebugBinLog0("s", 1, 1);
    EXPECT_EQ(errno, 1234);
    unsetenv("ZR_LOG");
    const fs::path good = folder_.host() / "good";
    ASSERT_TRUE(zrLogSetFile(good.c_str()));
    errno = 1234;
    zrKelDebugBinBuffer("s", 1, 1, std::string(100000, 'x').c_str(), 100000);
    EXPECT_EQ(errno, 1234);
}

TEST_F(LogFileTest, ThreadsWriteAtOnce) {
    constexpr int kThreads = 4;
    constexpr int kRecords = 20000;
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const std::string tag = "thread " + std::to_string(t);
            const std::string data(300, static_cast<char>('a' + t));
            for (int i = 0; i < kRecords; ++i) {
                if (i % 16 == 0) {
                    zrKelDebugBinBuffer(tag.c_str(), i, kZrLogBuffer, data.data(), data.size());
                } else {
                    zrKelDebugBinLog2(tag.c_str(), i, 1, t, i);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const LogContents log = read_log(path_);
    ASSERT_EQ(log.entries.size(), static_cast<std::size_t>(kThreads * kRecords));
    EXPECT_EQ(log.statistics.damaged + log.statistics.unfinished + log.statistics.lost, 0u);
    std::map<std::string, int> next;
    for (const ZrLogEntry& entry : log.entries) {
        ASSERT_EQ(entry.line, next[entry.source]++);
        if (entry.isBuffer) {
            ASSERT_EQ(entry.data, std::string(300, static_cast<char>('a' + (entry.source.back() - '0'))));
        } else {
            ASSERT_EQ(entry.arguments[1], static_cast<std::uint64_t>(entry.line));
        }
    }
}

TEST_F(LogFileTest, ProcessesWriteAtOnceToANewFile) {
    constexpr int kRecords = 30000;
    setenv("ZR_LOG", path_.c_str(), 1);
    Child first("log_writer", {std::to_string(kRecords), "quiet"});
    Child second("log_writer", {std::to_string(kRecords), "quiet"});
    unsetenv("ZR_LOG");
    const std::uint32_t pids[] = {static_cast<std::uint32_t>(first.pid()), static_cast<std::uint32_t>(second.pid())};
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(second.wait(), 0);
    const LogContents log = read_log(path_);
    ASSERT_EQ(log.entries.size(), 2u * kRecords);
    std::map<std::uint32_t, int> next;
    for (const ZrLogEntry& entry : log.entries) {
        ASSERT_EQ(entry.line, next[entry.process]++);
        ASSERT_EQ(entry.source, "child.cpp");
    }
    EXPECT_EQ(next[pids[0]], kRecords);
    EXPECT_EQ(next[pids[1]], kRecords);
}

TEST_F(LogFileTest, AKilledProcessLosesNothingItHasWritten) {
    for (int round = 0; round < 5; ++round) {
        fs::remove(path_);
        setenv("ZR_LOG", path_.c_str(), 1);
        Child child("log_writer", {"100000000", "tell"});
        unsetenv("ZR_LOG");
        ASSERT_EQ(child.hear(), "ready");
        int told = -1;
        while (told < 200 * (round + 1)) {
            told = std::stoi(child.hear());
        }
        child.kill(SIGKILL);
        EXPECT_EQ(child.wait(), -SIGKILL);
        const LogContents log = read_log(path_);
        ASSERT_GT(log.entries.size(), static_cast<std::size_t>(told));
        for (std::size_t i = 0; i < log.entries.size(); ++i) {
            ASSERT_EQ(log.entries[i].line, static_cast<int>(i));
        }
        EXPECT_EQ(log.statistics.damaged, 0u);
    }
}

TEST_F(LogFileTest, AForkedChildWritesWithItsOwnIds) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    zrKelDebugBinLog0("s", 1, 1);
    const pid_t pid = zr::test::fork_beside_threads();
    if (pid == 0) {
        zrKelDebugBinLog0("s", 2, 1);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    zrKelDebugBinLog0("s", 3, 1);
    const LogContents log = read_log(path_);
    ASSERT_EQ(log.entries.size(), 3u);
    EXPECT_EQ(log.entries[1].process, static_cast<std::uint32_t>(pid));
    EXPECT_EQ(log.entries[1].thread, static_cast<std::uint32_t>(pid));
    EXPECT_EQ(log.entries[2].process, static_cast<std::uint32_t>(getpid()));
}

namespace {

// May make files of 2,000 bytes: of 100 records half are longer. Then it may make any.
ZR_CHILD(log_without_room) {
    rlimit limit{2000, RLIM_INFINITY};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
    const std::string large(3000, 'x');
    for (int i = 0; i < 100; ++i) {
        if (i % 2 == 0) {
            zrKelDebugBinBuffer("s", i, 1, large.data(), large.size());
            if (i > 0 && !zrLogError()) return 3;
        } else {
            zrKelDebugBinLog0("s", i, 1);
        }
    }
    limit.rlim_cur = RLIM_INFINITY;
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
    zrKelDebugBinLog0("s", 100, 1);
    return zrLogError() ? 1 : 0;
}

ZR_CHILD(log_within_limit) {
    const rlimit limit{1 << 20, 1 << 20};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
    for (int i = 0; i < 40000; ++i) {
        zrKelDebugBinLog0("s", i, 1);
    }
    return zrLogError() ? 1 : 0;
}

}  // namespace

TEST_F(LogFileTest, CountsWhatFindsNoRoomAndTellsLater) {
    setenv("ZR_LOG", path_.c_str(), 1);
    setenv("ZR_LOG_FILES", "1000", 1);
    Child child("log_without_room");
    EXPECT_EQ(child.wait(), 0);
    unsetenv("ZR_LOG_FILES");
    unsetenv("ZR_LOG");
    const LogContents log = read_log(path_);
    EXPECT_GT(log.entries.size(), 0u);
    EXPECT_GT(log.statistics.lost, 0u);
    EXPECT_EQ(log.entries.back().line, 100);
    // A record that fitted in part was dropped as well.
    EXPECT_EQ(log.entries.size() + log.statistics.lost, 101u);
}

TEST_F(LogFileTest, RotatesBeforeAFileIsLongerThanTheProcessMayMakeIt) {
    setenv("ZR_LOG", path_.c_str(), 1);
    Child child("log_within_limit");
    EXPECT_EQ(child.wait(), 0);
    unsetenv("ZR_LOG");
    const LogContents log = read_log(path_);
    EXPECT_EQ(log.statistics.lost, 0u);
    ASSERT_FALSE(log.entries.empty());
    EXPECT_EQ(log.entries.back().line, 39999);
    EXPECT_TRUE(fs::exists(path_.string() + ".1"));
}

TEST_F(LogFileTest, ReaderGoesOnWithWhatWasWrittenMeanwhile) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    zrKelDebugBinLog0("s", 1, 1);
    std::string error;
    const auto reader = ZrLogReader::open(path_.string(), error);
    ASSERT_TRUE(reader) << error;
    ZrLogEntry entry;
    EXPECT_TRUE(reader->next(entry));
    EXPECT_FALSE(reader->next(entry));
    EXPECT_FALSE(reader->next(entry));
    for (int i = 2; i < 3000; ++i) {
        zrKelDebugBinLog0("later", i, 1);
        ASSERT_TRUE(reader->next(entry));
        ASSERT_EQ(entry.line, i);
        ASSERT_EQ(entry.source, "later");
        ASSERT_FALSE(reader->next(entry));
    }
}

TEST_F(LogFileTest, PassesOverWhatIsNoRecord) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    std::vector<std::size_t> ends;
    const auto note_end = [&] { ends.push_back(static_cast<std::size_t>(fs::file_size(path_))); };
    for (int i = 0; i < 10; ++i) {
        zrKelDebugBinLog0("s", i, 1);
        note_end();
    }
    const std::string large(20000, 'x');
    zrKelDebugBinBuffer("s", 10, 1, large.data(), large.size());
    note_end();
    zrKelDebugBinLog0("s", 11, 1);
    zrLogSetFile(nullptr);
    const std::string whole = bytes_of(path_);

    for (std::size_t at = ends[4]; at < ends[5]; ++at) {
        std::string bent = whole;
        bent[at] = static_cast<char>(bent[at] ^ 0x10);
        put_bytes(path_, bent);
        const LogContents log = read_log(path_);
        ASSERT_EQ(log.entries.size(), 11u) << at;
        EXPECT_EQ(log.statistics.damaged, 1u) << at;
        EXPECT_EQ(log.entries[5].line, 6);
    }

    std::string foreign = whole;
    foreign.insert(ends[2], "some lines that another program wrote\n\xA5ZR\x02\n");
    put_bytes(path_, foreign);
    LogContents log = read_log(path_);
    EXPECT_EQ(log.entries.size(), 12u);
    EXPECT_EQ(log.statistics.damaged, 1u);

    put_bytes(path_, "a line\n" + whole);
    log = read_log(path_);
    EXPECT_EQ(log.entries.size(), 12u);
    EXPECT_EQ(log.statistics.damaged, 1u);

    // A long record that was torn, and short ones behind it.
    put_bytes(path_, whole.substr(0, ends[9] + 5000) + whole.substr(ends[10]));
    log = read_log(path_);
    ASSERT_EQ(log.entries.size(), 11u);
    EXPECT_EQ(log.entries.back().line, 11);
    EXPECT_EQ(log.statistics.damaged, 1u);

    for (std::size_t length = ends[8] + 1; length < ends[9]; ++length) {
        put_bytes(path_, whole.substr(0, length));
        log = read_log(path_);
        ASSERT_EQ(log.entries.size(), 9u);
        EXPECT_EQ(log.statistics.unfinished, 1u);
        EXPECT_EQ(log.statistics.damaged, 0u);
    }
}

TEST_F(LogFileTest, GoesOnBehindATornRecord) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    zrKelDebugBinLog0("s", 1, 1);
    zrLogSetFile(nullptr);
    const std::string one = bytes_of(path_);
    for (std::size_t length = 1; length < one.size(); ++length) {
        put_bytes(path_, one.substr(0, length));
        ASSERT_TRUE(zrLogSetFile(path_.c_str())) << length << ' ' << zrLogError();
        zrKelDebugBinLog0("s", 2, 1);
        const LogContents log = read_log(path_);
        ASSERT_EQ(log.entries.size(), 1u) << length;
        EXPECT_EQ(log.entries[0].line, 2);
        EXPECT_EQ(log.statistics.damaged, 1u);
    }
}

TEST_F(LogFileTest, ManyFalseBeginningsAreReadInBoundedTime) {
    // Each names a length of a MiB, as far as the file goes.
    zr::log::Head head{};
    head.mark = zr::log::kMark;
    head.kind = zr::log::kBuffer;
    head.number = zr::log::kBufferLimit;
    head.length = static_cast<std::uint32_t>(sizeof head + zr::log::kBufferLimit);
    std::string bytes;
    while (bytes.size() < std::size_t{8} << 20) {
        bytes.append(reinterpret_cast<const char*>(&head), sizeof head);
    }
    put_bytes(path_, bytes);
    EXPECT_NE(read_log(path_).error, "");
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    zrKelDebugBinLog0("s", 7, 1);
    EXPECT_EQ(read_log(path_).entries.size(), 1u);
}
