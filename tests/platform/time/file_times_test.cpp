#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "platform/base.h"
#include "platform/time.h"
#include "support/zones.h"

namespace {

using zr::test::units;

FILETIME of_units(std::uint64_t value) {
    return {static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
}

constexpr SYSTEMTIME kGood = {2009, 3, 0, 5, 7, 8, 9, 10};

BOOL convert(SYSTEMTIME time) {
    FILETIME out{};
    return SystemTimeToFileTime(&time, &out);
}

TEST(FileTimes, TheEpochsAreWhatTheyAre) {
    FILETIME out{};
    const SYSTEMTIME first{1601, 1, 0, 1, 0, 0, 0, 0};
    ASSERT_TRUE(SystemTimeToFileTime(&first, &out));
    EXPECT_EQ(units(out), 0u);
    const SYSTEMTIME unix_epoch{1970, 1, 0, 1, 0, 0, 0, 0};
    ASSERT_TRUE(SystemTimeToFileTime(&unix_epoch, &out));
    EXPECT_EQ(units(out), 116'444'736'000'000'000u);
}

TEST(FileTimes, AgreeWithTheCLibraryOnEveryFewDays) {
    // A prime number of seconds, so that all hours, minutes and days are met.
    for (std::int64_t second = -zr::test::kEpochSeconds; second < 32'503'680'000; second += 1'000'003) {
        const std::time_t time = second;
        std::tm expected{};
        gmtime_r(&time, &expected);
        const FILETIME file_time = zr::test::file_time(second);
        SYSTEMTIME parts{};
        ASSERT_TRUE(FileTimeToSystemTime(&file_time, &parts));
        ASSERT_EQ(parts.wYear, expected.tm_year + 1900);
        ASSERT_EQ(parts.wMonth, expected.tm_mon + 1);
        ASSERT_EQ(parts.wDay, expected.tm_mday);
        ASSERT_EQ(parts.wDayOfWeek, expected.tm_wday);
        ASSERT_EQ(parts.wHour, expected.tm_hour);
        ASSERT_EQ(parts.wMinute, expected.tm_min);
        ASSERT_EQ(parts.wSecond, expected.tm_sec);
        ASSERT_EQ(parts.wMilliseconds, 0);
        FILETIME back{};
        ASSERT_TRUE(SystemTimeToFileTime(&parts, &back));
        ASSERT_EQ(units(back), units(file_time));
    }
}

TEST(FileTimes, AnyTimeComesBackToTheMillisecond) {
    std::mt19937_64 random(4);
    constexpr std::uint64_t kYear30828 = 9'223'149'888'000'000'000u;
    for (int i = 0; i < 200'000; ++i) {
        const std::uint64_t value = random() % kYear30828;
        const FILETIME time = of_units(value);
        SYSTEMTIME parts{};
        FILETIME back{};
        ASSERT_TRUE(FileTimeToSystemTime(&time, &parts));
        ASSERT_TRUE(SystemTimeToFileTime(&parts, &back)) << value;
        ASSERT_EQ(units(back), value - value % 10'000);
    }
}

TEST(FileTimes, TheLastOneIsInSeptember30828) {
    SYSTEMTIME parts{};
    const FILETIME last = of_units(0x7FFF'FFFF'FFFF'FFFF);
    ASSERT_TRUE(FileTimeToSystemTime(&last, &parts));
    EXPECT_EQ(parts.wYear, 30828);
    EXPECT_EQ(parts.wMonth, 9);
    EXPECT_EQ(parts.wDay, 14);
    EXPECT_EQ(parts.wHour, 2);
    EXPECT_EQ(parts.wMinute, 48);
    EXPECT_EQ(parts.wSecond, 5);
    EXPECT_EQ(parts.wMilliseconds, 477);
}

TEST(FileTimes, LaterOnesAreRefusedAndTheOutputStays) {
    for (const std::uint64_t value : {0x8000'0000'0000'0000u, 0xFFFF'FFFF'FFFF'FFFFu}) {
        SYSTEMTIME parts = kGood;
        const FILETIME time = of_units(value);
        SetLastError(0);
        EXPECT_FALSE(FileTimeToSystemTime(&time, &parts));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
        EXPECT_EQ(std::memcmp(&parts, &kGood, sizeof parts), 0);
    }
}

TEST(FileTimes, WhatIsNoDateOrTimeIsRefused) {
    ASSERT_TRUE(convert(kGood));
    const auto with = [](auto change) {
        SYSTEMTIME time = kGood;
        change(time);
        SetLastError(0);
        const bool refused = !convert(time) && GetLastError() == ERROR_INVALID_PARAMETER;
        return refused;
    };
    EXPECT_TRUE(with([](SYSTEMTIME& t) { t.wYear = 1600; }));
    EXPECT_FALSE(with([](SYSTEMTIME& t) { t.wYear = 1601; }));
    EXPECT_FALSE(with([](SYSTEMTIME& t) { t.wYear = 30827; }));
    EXPECT_TRUE(with([](SYSTEMTIME& t) { t.wYear = 30828; }));
    EXPECT_TRUE(with([](SYSTEMTIME& t) { t.wYear = 0xFFFF; }));
    EXPECT_TRUE(with([](SYSTEMTIME& t) { t.wMonth = 0; }));
    EXPECT_TRUE(with([](SYSTEMTIME& t) { t.wMonth = 13; }));
    EXPECT_TRUE(with([](SYSTEMTIME& t) { t.wMonth = 257; }));  // a byte of it is a month
    EXPECT_TRUE(with([](SYSTEMTIME& t) { t.wDay = 0; }));
    EXPECT_TRUE(with([](SYSTEMTIME& t) { t.wDay = 32; }));
    EXPECT_TRUE(with([](SYSTEMTIME& t) { t.wDay = 257; }));
    EXPECT_TRUE(with([](SYSTEMTIME& t) { t.wMonth = 4, t.wDay = 31; }));
    EXPECT_TRUE(with([](SYSTEMTIME& t) { t.wYear = 1900, t.wMonth = 2, t.wDay = 29; }));
    EXPECT_FALSE(with([](SYSTEMTIME& t) { t.wYear = 2000, t.wMonth = 2, t.wDay = 29; }));
    EXPECT_TRUE(with([](SYSTEMTIME& t) { t.wHour = 24; }));
    EXPECT_TRUE(with([](SYSTEMTIME& t) { t.wMinute = 60; }));
    EXPECT_TRUE(with([](SYSTEMTIME& t) { t.wSecond = 60; }));
    EXPECT_TRUE(with([](SYSTEMTIME& t) { t.wMilliseconds = 1000; }));
    EXPECT_FALSE(with([](SYSTEMTIME& t) { t.wDayOfWeek = 99; }));
}

TEST(FileTimes, NullIsRefused) {
    FILETIME time{};
    SYSTEMTIME parts = kGood;
    EXPECT_FALSE(SystemTimeToFileTime(nullptr, &time));
    EXPECT_FALSE(SystemTimeToFileTime(&parts, nullptr));
    EXPECT_FALSE(FileTimeToSystemTime(nullptr, &parts));
    SetLastError(0);
    EXPECT_FALSE(FileTimeToSystemTime(&time, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(FileTimes, AreComparedAsUnsignedNumbers) {
    const FILETIME small{1, 0};
    const FILETIME high{0, 1};
    const FILETIME top{0, 0x8000'0000};
    EXPECT_EQ(CompareFileTime(&small, &small), 0);
    EXPECT_EQ(CompareFileTime(&small, &high), -1);
    EXPECT_EQ(CompareFileTime(&high, &small), 1);
    EXPECT_EQ(CompareFileTime(&top, &high), 1);
    EXPECT_EQ(CompareFileTime(&high, &top), -1);
}

TEST(Clock, IsTheSystemsOne) {
    const std::time_t before = time(nullptr);
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    SYSTEMTIME parts{};
    GetSystemTime(&parts);
    FILETIME from_parts{};
    ASSERT_TRUE(SystemTimeToFileTime(&parts, &from_parts));
    const std::time_t after = time(nullptr);
    EXPECT_GE(zr::test::unix_second(now), before - 1);  // time() may be a tick late
    EXPECT_LE(zr::test::unix_second(from_parts), after + 1);
    EXPECT_LE(units(now) / 10'000, units(from_parts) / 10'000);
    GetSystemTime(nullptr);
    GetSystemTimeAsFileTime(nullptr);
    GetLocalTime(nullptr);
}

}  // namespace
