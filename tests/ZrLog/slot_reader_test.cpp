// Logs of version 1 are read as they always were; none is written any more.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include "ZrLog/ZrLog.h"
#include "ZrLog/ZrLogReader.h"
#include "ZrLog/log_support.h"
#include "ZrLog/slot_format.h"
#include "support/sandbox.h"

namespace {

namespace fs = std::filesystem;
namespace slots = zr::log::slots;
using zr::test::LogContents;
using zr::test::read_log;

// Slot 64 holds the tag, 65 to 74 the records 0 to 9, 75 to 79 a buffer of 200 bytes, 80 record 11.
class SlotReaderTest : public testing::Test {
protected:
    SlotReaderTest() {
        put({}, slots::kTag, 0, "s");
        for (int i = 0; i < 10; ++i) {
            put(head(i), slots::kArguments, 64, "");
        }
        put(head(10), slots::kBuffer, 64, std::string(200, 'x'));
        put(head(11), slots::kArguments, 64, "");
        const slots::Header header{slots::kMagic, slots::kVersion, slots::kSlotSize, 1, next_, next_, 3};
        bytes_.replace(0, sizeof header, reinterpret_cast<const char*>(&header), sizeof header);
        bytes_.resize(1 << 20);
    }

    LogContents read(const std::string& bytes) {
        std::ofstream(path_, std::ios::binary) << bytes;
        return read_log(path_);
    }

    static constexpr std::size_t slot(std::size_t number) { return number * slots::kSlotSize; }

    std::string bytes_ = std::string(slots::kHeaderSize, '\0');
    zr::test::TempFolder folder_;
    const std::string path_ = (folder_.host() / "log").string();

private:
    static slots::Head head(int line) {
        slots::Head head{};
        head.time = 1'000'000'000u + static_cast<unsigned>(line);
        head.process = 7;
        head.line = line;
        return head;
    }

    void put(const slots::Head& head, std::uint8_t kind, std::uint32_t source, const std::string& data) {
        slots::Slot first{};
        first.source = source;
        first.head = head;
        const std::uint32_t at = next_;
        if (!data.empty()) {
            first.head.run.size = data.size();
            data.copy(reinterpret_cast<char*>(first.head.run.bytes), slots::kHeadBytes);
        }
        append(first, kind);
        for (std::size_t from = slots::kHeadBytes; from < data.size(); from += slots::kMoreBytes) {
            slots::Slot more{};
            more.source = at;
            data.copy(reinterpret_cast<char*>(more.more), slots::kMoreBytes, from);
            append(more, slots::kContinuation);
        }
    }
    void append(slots::Slot& slot, std::uint8_t kind) {
        slot.mark = slots::mark_of(slot, kind, next_++);
        bytes_.append(reinterpret_cast<const char*>(&slot), sizeof slot);
    }

    std::uint32_t next_ = slots::kFirstSlot;
};

}  // namespace

TEST_F(SlotReaderTest, ReadsEveryRecord) {
    const LogContents log = read(bytes_);
    ASSERT_EQ(log.entries.size(), 12u);
    EXPECT_EQ(log.entries[3].line, 3);
    EXPECT_EQ(log.entries[3].source, "s");
    EXPECT_EQ(log.entries[3].process, 7u);
    EXPECT_EQ(log.entries[10].data, std::string(200, 'x'));
    EXPECT_EQ(log.statistics.lost, 3u);
    EXPECT_EQ(log.statistics.damaged + log.statistics.unfinished + log.statistics.missing, 0u);
}

TEST_F(SlotReaderTest, PassesOverGapsAndDamage) {
    std::string gap = bytes_;
    gap.replace(slot(66), slot(3), slot(3), '\0');
    LogContents log = read(gap);
    EXPECT_EQ(log.entries.size(), 9u);
    EXPECT_EQ(log.statistics.unfinished, 1u);
    EXPECT_EQ(log.statistics.damaged, 0u);

    std::string headless = bytes_;
    headless.replace(slot(75), slot(1), slot(1), '\0');
    log = read(headless);
    ASSERT_EQ(log.entries.size(), 11u);
    EXPECT_EQ(log.entries.back().line, 11);
    EXPECT_EQ(log.statistics.unfinished, 1u);

    for (std::size_t at = slot(70); at < slot(71); ++at) {
        std::string bent = bytes_;
        bent[at] = static_cast<char>(bent[at] ^ 0x10);
        log = read(bent);
        EXPECT_EQ(log.entries.size(), 11u) << at;
        EXPECT_EQ(log.statistics.damaged, 1u) << at;
    }

    std::string moved = bytes_;
    moved.replace(slot(70), slot(1), bytes_, slot(67), slot(1));
    EXPECT_EQ(read(moved).statistics.damaged, 1u);

    std::string untagged = bytes_;
    untagged[slot(64) + 50] = static_cast<char>(untagged[slot(64) + 50] ^ 1);
    log = read(untagged);
    ASSERT_EQ(log.entries.size(), 12u);
    EXPECT_EQ(log.entries[3].source, "");

    log = read(bytes_.substr(0, slot(78) + 10));
    EXPECT_EQ(log.entries.size(), 10u);
    EXPECT_EQ(log.statistics.missing, 3u);
}

TEST_F(SlotReaderTest, AWriterSetsItAsideAndTheReaderReadsBoth) {
    std::ofstream(path_, std::ios::binary) << bytes_;
    ASSERT_EQ(chmod(path_.c_str(), 0600), 0);
    ASSERT_TRUE(zrLogSetFile(path_.c_str())) << zrLogError();
    zrKelDebugBinLog0("new", 12, 1);
    zrLogSetFile(nullptr);
    EXPECT_EQ(fs::file_size(path_ + ".1"), bytes_.size());
    const LogContents log = read_log(path_);
    ASSERT_EQ(log.entries.size(), 13u);
    EXPECT_EQ(log.entries[11].line, 11);
    EXPECT_EQ(log.entries[12].source, "new");
}
