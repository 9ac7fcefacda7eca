// Conversions without zones, comparisons, and what else WindowsUtilities does. Zones: time_zones_test.cpp and
// local_times_test.cpp; occurrences: occurrences_test.cpp.

#include "ZrUtility/Helpers/WindowsUtilities.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "platform/base.h"
#include "support/text.h"
#include "support/zones.h"

namespace {

using zr::test::units;

constexpr ULONGLONG kEpoch = 116'444'736'000'000'000;
constexpr ULONGLONG kMinute = 600'000'000;
constexpr ULONGLONG kTooLate = 0x8000'0000'0000'0000;

FILETIME of(ULONGLONG value) {
    return {static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
}

std::string rfc822(ULONGLONG value) {
    FILETIME time = of(value);
    BYTE out[26];
    std::memset(out, '#', sizeof out);
    int length = -1;
    EXPECT_EQ(WindowsUtilities::FileTimeToRFC822Date(&time, out, &length), 0);
    EXPECT_EQ(out[25], '#') << "written behind 25 bytes";
    const std::string text(reinterpret_cast<const char*>(out));
    EXPECT_EQ(length, static_cast<int>(text.size()));
    return text;
}

TEST(WindowsUtilities, TheConstants) {
    EXPECT_EQ(WindowsUtilities::SECOND_TO_FILETIME_PRECISION, 10'000'000u);
    EXPECT_EQ(WindowsUtilities::ONE_MINUTE_UI64, 600'000'000u);
    EXPECT_EQ(WindowsUtilities::ONE_DAY_UI64, 864'000'000'000u);
    EXPECT_EQ(WindowsUtilities::ONE_WEEK_UI64, 6'048'000'000'000u);
    EXPECT_EQ(WindowsUtilities::THE_EPOCH_FILETIME_UI64, kEpoch);
    EXPECT_EQ(WindowsUtilities::MINUTES_IN_ONE_HOUR, 60u);
    EXPECT_EQ(WindowsUtilities::VARIANT_TIME_ONE_MINUTE, 0.0006944444444444445);
    EXPECT_EQ(WindowsUtilities::V_ONE_MINUTE, 0.0006944444444444445);
    WindowsUtilities::V_ONE_MINUTE = 1;
    EXPECT_EQ(WindowsUtilities::V_ONE_MINUTE, 1);
    WindowsUtilities::V_ONE_MINUTE = 1.0 / 1440;
}

TEST(WindowsUtilities, TheServersDatesAreSecondsHighestByteFirst) {
    BYTE zero[4] = {};
    FILETIME time{};
    WindowsUtilities::KelDateToFileTime(zero, 4, &time);
    EXPECT_EQ(units(time), kEpoch);
    BYTE date[4] = {0x12, 0x34, 0x56, 0x78};
    for (const int length : {4, 0, -1, 1000}) {
        WindowsUtilities::KelDateToFileTime(date, length, &time);
        EXPECT_EQ(units(time), kEpoch + 0x12345678 * ULONGLONG{10'000'000});
    }
    BYTE last[4] = {0xFF, 0xFF, 0xFF, 0xFF};
    WindowsUtilities::KelDateToFileTime(last, 4, &time);
    EXPECT_EQ(units(time), kEpoch + 0xFFFFFFFF * ULONGLONG{10'000'000});
}

TEST(WindowsUtilities, AServersDateIsMadeOfWholeSeconds) {
    const auto made = [](ULONGLONG value) {
        FILETIME time = of(value);
        BYTE date[6] = {'#', '#', '#', '#', '#', '#'};
        WindowsUtilities::FileTimeToKelDate(time, date + 1, 99);
        EXPECT_EQ(date[0], '#');
        EXPECT_EQ(date[5], '#');
        return static_cast<unsigned>(date[1]) << 24 | date[2] << 16 | date[3] << 8 | date[4];
    };
    EXPECT_EQ(made(kEpoch), 0u);
    EXPECT_EQ(made(kEpoch + 9'999'999), 0u);
    EXPECT_EQ(made(kEpoch + 10'000'000), 1u);
    EXPECT_EQ(made(kEpoch + 0x12345678 * ULONGLONG{10'000'000}), 0x12345678u);
    EXPECT_EQ(made(kEpoch + 0x1'0000'0005 * 10'000'000), 5u);  // the low 32 bits
    EXPECT_EQ(made(kEpoch - 10'000'000), static_cast<unsigned>((ULONGLONG{0} - 10'000'000) / 10'000'000));
}

TEST(WindowsUtilities, AServersDateBecomesAnOleDateInUtc) {
    zr::test::set_zone("Asia/Tokyo");
    BYTE date[4] = {0, 1, 0x51, 0x80};  // a day
    double ole = 0;
    WindowsUtilities::KelDateToVariantTime(date, 4, &ole);
    EXPECT_EQ(ole, 25570);
}

TEST(WindowsUtilities, FileTimesAndOleDates) {
    zr::test::set_zone("Asia/Tokyo");
    FILETIME time = of(kEpoch + WindowsUtilities::ONE_DAY_UI64 / 4);
    double date = 0;
    WindowsUtilities::FileTimeToVariantTime(&time, &date);
    EXPECT_EQ(date, 25569.25);
    FILETIME back{};
    EXPECT_EQ(WindowsUtilities::VariantTimeToFileTime(date, &back), 0);
    EXPECT_EQ(units(back), units(time));
}

TEST(WindowsUtilities, FileTimesAndOleDatesComeBackToTheSecond) {
    std::mt19937_64 random(3);
    for (int i = 0; i < 20'000; ++i) {
        const ULONGLONG value = random() % 2'650'467'744'000'000'000;  // until the year 9999
        FILETIME time = of(value - value % 10'000'000);
        double date = 0;
        FILETIME back{};
        WindowsUtilities::FileTimeToVariantTime(&time, &date);
        WindowsUtilities::VariantTimeToFileTime(date, &back);
        ASSERT_EQ(units(back), units(time));
    }
}

TEST(WindowsUtilities, WhatCannotBeConvertedLeavesTheOutput) {
    FILETIME time = of(kTooLate);
    double date = 77;
    WindowsUtilities::FileTimeToVariantTime(&time, &date);
    EXPECT_EQ(date, 77);
    WindowsUtilities::FileTimeToLocalVariantTime(&time, &date);
    EXPECT_EQ(date, 77);
    FILETIME year_10000 = of(2'650'467'744'000'000'000);
    WindowsUtilities::FileTimeToVariantTime(&year_10000, &date);
    EXPECT_EQ(date, 77);
    FILETIME out = of(77);
    for (double wrong : {1e10, -1e10, std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                         -200000.0 /* the year 1352 */}) {
        EXPECT_EQ(WindowsUtilities::VariantTimeToFileTime(wrong, &out), 0);
        EXPECT_EQ(units(out), 77u);
    }
    // Where it is on its way to something else, it counts as the beginning of 1601.
    zr::test::set_zone("Asia/Tokyo");
    double far = 1e10;
    WindowsUtilities::VariantTimeToLocalVariantTime(far, &date);
    EXPECT_EQ(date, -109'205.375);  // nine in the morning there
    WindowsUtilities::WUFileTimeToLocalFileTime(&time, &out);
    EXPECT_EQ(units(out), 77u);
    WindowsUtilities::WULocalFileTimeToFileTime(&time, &out);
    EXPECT_EQ(units(out), 77u);
}

TEST(WindowsUtilities, DatesOfMailHeaders) {
    zr::test::set_zone("Asia/Tokyo");
    EXPECT_EQ(rfc822(units(zr::test::file_time(zr::test::c_utc(2009, 3, 5, 7, 8, 9)))), "05 Mar 2009 07:08:09 GMT");
    EXPECT_EQ(rfc822(0), "01 Jan 1601 00:00:00 GMT");
    EXPECT_EQ(rfc822(units(zr::test::file_time(zr::test::c_utc(9999, 12, 31, 23, 59, 59)))),
              "31 Dec 9999 23:59:59 GMT");
    double date = 25569.5;
    BYTE out[25];
    int length = 0;
    EXPECT_EQ(WindowsUtilities::VariantTimeToRFC822Date(date, out, &length), 0);
    EXPECT_STREQ(reinterpret_cast<const char*>(out), "01 Jan 1970 12:00:00 GMT");
    EXPECT_EQ(length, 24);
}

TEST(WindowsUtilities, DatesOfMailHeadersAreAsStrftimeSays) {
    std::mt19937_64 random(6);
    for (int i = 0; i < 20'000; ++i) {
        const auto second = static_cast<std::int64_t>(random() % 260'000'000'000) - 11'000'000'000;
        const std::time_t time = second;
        std::tm parts{};
        gmtime_r(&time, &parts);
        char expected[64];
        strftime(expected, sizeof expected, "%d %b %Y %H:%M:%S GMT", &parts);
        ASSERT_EQ(rfc822(units(zr::test::file_time(second)) + random() % 10'000'000), expected);
    }
}

TEST(WindowsUtilities, DatesThatNoMailHeaderHoldsAreEmpty) {
    EXPECT_EQ(rfc822(2'650'467'744'000'000'000), "");  // 1 January 10000
    EXPECT_EQ(rfc822(kTooLate - 1), "");
    EXPECT_EQ(rfc822(kTooLate), "");
}

TEST(WindowsUtilities, FileTimesAndNumbers) {
    ULONGLONG value = 0xFEDCBA9876543210;
    FILETIME time{};
    WindowsUtilities::Int64ToFileTime(&time, value);
    EXPECT_EQ(time.dwLowDateTime, 0x76543210u);
    EXPECT_EQ(time.dwHighDateTime, 0xFEDCBA98u);
    ULONGLONG back = 0;
    WindowsUtilities::FileTimeToInt64(&back, time);
    EXPECT_EQ(back, value);
}

TEST(WindowsUtilities, NowIsUtcToTheMillisecond) {
    zr::test::set_zone("Asia/Tokyo");
    const zr::test::StoppedClock clock(1'700'000'000);
    FILETIME now{};
    WindowsUtilities::GetCurrentFileTime(&now);
    EXPECT_EQ(units(now), kEpoch + 17'000'000'000'000'000);
    ULONGLONG value = 0;
    WindowsUtilities::GetCurrentFileTimeAsInt64(&value);
    EXPECT_EQ(value, units(now));
}

TEST(WindowsUtilities, SumsAndDifferencesWrapRound) {
    FILETIME a = of(5);
    FILETIME b = of(8);
    FILETIME last = of(~ULONGLONG{0});
    EXPECT_EQ(units(WindowsUtilities::FileTimeAdd(a, b)), 13u);
    EXPECT_EQ(units(WindowsUtilities::FileTimeAdd(last, b)), 7u);
    EXPECT_EQ(units(WindowsUtilities::FileTimeSubtract(b, a)), 3u);
    EXPECT_EQ(units(WindowsUtilities::FileTimeSubtract(a, b)), ~ULONGLONG{0} - 2);
}

TEST(WindowsUtilities, ComparesAsUnsignedNumbers) {
    const ULONGLONG values[] = {0, 1, 0xFFFFFFFF, 0x1'0000'0000, kEpoch, kTooLate, ~ULONGLONG{0}};
    for (const ULONGLONG left : values) {
        for (const ULONGLONG right : values) {
            FILETIME a = of(left);
            FILETIME b = of(right);
            EXPECT_EQ(WindowsUtilities::FileTimeCompare(a, b), left < right ? -1 : left > right ? 1 : 0);
        }
    }
}

TEST(WindowsUtilities, ComparesLocalDays) {
    zr::test::set_zone("Asia/Tokyo");
    const std::int64_t midnight = zr::test::c_utc(2026, 5, 4, 15);  // in Tokyo
    FILETIME before = zr::test::file_time(midnight - 60);
    FILETIME after = zr::test::file_time(midnight + 60);
    FILETIME later = zr::test::file_time(midnight + 86'399);
    EXPECT_EQ(WindowsUtilities::FileTimeCompareDate(&before, &after), -1);
    EXPECT_EQ(WindowsUtilities::FileTimeCompareDate(&after, &before), -1);
    EXPECT_EQ(WindowsUtilities::FileTimeCompareDate(&after, &later), 0);
    EXPECT_EQ(WindowsUtilities::FileTimeCompareDate(&later, &after), 0);
    FILETIME other_year = zr::test::file_time(zr::test::c_utc(2027, 5, 4, 15));
    FILETIME other_month = zr::test::file_time(zr::test::c_utc(2026, 6, 4, 15));
    EXPECT_EQ(WindowsUtilities::FileTimeCompareDate(&after, &other_year), -1);
    EXPECT_EQ(WindowsUtilities::FileTimeCompareDate(&after, &other_month), -1);
}

TEST(WindowsUtilities, WhatFallsOnNoDayFallsOnNoSameDay) {
    zr::test::set_zone("Asia/Tokyo");
    FILETIME first = of(0);  // the day that an empty file time stands for
    EXPECT_EQ(WindowsUtilities::FileTimeCompareDate(&first, &first), 0);
    for (const ULONGLONG value : {kTooLate, kTooLate + kMinute, ~ULONGLONG{0}}) {
        FILETIME late = of(value);
        EXPECT_EQ(WindowsUtilities::FileTimeCompareDate(&late, &late), -1);
        EXPECT_EQ(WindowsUtilities::FileTimeCompareDate(&late, &first), -1);
        EXPECT_EQ(WindowsUtilities::FileTimeCompareDate(&first, &late), -1);
    }
}

TEST(WindowsUtilities, ComparesTimesOfDay) {
    const auto compare = [](double a, double b) { return WindowsUtilities::VariantTimeCompareTimeOfDay(a, b); };
    EXPECT_EQ(compare(1.25, 40000.25), 0);
    EXPECT_EQ(compare(40000.25, 1.5), -1);
    EXPECT_EQ(compare(1.5, 40000.25), 1);
    EXPECT_EQ(compare(-1.75, 3.25), 0);  // above the whole number below it
}

TEST(WindowsUtilities, TimesOfDayAndIntervals) {
    const auto time_of_day = [](double date) { return units(WindowsUtilities::GetTimeOfDayFromVariantTime(date)); };
    const auto interval = [](double days) {
        return units(WindowsUtilities::GetFileTimeIntervalFromVariantTimeInterval(days));
    };
    const ULONGLONG day = WindowsUtilities::ONE_DAY_UI64;
    EXPECT_EQ(time_of_day(40000.5), day / 2);
    EXPECT_EQ(time_of_day(40000), 0u);
    EXPECT_EQ(time_of_day(-1.25), day * 3 / 4);
    EXPECT_EQ(time_of_day(std::numeric_limits<double>::infinity()), 0u);
    EXPECT_EQ(interval(1.5), day + day / 2);
    EXPECT_EQ(interval(0), 0u);
    EXPECT_EQ(interval(1e-12), 0u);  // cut
    EXPECT_EQ(interval(-1), ULONGLONG{0} - day);
    EXPECT_EQ(interval(1e30), ~ULONGLONG{0});
    EXPECT_EQ(interval(-1e30), kTooLate);
    EXPECT_EQ(interval(std::numeric_limits<double>::quiet_NaN()), 0u);
}

TEST(WindowsUtilities, DifferencesInMinutes) {
    const auto less = [](ULONGLONG a, ULONGLONG b, int n) {
        FILETIME left = of(a);
        FILETIME right = of(b);
        const bool result = WindowsUtilities::isDifferenceLessThanNMinutes(left, right, n);
        EXPECT_EQ(result, WindowsUtilities::isDifferenceLessThanNMinutes(right, left, n));
        return result;
    };
    EXPECT_TRUE(less(kEpoch, kEpoch + 5 * kMinute - 1, 5));
    EXPECT_FALSE(less(kEpoch, kEpoch + 5 * kMinute, 5));
    EXPECT_FALSE(less(kEpoch, kEpoch, 0));
    EXPECT_TRUE(less(0, kTooLate, -1));
    EXPECT_TRUE(less(0, ~ULONGLONG{0} - kMinute, -1));
    EXPECT_FALSE(less(0, ~ULONGLONG{0} - kMinute + 1, -1));  // 2^64 less a minute
    EXPECT_FALSE(less(0, ~ULONGLONG{0}, std::numeric_limits<int>::max()));
    FILETIME a = of(kEpoch);
    FILETIME half = of(kEpoch + 720 * kMinute);
    FILETIME day = of(kEpoch + 1440 * kMinute);
    FILETIME shorter = of(kEpoch + 720 * kMinute - 1);
    EXPECT_TRUE(WindowsUtilities::isDifferenceLessThanOneHalfDay(a, shorter));
    EXPECT_FALSE(WindowsUtilities::isDifferenceLessThanOneHalfDay(a, half));
    EXPECT_TRUE(WindowsUtilities::isDifferenceLessThanOneDay(a, half));
    EXPECT_FALSE(WindowsUtilities::isDifferenceLessThanOneDay(day, a));
}

TEST(WindowsUtilities, MovesRecurrencesByMinutes) {
    FILETIME in = of(kEpoch);
    FILETIME out{};
    WindowsUtilities::CorrectRecurrenceFileTime(&in, 90, &out, 1);
    EXPECT_EQ(units(out), kEpoch + 90 * WindowsUtilities::ONE_MINUTE_UI64);
    WindowsUtilities::CorrectRecurrenceFileTime(&in, 90, &out, 0);
    EXPECT_EQ(units(out), kEpoch - 90 * WindowsUtilities::ONE_MINUTE_UI64);
    WindowsUtilities::CorrectRecurrenceFileTime(&in, -90, &out, 7);
    EXPECT_EQ(units(out), kEpoch - 90 * WindowsUtilities::ONE_MINUTE_UI64);
    WindowsUtilities::CorrectRecurrenceFileTime(&in, -90, &in, 0);  // in place
    EXPECT_EQ(units(in), kEpoch + 90 * WindowsUtilities::ONE_MINUTE_UI64);
}

TEST(WindowsUtilities, TheScreenIsWideOrHigh) {
    const auto landscape = [](const char* size) {
        setenv("ZR_SCREEN", size, 1);
        return WindowsUtilities::IsSystemInLandscapeMode();
    };
    EXPECT_EQ(landscape("320x240"), 1);
    EXPECT_EQ(landscape("240x320"), 0);
    EXPECT_EQ(landscape("320x320"), 0);
}

TEST(WindowsUtilities, AmpersandsAreDoubled) {
    const zr::test::Text source(u"A&B&&");
    std::vector<WCHAR> target(12, u'#');
    WindowsUtilities::MakeWindowsCompatible(source, target.data(), WIN_COMPATIBLE_AMPERSAND);
    EXPECT_EQ(std::u16string(target.begin(), target.end()), u"A&&B&&&&####");
    WindowsUtilities::MakeWindowsCompatible(source, target.data(), static_cast<WIN_COMPATIBLE>(3));
    EXPECT_EQ(std::u16string(target.begin(), target.end()), u"A&&B&&&&####");
}

TEST(WindowsUtilities, TextsAreLeftAloneWithoutTheFlag) {
    const zr::test::Text source(u"A&B");
    const zr::test::Text empty(u"");
    std::vector<WCHAR> target(4, u'#');
    WindowsUtilities::MakeWindowsCompatible(source, target.data(), WIN_COMPATIBLE_NONE);
    WindowsUtilities::MakeWindowsCompatible(source, target.data(), static_cast<WIN_COMPATIBLE>(2));
    WindowsUtilities::MakeWindowsCompatible(empty, target.data(), WIN_COMPATIBLE_AMPERSAND);
    WindowsUtilities::MakeWindowsCompatible(nullptr, target.data(), WIN_COMPATIBLE_AMPERSAND);
    EXPECT_EQ(std::u16string(target.begin(), target.end()), u"####");
}

}  // namespace
