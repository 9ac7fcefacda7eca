#include "ZrUtility/ZrFileTime.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <type_traits>

#include "support/zones.h"

namespace {

constexpr ULONGLONG kEpoch = 116'444'736'000'000'000;

ULONGLONG units(const FILETIME& time) {
    return ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

TEST(ZrFileTime, IsMadeOfNothingWordsAStructureAndANumber) {
    EXPECT_EQ(ZrFileTime().ToUI64(), 0u);
    EXPECT_EQ(ZrFileTime(1, 2).ToUI64(), 0x1'0000'0002u);  // the high word first
    FILETIME time{3, 4};
    EXPECT_EQ(ZrFileTime(time).ToUI64(), 0x4'0000'0003u);
    EXPECT_EQ(ZrFileTime(ULONGLONG{0xFEDCBA9876543210}).dwLowDateTime, 0x76543210u);
    EXPECT_EQ(ZrFileTime(ULONGLONG{0xFEDCBA9876543210}).dwHighDateTime, 0xFEDCBA98u);
}

TEST(ZrFileTime, LiesInMemoryAsAFileTimeDoes) {
    static_assert(sizeof(ZrFileTime) == sizeof(FILETIME));
    static_assert(!std::is_polymorphic_v<ZrFileTime> && std::is_standard_layout_v<ZrFileTime>);
    const ZrFileTime time(1, 2);
    FILETIME plain{};
    std::memcpy(&plain, &time, sizeof plain);
    EXPECT_EQ(plain.dwLowDateTime, 2u);
    EXPECT_EQ(plain.dwHighDateTime, 1u);
}

TEST(ZrFileTime, TheEpochIsThatOfUnix) {
    EXPECT_EQ(ZrFileTime::EPOCH_FILETIME.ToUI64(), kEpoch);
    EXPECT_TRUE(ZrFileTime(0x019DB1DE, 0xD53E8000) == ZrFileTime::EPOCH_FILETIME);
    EXPECT_FALSE(ZrFileTime(0xD53E8000, 0x019DB1DE) == ZrFileTime::EPOCH_FILETIME);
}

TEST(ZrFileTime, IsAssigned) {
    ZrFileTime time;
    const FILETIME plain{1, 2};
    EXPECT_EQ(&(time = plain), &time);
    EXPECT_EQ(time.ToUI64(), 0x2'0000'0001u);
    EXPECT_EQ(&(time = ZrFileTime::EPOCH_FILETIME), &time);
    EXPECT_EQ(time.ToUI64(), kEpoch);
    EXPECT_EQ(&(time = ULONGLONG{7}), &time);
    EXPECT_EQ(time.ToUI64(), 7u);
}

TEST(ZrFileTime, IsComparedAsAnUnsignedNumber) {
    const ULONGLONG values[] = {0, 1, 0xFFFFFFFF, 0x1'0000'0000, kEpoch, 0x8000'0000'0000'0000, ~ULONGLONG{0}};
    for (const ULONGLONG left : values) {
        for (const ULONGLONG right : values) {
            const ZrFileTime a(left);
            const ZrFileTime b(right);
            EXPECT_EQ(a == b, left == right);
            EXPECT_EQ(a != b, left != right);
            EXPECT_EQ(a < b, left < right);
            EXPECT_EQ(a > b, left > right);
            EXPECT_EQ(a <= b, left <= right);
            EXPECT_EQ(a >= b, left >= right);
        }
    }
}

TEST(ZrFileTime, AddsAndSubtractsModulo2To64) {
    std::mt19937_64 random(7);
    for (int i = 0; i < 1000; ++i) {
        const ULONGLONG left = random();
        const ULONGLONG right = random();
        ZrFileTime a(left);
        const ZrFileTime b(right);
        static_assert(std::is_same_v<decltype(a + b), FILETIME> && std::is_same_v<decltype(a - b), FILETIME>);
        EXPECT_EQ(units(a + b), left + right);
        EXPECT_EQ(units(a - b), left - right);
        EXPECT_EQ(a.ToUI64(), left);
        EXPECT_EQ(&(a += b), &a);
        EXPECT_EQ(a.ToUI64(), left + right);
        EXPECT_EQ(&(a -= b), &a);
        EXPECT_EQ(a.ToUI64(), left);
    }
}

TEST(ZrFileTime, ALaterTimeTakenFromAnEarlierOneWrapsRound) {
    ZrFileTime earlier(ULONGLONG{5});
    const ZrFileTime later(ULONGLONG{8});
    EXPECT_EQ(units(earlier - later), ~ULONGLONG{0} - 2);
    EXPECT_TRUE(earlier < later);
}

TEST(ZrFileTime, IsCutToMinutes) {
    EXPECT_EQ(ZrFileTime().ToUI64InPrecision(), 0u);
    EXPECT_EQ(ZrFileTime::EPOCH_FILETIME.ToUI64InPrecision(), kEpoch);
    EXPECT_EQ(ZrFileTime(kEpoch + 599'999'999).ToUI64InPrecision(), kEpoch);
    EXPECT_EQ(ZrFileTime(kEpoch + 600'000'000).ToUI64InPrecision(), kEpoch + 600'000'000);
    ZrFileTime time(kEpoch + 599'999'999);
    EXPECT_EQ(units(time.InPrecision()), kEpoch);
    EXPECT_EQ(time.ToUI64(), kEpoch + 599'999'999);
    EXPECT_EQ(ZrFileTime(~ULONGLONG{0}).ToUI64InPrecision() % 600'000'000, 0u);
}

TEST(ZrFileTime, IsCountedInMilliseconds) {
    EXPECT_EQ(ZrFileTime(ULONGLONG{9'999}).GetMilliseconds(), 0u);
    EXPECT_EQ(ZrFileTime(ULONGLONG{10'000}).GetMilliseconds(), 1u);
    EXPECT_EQ(ZrFileTime(~ULONGLONG{0}).GetMilliseconds(), 1'844'674'407'370'955u);
}

TEST(ZrFileTime, NowIsUtcToTheMillisecond) {
    zr::test::set_zone("Asia/Tokyo");
    const zr::test::StoppedClock clock(1'700'000'000);
    EXPECT_EQ(ZrFileTime::GetCurrentTime().ToUI64(), kEpoch + 17'000'000'000'000'000);
}

TEST(ZrFileTime, NowIsTheTimeOfTheSystem) {
    const auto before = static_cast<ULONGLONG>(time(nullptr));
    const ULONGLONG now = (ZrFileTime::GetCurrentTime().ToUI64() - kEpoch) / 10'000'000;
    EXPECT_GE(now + 1, before);
    EXPECT_LE(now, static_cast<ULONGLONG>(time(nullptr)) + 1);
}

}  // namespace
