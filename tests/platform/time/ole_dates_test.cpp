#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "platform/base.h"
#include "platform/time.h"

namespace {

SYSTEMTIME at(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
    SYSTEMTIME time{};
    time.wYear = static_cast<WORD>(year);
    time.wMonth = static_cast<WORD>(month);
    time.wDay = static_cast<WORD>(day);
    time.wHour = static_cast<WORD>(hour);
    time.wMinute = static_cast<WORD>(minute);
    time.wSecond = static_cast<WORD>(second);
    return time;
}

double date_of(SYSTEMTIME time) {
    double date = -1e9;
    EXPECT_TRUE(SystemTimeToVariantTime(&time, &date));
    return date;
}

bool refused(SYSTEMTIME time) {
    double date = 77;
    return !SystemTimeToVariantTime(&time, &date) && date == 77;
}

std::string text_of(double date) {
    SYSTEMTIME t{};
    if (!VariantTimeToSystemTime(date, &t)) return "refused";
    char text[64];
    snprintf(text, sizeof text, "%d-%02d-%02d %02d:%02d:%02d.%d %d", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
             t.wSecond, t.wMilliseconds, t.wDayOfWeek);
    return text;
}

TEST(OleDates, CountDaysFromTheEndOf1899) {
    EXPECT_EQ(date_of(at(1899, 12, 30)), 0);
    EXPECT_EQ(date_of(at(1900, 1, 1)), 2);
    EXPECT_EQ(date_of(at(1900, 1, 1, 12)), 2.5);
    EXPECT_EQ(date_of(at(1900, 1, 2, 6)), 3.25);
    EXPECT_EQ(date_of(at(1970, 1, 1)), 25569);
    EXPECT_EQ(date_of(at(1899, 12, 29)), -1);
    EXPECT_EQ(date_of(at(1899, 12, 29, 6)), -1.25);
    EXPECT_EQ(date_of(at(100, 1, 1)), -657434);
    EXPECT_EQ(date_of(at(9999, 12, 31)), 2958465);
}

TEST(OleDates, AreReadBack) {
    EXPECT_EQ(text_of(0), "1899-12-30 00:00:00.0 6");
    EXPECT_EQ(text_of(2.5), "1900-01-01 12:00:00.0 1");
    EXPECT_EQ(text_of(-1.25), "1899-12-29 06:00:00.0 5");
    EXPECT_EQ(text_of(-0.75), "1899-12-30 18:00:00.0 6");  // the fraction counts forwards
    EXPECT_EQ(text_of(-657434), "100-01-01 00:00:00.0 5");
    EXPECT_EQ(text_of(-657434.999), "100-01-01 23:58:34.0 5");
    EXPECT_EQ(text_of(2958465.999), "9999-12-31 23:58:34.0 5");
}

TEST(OleDates, AreRoundedToTheNearestSecond) {
    constexpr double kSecond = 1.0 / 86400;
    EXPECT_EQ(text_of(40000 + 0.4 * kSecond), "2009-07-06 00:00:00.0 1");
    EXPECT_EQ(text_of(40000 + 0.6 * kSecond), "2009-07-06 00:00:01.0 1");
    EXPECT_EQ(text_of(40000 - 0.4 * kSecond), "2009-07-06 00:00:00.0 1");
    EXPECT_EQ(text_of(-2 - 0.9999999), "1899-12-29 00:00:00.0 5");  // up to the next day, which is -1
}

TEST(OleDates, OutsideOfTheYearsAreRefused) {
    EXPECT_EQ(text_of(-657435), "refused");
    EXPECT_EQ(text_of(2958466), "refused");
    EXPECT_EQ(text_of(2958465.9999999), "refused");  // the year 10000, rounded
    EXPECT_EQ(text_of(1e300), "refused");
    EXPECT_EQ(text_of(-1e300), "refused");
    EXPECT_EQ(text_of(std::numeric_limits<double>::infinity()), "refused");
    EXPECT_EQ(text_of(std::numeric_limits<double>::quiet_NaN()), "refused");
    EXPECT_TRUE(refused(at(10000, 1, 1)));
    EXPECT_TRUE(refused(at(65535, 1, 1)));
}

TEST(OleDates, TwoDigitsOfAYearMeanOneOfAHundred) {
    for (int year = 0; year < 100; ++year)
        EXPECT_EQ(date_of(at(year, 2, 3)), date_of(at(year < 30 ? 2000 + year : 1900 + year, 2, 3)));
    EXPECT_EQ(date_of(at(100, 2, 3)), -657401);
}

TEST(OleDates, TimesOfDayThatRunOverCarryOn) {
    EXPECT_EQ(date_of(at(2001, 1, 1, 24)), date_of(at(2001, 1, 2)));
    EXPECT_EQ(date_of(at(2001, 1, 1, 25, 61, 61)), date_of(at(2001, 1, 2, 2, 2, 1)));
    EXPECT_EQ(date_of(at(2001, 12, 31, 23, 59, 60)), date_of(at(2002, 1, 1)));
    EXPECT_EQ(date_of(at(2001, 1, 1, -1)), date_of(at(2000, 12, 31, 23)));
    EXPECT_EQ(date_of(at(2001, 2, 31, 48)), date_of(at(2001, 3, 5)));
    EXPECT_EQ(date_of(at(1899, 12, 29, 30)), 0.25);
    EXPECT_TRUE(refused(at(9999, 12, 31, 24)));
    EXPECT_TRUE(refused(at(100, 1, 1, 0, 0, -1)));
}

TEST(OleDates, DaysAreSetRightAndNothingElse) {
    EXPECT_EQ(date_of(at(2001, 2, 29)), date_of(at(2001, 3, 1)));
    EXPECT_EQ(date_of(at(2001, 2, 31, 5)), date_of(at(2001, 3, 3, 5)));
    EXPECT_EQ(date_of(at(2004, 2, 30)), date_of(at(2004, 3, 1)));
    EXPECT_EQ(date_of(at(2001, 4, 31)), date_of(at(2001, 5, 1)));
    EXPECT_EQ(date_of(at(2001, 2, 0)), date_of(at(2001, 1, 31)));
    EXPECT_EQ(date_of(at(2001, 1, 0)), date_of(at(2000, 12, 31)));
    EXPECT_TRUE(refused(at(100, 1, 0)));  // the year 99
    EXPECT_TRUE(refused(at(2001, 1, 32)));
    EXPECT_TRUE(refused(at(2001, 0, 1)));
    EXPECT_TRUE(refused(at(2001, 13, 1)));
    EXPECT_TRUE(refused(at(2001, 257, 1)));  // a byte of it is a month
    EXPECT_TRUE(refused(at(2001, 1, 257)));
}

TEST(OleDates, MillisecondsAndTheWeekdayAreNotLookedAt) {
    SYSTEMTIME time = at(2009, 3, 5);
    time.wMilliseconds = 999;
    time.wDayOfWeek = 99;
    EXPECT_EQ(date_of(time), date_of(at(2009, 3, 5)));
}

TEST(OleDates, NullIsRefusedWithoutALastError) {
    SetLastError(5);
    SYSTEMTIME time = at(2009, 3, 5);
    double date = 0;
    EXPECT_FALSE(SystemTimeToVariantTime(nullptr, &date));
    EXPECT_FALSE(SystemTimeToVariantTime(&time, nullptr));
    EXPECT_FALSE(VariantTimeToSystemTime(0, nullptr));
    EXPECT_EQ(GetLastError(), 5u);
}

TEST(OleDates, EverySecondComesBack) {
    std::mt19937 random(5);
    for (int i = 0; i < 200'000; ++i) {
        SYSTEMTIME time = at(100 + static_cast<int>(random() % 9900), 1 + static_cast<int>(random() % 12),
                             1 + static_cast<int>(random() % 28), static_cast<int>(random() % 24),
                             static_cast<int>(random() % 60), static_cast<int>(random() % 60));
        SYSTEMTIME back{};
        ASSERT_TRUE(VariantTimeToSystemTime(date_of(time), &back));
        back.wDayOfWeek = 0;
        ASSERT_EQ(std::memcmp(&time, &back, sizeof time), 0) << text_of(date_of(time));
    }
}

}  // namespace
