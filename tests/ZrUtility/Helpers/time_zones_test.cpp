// The server's zones and the device's, as WindowsUtilities tells them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <limits>
#include <random>
#include <set>

#include "ZrUtility/Helpers/WindowsUtilities.h"
#include "platform/base.h"
#include "support/log_capture.h"
#include "support/source_lines.h"
#include "support/zones.h"

namespace {

using zr::test::c_utc;
using zr::test::file_time;
using zr::test::set_zone;
using zr::test::StoppedClock;
using zr::test::units;

constexpr const char* kWindowsSource = ".\\Helpers\\WindowsUtilities.cppzrwindowsmobile";

// ---- The calendar

TEST(PositionDate, TheDaysThatAreKnown) {
    EXPECT_EQ(WindowsUtilities::GetPositionDate(2009, 3, 0, 2), 8);
    EXPECT_EQ(WindowsUtilities::GetPositionDate(2009, 10, 0, 5), 25);
    EXPECT_EQ(WindowsUtilities::GetPositionDate(2009, 2, 0, 5), 22);  // only four Sundays
    EXPECT_EQ(WindowsUtilities::GetPositionDate(2000, 1, 6, 1), 1);   // a Saturday
    EXPECT_EQ(WindowsUtilities::GetPositionDate(1900, 2, 4, 5), 22);  // no leap year: the 29th would be a Thursday
    EXPECT_EQ(WindowsUtilities::GetPositionDate(2000, 2, 2, 5), 29);
    EXPECT_EQ(WindowsUtilities::GetPositionDate(2004, 2, 0, 5), 29);
}

TEST(PositionDate, IsAsTheCalendarSaysForFourHundredYears) {
    namespace chrono = std::chrono;
    for (int year = 1601; year <= 2000; ++year) {
        for (unsigned month = 1; month <= 12; ++month) {
            const auto last = static_cast<unsigned>((chrono::year(year) / chrono::month(month) / chrono::last).day());
            unsigned days[7][6] = {};
            unsigned count[7] = {};
            for (unsigned day = 1; day <= last; ++day) {
                const chrono::sys_days date = chrono::year(year) / chrono::month(month) / chrono::day(day);
                const unsigned weekday = chrono::weekday(date).c_encoding();
                days[weekday][++count[weekday]] = day;
            }
            for (int weekday = 0; weekday < 7; ++weekday) {
                for (unsigned week = 1; week <= 5; ++week) {
                    ASSERT_EQ(WindowsUtilities::GetPositionDate(year, static_cast<int>(month), weekday,
                                                                static_cast<int>(week)),
                              days[weekday][std::min(week, count[weekday])])
                        << year << "-" << month << " " << weekday << " " << week;
                }
            }
        }
    }
}

TEST(PositionDate, AnyNumbersAreTaken) {
    std::mt19937 random(1);
    const auto any = [&random]() -> int {
        const int extremes[] = {std::numeric_limits<int>::min(), std::numeric_limits<int>::max(), 0, -1, 13, 12, 1};
        return random() % 2 ? extremes[random() % 7] : static_cast<int>(random());
    };
    for (int i = 0; i < 10'000; ++i)
        WindowsUtilities::GetPositionDate(any(), any(), any(), any());
}

// ---- The list

struct Zone {
    int index;
    int offset;
    const char* standard;
    const char* daylight;
};
constexpr Zone kZones[] = {
    {0, -720, "", ""},
    {1, -660, "", ""},
    {2, -600, "", ""},
    {3, -540, "1st Sun Nov 2:00", "2nd Sun Mar 2:00"},
    {4, -480, "1st Sun Nov 2:00", "2nd Sun Mar 2:00"},
    {15, -420, "", ""},
    {10, -420, "1st Sun Nov 2:00", "2nd Sun Mar 2:00"},
    {13, -420, "last Sun Oct 2:00", "1st Sun Apr 2:00"},
    {33, -360, "", ""},
    {20, -360, "1st Sun Nov 2:00", "2nd Sun Mar 2:00"},
    {30, -360, "last Sun Oct 2:00", "1st Sun Apr 2:00"},
    {25, -360, "", ""},
    {45, -300, "", ""},
    {35, -300, "1st Sun Nov 2:00", "2nd Sun Mar 2:00"},
    {40, -300, "", ""},
    {50, -240, "1st Sun Nov 2:00", "2nd Sun Mar 2:00"},
    {55, -240, "", ""},
    {56, -240, "2nd Sat Mar 7:00", "2nd Sat Oct 7:00"},
    {60, -210, "1st Sun Nov 2:00", "2nd Sun Mar 2:00"},
    {65, -180, "last Sun Feb 0:00", "1st Sun Nov 0:00"},
    {70, -180, "", ""},
    {73, -180, "last Sun Oct 2:00", "1st Sun Apr 2:00"},
    {75, -120, "last Sun Sep 2:00", "last Sun Mar 2:00"},
    {80, -60, "last Sun Oct 3:00", "last Sun Mar 2:00"},
    {83, -60, "", ""},
    {90, 0, "", ""},
    {85, 0, "last Sun Oct 2:00", "last Sun Mar 1:00"},
    {110, 60, "last Sun Oct 3:00", "last Sun Mar 2:00"},
    {95, 60, "last Sun Oct 3:00", "last Sun Mar 2:00"},
    {105, 60, "last Sun Oct 3:00", "last Sun Mar 2:00"},
    {100, 60, "last Sun Oct 3:00", "last Sun Mar 2:00"},
    {113, 60, "", ""},
    {130, 120, "last Sun Oct 4:00", "last Sun Mar 3:00"},
    {115, 120, "last Sun Oct 3:00", "last Sun Mar 2:00"},
    {120, 120, "last Thu Sep 7:00", "last Thu Apr 7:00"},
    {140, 120, "", ""},
    {125, 120, "last Sun Oct 4:00", "last Sun Mar 3:00"},
    {135, 120, "3rd Sun Sep 2:00", "last Fri Mar 2:00"},
    {158, 180, "1st Sun Oct 4:00", "1st Sun Apr 3:00"},
    {150, 180, "", ""},
    {145, 180, "last Sun Oct 3:00", "last Sun Mar 2:00"},
    {155, 180, "", ""},
    {160, 210, "4th Tue Sep 2:00", "1st Sun Mar 2:00"},
    {165, 240, "", ""},
    {170, 240, "last Sun Oct 3:00", "last Sun Mar 2:00"},
    {175, 270, "", ""},
    {180, 300, "last Sun Oct 3:00", "last Sun Mar 2:00"},
    {185, 300, "", ""},
    {190, 330, "", ""},
    {193, 345, "", ""},
    {201, 360, "last Sun Oct 3:00", "last Sun Mar 2:00"},
    {195, 360, "", ""},
    {200, 360, "", ""},
    {203, 390, "", ""},
    {205, 420, "", ""},
    {207, 420, "last Sun Oct 3:00", "last Sun Mar 2:00"},
    {210, 480, "", ""},
    {227, 480, "last Sun Oct 3:00", "last Sun Mar 2:00"},
    {215, 480, "", ""},
    {225, 480, "last Sun Mar 3:00", "last Sun Oct 2:00"},
    {220, 480, "", ""},
    {235, 540, "", ""},
    {230, 540, "", ""},
    {240, 540, "last Sun Oct 3:00", "last Sun Mar 2:00"},
    {250, 570, "last Sun Mar 3:00", "last Sun Oct 2:00"},
    {245, 570, "", ""},
    {260, 600, "", ""},
    {255, 600, "last Sun Mar 3:00", "last Sun Oct 2:00"},
    {275, 600, "", ""},
    {265, 600, "last Sun Mar 3:00", "1st Sun Oct 2:00"},
    {270, 600, "last Sun Oct 3:00", "last Sun Mar 2:00"},
    {280, 660, "", ""},
    {290, 720, "3rd Sun Mar 3:00", "1st Sun Oct 2:00"},
    {285, 720, "", ""},
    {300, 780, "", ""},
};

std::string words(const SYSTEMTIME& rule) {
    if (rule.wMonth == 0) return "";
    constexpr const char* kWeeks[] = {"", "1st", "2nd", "3rd", "4th", "last"};
    constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    constexpr const char* kMonths[] = {"",    "Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    return std::string(kWeeks[rule.wDay]) + " " + kDays[rule.wDayOfWeek] + " " + kMonths[rule.wMonth] + " " +
           std::to_string(rule.wHour) + ":00";
}

TEST(ServersZones, EachIsAsTheServerHasIt) {
    ASSERT_EQ(std::size(kZones), 75u);
    for (const Zone& zone : kZones) {
        TIME_ZONE_INFORMATION tzi;
        std::memset(&tzi, 0x55, sizeof tzi);
        WindowsUtilities::GetTimeZoneInfoFromTZIndex(zone.index, tzi);
        EXPECT_EQ(tzi.Bias, -zone.offset) << zone.index;
        EXPECT_EQ(tzi.StandardBias, 0);
        EXPECT_EQ(tzi.DaylightBias, -60);
        EXPECT_EQ(words(tzi.StandardDate), zone.standard) << zone.index;
        EXPECT_EQ(words(tzi.DaylightDate), zone.daylight) << zone.index;
        EXPECT_EQ(tzi.StandardDate.wYear, 0);
        EXPECT_EQ(tzi.StandardDate.wMinute, 0);
        EXPECT_EQ(tzi.DaylightDate.wMilliseconds, 0);
        EXPECT_EQ(tzi.StandardName[0], 0x5555);  // the names stay
        EXPECT_EQ(tzi.DaylightName[31], 0x5555);
    }
}

TEST(ServersZones, ANumberThatNoneHasIsUtc) {
    std::set<int> known;
    for (const Zone& zone : kZones)
        known.insert(zone.index);
    for (int index : {-1, 5, 299, 301, 65535, 65536, 65536 + 110, -65536 + 110, std::numeric_limits<int>::min()}) {
        ASSERT_FALSE(known.contains(index));
        TIME_ZONE_INFORMATION tzi{};
        WindowsUtilities::GetTimeZoneInfoFromTZIndex(index, tzi);
        EXPECT_EQ(tzi.Bias, 0);
        EXPECT_EQ(tzi.StandardDate.wMonth, 0);
        EXPECT_EQ(tzi.DaylightDate.wMonth, 0);
        EXPECT_EQ(WindowsUtilities::GetTimeZoneBias(index, file_time(c_utc(2026, 7, 1))), 0);
    }
}

TEST(ServersZones, TheBiasChangesWithTheRules) {
    const auto bias = [](int index, int month, int day, int hour) {
        return WindowsUtilities::GetTimeZoneBias(index, file_time(c_utc(2026, month, day, hour)));
    };
    EXPECT_EQ(bias(110, 3, 29, 1), 60);
    EXPECT_EQ(bias(110, 3, 29, 2), 120);
    EXPECT_EQ(bias(110, 10, 25, 2), 120);
    EXPECT_EQ(bias(110, 10, 25, 3), 60);
    EXPECT_EQ(bias(255, 1, 15, 0), 660);  // the south
    EXPECT_EQ(bias(255, 3, 29, 3), 600);
    EXPECT_EQ(bias(255, 10, 25, 1), 600);
    EXPECT_EQ(bias(255, 10, 25, 2), 660);
    EXPECT_EQ(bias(235, 7, 1, 0), 540);
    EXPECT_EQ(bias(60, 7, 1, 0), -150);
    const FILETIME too_late{0, 0x80000000};
    EXPECT_EQ(WindowsUtilities::GetTimeZoneBias(110, too_late), 60);
}

TEST(ServersZones, TheirTimesBecomeUtc) {
    FILETIME utc{};
    const FILETIME summer = file_time(c_utc(2026, 7, 1, 12));
    WindowsUtilities::TzSpecificFileTimeToFileTime(110, &summer, &utc);
    EXPECT_EQ(zr::test::unix_second(utc), c_utc(2026, 7, 1, 10));
    WindowsUtilities::TzSpecificFileTimeToFileTime(4, &summer, &utc);
    EXPECT_EQ(zr::test::unix_second(utc), c_utc(2026, 7, 1, 19));
    double date = 46204.5;  // the same
    WindowsUtilities::TzSpecificVariantTimeToFileTime(110, date, &utc);
    EXPECT_EQ(zr::test::unix_second(utc), c_utc(2026, 7, 1, 10));
    double wrong = 1e10;  // counts as the beginning of 1601
    WindowsUtilities::TzSpecificVariantTimeToFileTime(4, wrong, &utc);
    EXPECT_EQ(units(utc), 480 * WindowsUtilities::ONE_MINUTE_UI64);
}

TEST(ServersZones, ARuleIsUnpacked) {
    SYSTEMTIME st{};
    std::memset(&st, 0x55, sizeof st);
    _TZDayInfo weekday{};
    weekday.month = 10;
    weekday.week = 5;
    weekday.day = 6;
    weekday.hour = 15;
    EXPECT_EQ(WindowsUtilities::TZDayInfoToSystemTime(weekday, st), 0);
    const SYSTEMTIME expected{0, 10, 6, 5, 15, 0, 0, 0};
    EXPECT_EQ(std::memcmp(&st, &expected, sizeof st), 0);
    _TZDayInfo fixed{};
    fixed.month = 3;
    fixed.day = 31;
    EXPECT_EQ(WindowsUtilities::TZDayInfoToSystemTime(fixed, st), 1);
    const SYSTEMTIME fixed_expected{0, 3, 0, 31, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(&st, &fixed_expected, sizeof st), 0);
    WORD packed = 0;
    std::memcpy(&packed, &weekday, sizeof packed);
    EXPECT_EQ(packed, 0xF35A);
}

// ---- The device's zone among them

// A rule of POSIX for a zone of the list: the months, weeks and weekdays are the same numbers.
std::string posix_rule(int offset, const SYSTEMTIME& standard, const SYSTEMTIME& daylight) {
    const auto minutes = std::abs(offset);
    std::string rule = std::string("AAA") + (offset < 0 ? "" : "-") + std::to_string(minutes / 60) + ":" +
                       std::to_string(minutes % 60);
    if (standard.wMonth == 0) return rule;
    rule += "BBB";
    for (const SYSTEMTIME& date : {daylight, standard}) {
        rule += ",M" + std::to_string(date.wMonth) + "." + std::to_string(date.wDay) + "." +
                std::to_string(date.wDayOfWeek) + "/" + std::to_string(date.wHour);
    }
    return rule;
}

TEST(DevicesZone, HasTheNumberOfItsExactRules) {
    std::set<std::string> seen;
    for (const Zone& zone : kZones) {
        TIME_ZONE_INFORMATION tzi{};
        WindowsUtilities::GetTimeZoneInfoFromTZIndex(zone.index, tzi);
        const std::string rule = posix_rule(zone.offset, tzi.StandardDate, tzi.DaylightDate);
        set_zone(rule.c_str());
        if (!seen.insert(rule).second) {
            // The first of several with the same rules wins.
            EXPECT_NE(WindowsUtilities::GetCurrentTZIndex(0), zone.index) << rule;
            continue;
        }
        zr::test::LogCapture log;
        for (const BYTE coarse : {BYTE{0}, BYTE{2}, BYTE{255}})
            EXPECT_EQ(WindowsUtilities::GetCurrentTZIndex(coarse), zone.index) << rule;
        ASSERT_EQ(log.records().size(), 3u);
        EXPECT_EQ(log.records()[0].source, kWindowsSource);
        EXPECT_THAT(zr::test::line_of(log.records()[0]), testing::HasSubstr("LogZone(__LINE__"));
        EXPECT_EQ(log.records()[0].category, 0x880010u);
        EXPECT_EQ(log.records()[0].arguments[0], static_cast<std::uintptr_t>(zone.index));
    }
}

TEST(DevicesZone, OneBitOfDifferenceIsNone) {
    set_zone("PST8PDT,M3.2.0,M11.1.0");
    EXPECT_EQ(WindowsUtilities::GetCurrentTZIndex(0), 4);
    for (const char* other : {"PST8PDT,M3.2.0/3,M11.1.0", "PST8PDT,M3.2.0,M11.1.0/3", "PST8PDT,M3.2.0,M11.2.0",
                              "PST8PDT,M3.2.1,M11.1.0", "PST8PDT,M4.2.0,M11.1.0", "PST8:01PDT,M3.2.0,M11.1.0"}) {
        set_zone(other);
        zr::test::LogCapture log;
        EXPECT_EQ(WindowsUtilities::GetCurrentTZIndex(0), 0) << other;
        ASSERT_EQ(log.count(0x880004), 1);
        EXPECT_THAT(zr::test::line_of(log.records().back()), testing::HasSubstr("LogZoneNotFound(__LINE__"));
    }
}

TEST(DevicesZone, AnHourBeforeMidnightLooksLikeSeven) {
    // An hour is packed into 4 bits.
    set_zone("<-04>4<-03>,M10.2.6/23,M3.2.6/23");
    EXPECT_EQ(WindowsUtilities::GetCurrentTZIndex(0), 56);
}

TEST(DevicesZone, WellKnownZonesHaveTheirNumbers) {
    const StoppedClock clock(c_utc(2026, 7, 1));
    const auto numbers = [](const char* zone) {
        set_zone(zone);
        return std::pair(WindowsUtilities::GetCurrentTZIndex(0), WindowsUtilities::GetCurrentTZIndex(1));
    };
    EXPECT_EQ(numbers("America/Los_Angeles"), (std::pair<WORD, WORD>(4, 4)));
    EXPECT_EQ(numbers("America/New_York"), (std::pair<WORD, WORD>(35, 35)));
    EXPECT_EQ(numbers("Europe/London"), (std::pair<WORD, WORD>(85, 85)));
    EXPECT_EQ(numbers("Europe/Dublin"), (std::pair<WORD, WORD>(85, 85)));
    EXPECT_EQ(numbers("Europe/Berlin"), (std::pair<WORD, WORD>(110, 110)));
    EXPECT_EQ(numbers("Asia/Tokyo"), (std::pair<WORD, WORD>(235, 235)));
    EXPECT_EQ(numbers("Asia/Kolkata"), (std::pair<WORD, WORD>(190, 190)));
    EXPECT_EQ(numbers("Australia/Sydney"), (std::pair<WORD, WORD>(0, 255)));  // its rule is a newer one
    EXPECT_EQ(numbers("Australia/Lord_Howe"), (std::pair<WORD, WORD>(0, 0)));
    EXPECT_EQ(numbers("Etc/GMT+12"), (std::pair<WORD, WORD>(0, 0)));  // which is its number
}

struct MapRow {
    int index;
    int offset;
    int daylight;
};
constexpr MapRow kMap[] = {
    {0, -720, 0},  {1, -660, 0},  {2, -600, 0},  {3, -570, 0},  {3, -540, 1},  {4, -510, 0},  {4, -480, 1},
    {15, -420, 0}, {10, -420, 1}, {20, -360, 1}, {25, -360, 0}, {35, -300, 1}, {40, -300, 0}, {50, -240, 1},
    {55, -240, 0}, {60, -210, 1}, {65, -180, 1}, {70, -180, 0}, {75, -120, 1}, {80, -60, 1},  {83, -60, 0},
    {90, 0, 0},    {85, 0, 1},    {110, 60, 1},  {113, 60, 0},  {125, 120, 1}, {135, 120, 1}, {158, 180, 1},
    {150, 180, 0}, {160, 210, 1}, {165, 240, 0}, {170, 240, 1}, {175, 270, 0}, {180, 300, 1}, {185, 300, 0},
    {190, 330, 0}, {193, 345, 0}, {201, 360, 1}, {195, 360, 0}, {203, 390, 0}, {205, 420, 0}, {207, 420, 1},
    {227, 480, 1}, {225, 480, 1}, {235, 540, 0}, {240, 540, 1}, {250, 570, 1}, {245, 570, 0}, {260, 600, 0},
    {255, 600, 1}, {255, 630, 0}, {280, 660, 0}, {280, 690, 0}, {290, 720, 1}, {285, 720, 0}, {285, 765, 0},
    {300, 780, 0}, {300, 840, 0},
};

TEST(DevicesZone, HasACoarseNumberForEachOffset) {
    ASSERT_EQ(std::size(kMap), 58u);
    int found = 0;
    for (int offset = -14 * 60; offset <= 14 * 60; offset += 15) {
        for (int daylight = 0; daylight <= 1; ++daylight) {
            int expected = 0;
            for (const MapRow& row : kMap) {
                if (row.offset != offset || row.daylight != daylight) continue;
                expected = row.index;
                ++found;
                break;
            }
            SYSTEMTIME standard{};
            SYSTEMTIME to_daylight{};
            if (daylight != 0) {
                standard = {0, 10, 0, 5, 5, 0, 0, 0};  // rules that no row of the list has
                to_daylight = {0, 3, 3, 5, 5, 0, 0, 0};
            }
            set_zone(posix_rule(offset, standard, to_daylight).c_str());
            EXPECT_EQ(WindowsUtilities::GetCurrentTZIndex(1), expected) << offset << " " << daylight;
        }
    }
    EXPECT_EQ(found, 56);  // two rows stand behind others for the same
}

TEST(DevicesZone, AZoneThatIsNotThereIsLogged) {
    set_zone("Nowhere/City");
    zr::test::LogCapture log;
    EXPECT_EQ(WindowsUtilities::GetCurrentTZIndex(0), 0);
    EXPECT_EQ(WindowsUtilities::GetCurrentTZIndex(1), 0);
    EXPECT_EQ(WindowsUtilities::GetCurrentTimeZoneBias(), 0);
    FILETIME time = file_time(c_utc(2026, 7, 1));
    EXPECT_EQ(WindowsUtilities::GetCurrentTimeZoneBias(time), 0);
    ASSERT_EQ(log.records().size(), 4u);
    for (const zr::test::LoggedRecord& record : log.records()) {
        EXPECT_EQ(record.source, kWindowsSource);
        EXPECT_THAT(zr::test::line_of(record), testing::HasSubstr("LogNoZone(__LINE__"));
        EXPECT_EQ(record.category, 0x880004u);
        ASSERT_EQ(record.arguments.size(), 1u);
        EXPECT_EQ(record.arguments[0], ERROR_FILE_NOT_FOUND);
    }
    FILETIME out{1, 2};
    WindowsUtilities::WUFileTimeToLocalFileTime(&time, &out);
    WindowsUtilities::WULocalFileTimeToFileTime(&time, &out);
    EXPECT_EQ(units(out), 0x2'0000'0001u);
}

// ---- Standard or daylight

constexpr SYSTEMTIME kOctober = {0, 10, 0, 5, 3, 30, 0, 0};
constexpr SYSTEMTIME kMarch = {0, 3, 0, 5, 2, 15, 0, 0};

DWORD id_at(const SYSTEMTIME& standard, const SYSTEMTIME& daylight, std::int64_t local) {
    TIME_ZONE_INFORMATION tzi{};
    tzi.StandardDate = standard;
    tzi.DaylightDate = daylight;
    const FILETIME time = file_time(local);
    return WindowsUtilities::GetTimeZoneIDFromLocalTime(&time, tzi);
}

TEST(TimeZoneId, InTheNorth) {
    EXPECT_EQ(id_at(kOctober, kMarch, c_utc(2026, 1, 1)), 1u);
    EXPECT_EQ(id_at(kOctober, kMarch, c_utc(2026, 3, 29, 2, 14, 59)), 1u);
    EXPECT_EQ(id_at(kOctober, kMarch, c_utc(2026, 3, 29, 2, 15)), 2u);
    EXPECT_EQ(id_at(kOctober, kMarch, c_utc(2026, 10, 25, 3, 29, 59)), 2u);
    EXPECT_EQ(id_at(kOctober, kMarch, c_utc(2026, 10, 25, 3, 30)), 1u);
}

TEST(TimeZoneId, InTheSouth) {
    EXPECT_EQ(id_at(kMarch, kOctober, c_utc(2026, 1, 1)), 2u);
    EXPECT_EQ(id_at(kMarch, kOctober, c_utc(2026, 3, 29, 2, 14, 59)), 2u);
    EXPECT_EQ(id_at(kMarch, kOctober, c_utc(2026, 3, 29, 2, 15)), 1u);
    EXPECT_EQ(id_at(kMarch, kOctober, c_utc(2026, 10, 25, 3, 29, 59)), 1u);
    EXPECT_EQ(id_at(kMarch, kOctober, c_utc(2026, 10, 25, 3, 30)), 2u);
}

TEST(TimeZoneId, WithoutARuleItIsStandard) {
    EXPECT_EQ(id_at({}, {}, c_utc(2026, 7, 1)), 1u);
    EXPECT_EQ(id_at(kOctober, {}, c_utc(2026, 7, 1)), 1u);
    EXPECT_EQ(id_at({}, kMarch, c_utc(2026, 7, 1)), 1u);
}

TEST(TimeZoneId, TheSameDayForBothIsAlwaysDaylight) {
    for (const int month : {1, 3, 7, 12})
        EXPECT_EQ(id_at(kMarch, kMarch, c_utc(2026, month, 15)), 2u);
}

TEST(TimeZoneId, AFixedDateIsReadAsAWeekdayOfTheMonth) {
    SYSTEMTIME fixed = kMarch;
    fixed.wYear = 2026;
    fixed.wDay = 21;  // beyond the month's count: the last one
    EXPECT_EQ(id_at(kOctober, fixed, c_utc(2026, 3, 28)), 1u);
    EXPECT_EQ(id_at(kOctober, fixed, c_utc(2026, 3, 30)), 2u);
}

// ---- The bias

TEST(CurrentBias, IsWhatIsInForce) {
    set_zone("Europe/Berlin");
    StoppedClock clock(c_utc(2026, 1, 15));
    EXPECT_EQ(WindowsUtilities::GetCurrentTimeZoneBias(), -60);
    FILETIME winter = file_time(c_utc(2026, 1, 15));
    FILETIME summer = file_time(c_utc(2026, 7, 15));
    EXPECT_EQ(WindowsUtilities::GetCurrentTimeZoneBias(winter), -60);
    EXPECT_EQ(WindowsUtilities::GetCurrentTimeZoneBias(summer), -120);
    clock.set(c_utc(2026, 7, 15));
    EXPECT_EQ(WindowsUtilities::GetCurrentTimeZoneBias(), -120);
    EXPECT_EQ(WindowsUtilities::GetCurrentTimeZoneBias(winter), -60);
    EXPECT_EQ(WindowsUtilities::GetCurrentTimeZoneBias(summer), -120);
    set_zone("Asia/Tokyo");
    EXPECT_EQ(WindowsUtilities::GetCurrentTimeZoneBias(), -540);
    EXPECT_EQ(WindowsUtilities::GetCurrentTimeZoneBias(summer), -540);
    set_zone("Australia/Lord_Howe");
    EXPECT_EQ(WindowsUtilities::GetCurrentTimeZoneBias(), -630);
    EXPECT_EQ(WindowsUtilities::GetCurrentTimeZoneBias(winter), -660);
}

}  // namespace
