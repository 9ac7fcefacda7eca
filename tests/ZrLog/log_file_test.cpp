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
#include "support/child.h"
#include "support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using zr::test::Child;
using zr::test::TempFolder;

struct Contents {
    std::vector<ZrLogEntry> entries;
    ZrLogStatistics statistics;
    std::string error;
};

Contents read_all(const fs::path& path, int wait = 0) {
    Contents contents;
    const auto reader = ZrLogReader::open(path.string(), contents.error, wait);
    if (!reader) return contents;
    ZrLogEntry entry;
    while (reader->next(entry)) {
        contents.entries.push_back(entry);
    }
    contents.statistics = reader->statistics();
    return contents;
}

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
    const Contents log = read_all(path_);
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
    const Contents log = read_all(path_);
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
    const Contents log = read_all(path_);
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
    const Contents log = read_all(path_);
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
        EXPECT_NE(read_all(path_).error, "");
    }
    EXPECT_FALSE(zrLogSetFile(folder_.host().c_str()));
    EXPECT_FALSE(zrLogSetFile((folder_.host() / "no/such/folder").c_str()));
    EXPECT_FALSE(zrLogSetFile("/dev/null"));
    EXPECT_TRUE(zrLogSetFile(nullptr));
    EXPECT_EQ(zrLogError(), nullptr);
}

TEST_F(LogFileTest, RefusesALogThatIsCutShort) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    zrKelDebugBinLog0("s", 1, 1);
    ASSERT_TRUE(zrLogSetFile(nullptr));
    const std::string cut = bytes_of(path_).substr(0, 5000);
    const fs::path other = folder_.host() / "cut";
    put_bytes(other, cut);
    EXPECT_FALSE(zrLogSetFile(other.c_str()));
    EXPECT_EQ(bytes_of(other), cut);
    EXPECT_EQ(read_all(other).entries.size(), 1u);
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
    EXPECT_EQ(read_all(path_).entries.size(), 6u);
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
    const Contents log = read_all(path_);
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
    const Contents log = read_all(path_);
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
        const Contents log = read_all(path_);
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
    const pid_t pid = fork();
    if (pid == 0) {
        zrKelDebugBinLog0("s", 2, 1);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    zrKelDebugBinLog0("s", 3, 1);
    const Contents log = read_all(path_);
    ASSERT_EQ(log.entries.size(), 3u);
    EXPECT_EQ(log.entries[1].process, static_cast<std::uint32_t>(pid));
    EXPECT_EQ(log.entries[1].thread, static_cast<std::uint32_t>(pid));
    EXPECT_EQ(log.entries[2].process, static_cast<std::uint32_t>(getpid()));
}

namespace {

ZR_CHILD(log_without_room) {
    const rlimit limit{std::stoul(args[0]), RLIM_INFINITY};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
    for (int i = 0; i < 100000; ++i) {
        zrKelDebugBinLog0("s", i, 1);
    }
    return zrLogError() ? 1 : 0;
}

}  // namespace

TEST_F(LogFileTest, CountsWhatFindsNoRoom) {
    setenv("ZR_LOG", path_.c_str(), 1);
    Child child("log_without_room", {std::to_string(3 << 20)});
    EXPECT_EQ(child.wait(), 0);
    const Contents log = read_all(path_);
    const std::uint64_t room = (3 << 20) / zr::log::kSlotSize - zr::log::kFirstSlot - 1;  // one slot holds the tag
    ASSERT_EQ(log.entries.size(), room);
    EXPECT_EQ(log.statistics.lost, 100000 - room);
    EXPECT_EQ(log.entries.back().line, static_cast<int>(room) - 1);
    Child more("log_writer", {"1", "quiet"});
    EXPECT_EQ(more.wait(), 0);
    unsetenv("ZR_LOG");
    EXPECT_EQ(read_all(path_).entries.size(), room + 1);
}

TEST_F(LogFileTest, ANewLogWithoutRoomIsRefused) {
    setenv("ZR_LOG", path_.c_str(), 1);
    Child child("log_without_room", {"1000"});
    EXPECT_EQ(child.wait(), 1);
    unsetenv("ZR_LOG");
    EXPECT_EQ(fs::file_size(path_), 0u);
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

TEST_F(LogFileTest, PassesOverGapsAndDamage) {
    ASSERT_TRUE(zrLogSetFile(path_.c_str()));
    for (int i = 0; i < 10; ++i) {
        zrKelDebugBinLog0("s", i, 1);
    }
    zrKelDebugBinBuffer("s", 10, 1, std::string(200, 'x').data(), 200);
    zrKelDebugBinLog0("s", 11, 1);
    zrLogSetFile(nullptr);
    const std::string whole = bytes_of(path_);
    // Slot 64 holds the tag, 65 to 74 the records 0 to 9, 75 to 79 the buffer, 80 record 11.
    const auto slot = [](int number) { return static_cast<std::size_t>(number) * zr::log::kSlotSize; };

    std::string gap = whole;
    gap.replace(slot(66), 3 * zr::log::kSlotSize, 3 * zr::log::kSlotSize, '\0');
    put_bytes(path_, gap);
    Contents log = read_all(path_, 1);
    EXPECT_EQ(log.entries.size(), 9u);
    EXPECT_EQ(log.statistics.unfinished, 1u);
    EXPECT_EQ(log.statistics.damaged, 0u);

    std::string headless = whole;
    headless.replace(slot(75), zr::log::kSlotSize, zr::log::kSlotSize, '\0');
    put_bytes(path_, headless);
    log = read_all(path_);
    ASSERT_EQ(log.entries.size(), 11u);
    EXPECT_EQ(log.entries.back().line, 11);
    EXPECT_EQ(log.statistics.unfinished, 1u);

    for (std::size_t at = slot(70); at < slot(71); ++at) {
        std::string bent = whole;
        bent[at] = static_cast<char>(bent[at] ^ 0x10);
        put_bytes(path_, bent);
        log = read_all(path_);
        EXPECT_EQ(log.entries.size(), 11u) << at;
        EXPECT_EQ(log.statistics.damaged, 1u) << at;
    }

    std::string moved = whole;
    moved.replace(slot(70), zr::log::kSlotSize, whole, slot(67), zr::log::kSlotSize);
    put_bytes(path_, moved);
    EXPECT_EQ(read_all(path_).statistics.damaged, 1u);

    std::string untagged = whole;
    untagged[slot(64) + 50] = static_cast<char>(untagged[slot(64) + 50] ^ 1);
    put_bytes(path_, untagged);
    log = read_all(path_);
    ASSERT_EQ(log.entries.size(), 12u);
    EXPECT_EQ(log.entries[3].source, "");

    put_bytes(path_, whole.substr(0, slot(78) + 10));
    log = read_all(path_);
    EXPECT_EQ(log.entries.size(), 10u);
    EXPECT_EQ(log.statistics.missing, 3u);
}
