// The device's zone as the platform tells it.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/notify.h"
#include "platform/time.h"
#include "support/permissions.h"
#include "support/sandbox.h"
#include "support/zones.h"

namespace {

namespace fs = std::filesystem;
using zr::test::c_utc;
using zr::test::set_zone;
using zr::test::StoppedClock;

std::string text_of(const WCHAR* wide) {
    std::string text;
    for (; *wide != 0; ++wide)
        text += static_cast<char>(*wide);
    return text;
}

std::string text_of(const SYSTEMTIME& date) {
    if (date.wMonth == 0) return "-";
    char text[64];
    snprintf(text, sizeof text, "M%d.%d.%d %02d:%02d:%02d", date.wMonth, date.wDay, date.wDayOfWeek, date.wHour,
             date.wMinute, date.wSecond);
    return text;
}

// "id bias standard date daylight-bias daylight date"
std::string told() {
    TIME_ZONE_INFORMATION zone{};
    const DWORD id = GetTimeZoneInformation(&zone);
    if (id == TIME_ZONE_ID_INVALID) return "error " + std::to_string(GetLastError());
    return std::to_string(id) + " " + std::to_string(zone.Bias) + " " + text_of(zone.StandardName) + " " +
           text_of(zone.StandardDate) + " " + std::to_string(zone.DaylightBias) + " " + text_of(zone.DaylightName) +
           " " + text_of(zone.DaylightDate);
}

std::string told_of(const char* zone, std::int64_t now) {
    const StoppedClock clock(now);
    set_zone(zone);
    return told();
}

const std::int64_t kWinter = c_utc(2026, 1, 15);
const std::int64_t kSummer = c_utc(2026, 7, 15);

TEST(TimeZone, TheNorth) {
    EXPECT_EQ(told_of("Europe/Berlin", kWinter), "1 -60 CET M10.5.0 03:00:00 -60 CEST M3.5.0 02:00:00");
    EXPECT_EQ(told_of("Europe/Berlin", kSummer), "2 -60 CET M10.5.0 03:00:00 -60 CEST M3.5.0 02:00:00");
    EXPECT_EQ(told_of("America/New_York", kWinter), "1 300 EST M11.1.0 02:00:00 -60 EDT M3.2.0 02:00:00");
    EXPECT_EQ(told_of("America/St_Johns", kWinter), "1 210 NST M11.1.0 02:00:00 -60 NDT M3.2.0 02:00:00");
}

TEST(TimeZone, TheSouth) {
    EXPECT_EQ(told_of("Australia/Sydney", kWinter), "2 -600 AEST M4.1.0 03:00:00 -60 AEDT M10.1.0 02:00:00");
    EXPECT_EQ(told_of("Australia/Sydney", kSummer), "1 -600 AEST M4.1.0 03:00:00 -60 AEDT M10.1.0 02:00:00");
    EXPECT_EQ(told_of("America/Santiago", kSummer), "1 240 -04 M4.1.0 00:00:00 -60 -03 M9.1.0 00:00:00");
}

TEST(TimeZone, WithoutDaylightTime) {
    EXPECT_EQ(told_of("Asia/Tokyo", kSummer), "0 -540 JST - 0 JST -");
    EXPECT_EQ(told_of("Asia/Kathmandu", kSummer), "0 -345 +0545 - 0 +0545 -");
    EXPECT_EQ(told_of("UTC", kSummer), "0 0 UTC - 0 UTC -");
    EXPECT_EQ(told_of("", kSummer), "0 0 UTC - 0 UTC -");
    EXPECT_EQ(told_of("XXX3EDT4,0/0,J365/23", kSummer), "0 240 EDT - 0 EDT -");  // all year
}

TEST(TimeZone, NegativeDaylightTimeIsTurnedRound) {
    EXPECT_EQ(told_of("Europe/Dublin", kWinter), "1 0 GMT M10.5.0 02:00:00 -60 IST M3.5.0 01:00:00");
    EXPECT_EQ(told_of("Europe/Dublin", kSummer), "2 0 GMT M10.5.0 02:00:00 -60 IST M3.5.0 01:00:00");
}

TEST(TimeZone, OtherShiftsThanAnHour) {
    EXPECT_EQ(told_of("Australia/Lord_Howe", kSummer), "1 -630 +1030 M4.1.0 02:00:00 -30 +11 M10.1.0 02:00:00");
    EXPECT_EQ(told_of("Antarctica/Troll", kSummer), "2 0 +00 M10.5.0 03:00:00 -120 +02 M3.5.0 01:00:00");
}

// The evening before the last Sunday, Thursday's 50 hours: the nearest weekday of a month.
TEST(TimeZone, DaysThatOnlyNearlyAreWeekdaysOfAMonth) {
    EXPECT_EQ(told_of("America/Nuuk", kSummer), "2 120 -02 M10.5.0 00:00:00 -60 -01 M3.5.6 23:00:00");
    EXPECT_EQ(told_of("EET-2EEST,M3.4.4/50,M10.4.4/50", kSummer),
              "2 -120 EET M10.4.6 02:00:00 -60 EEST M3.5.6 02:00:00");
    EXPECT_EQ(told_of("Africa/Cairo", kWinter), "1 -120 EET M10.5.5 00:00:00 -60 EEST M4.5.5 00:00:00");
    EXPECT_EQ(told_of("<+0330>-3:30<+0430>,J79/24,J263/24", kSummer),
              "2 -210 +0330 M9.3.1 00:00:00 -60 +0430 M3.3.6 00:00:00");  // 21 March 2026 is a Saturday
}

// Ramadan: what holds this year is right, whatever the next one brings.
TEST(TimeZone, Morocco) {
    const std::string rules = " 0 +00 M2.4.0 03:00:00 -60 +01 M4.1.0 02:00:00";
    EXPECT_EQ(told_of("Africa/Casablanca", c_utc(2025, 3, 1)), "1" + rules);
    EXPECT_EQ(told_of("Africa/Casablanca", c_utc(2025, 8, 1)), "2" + rules);
}

TEST(TimeZone, AYearInWhichTheZoneChangesForGood) {
    // Kazakhstan went back an hour on 1 March 2024.
    EXPECT_EQ(told_of("Asia/Almaty", c_utc(2024, 2, 1)), "2 -300 +05 M3.1.5 00:00:00 -60 +06 M1.1.1 00:00:00");
    EXPECT_EQ(told_of("Asia/Almaty", c_utc(2024, 6, 1)), "0 -300 +05 - 0 +05 -");
    EXPECT_EQ(told_of("Asia/Almaty", c_utc(2025, 6, 1)), "0 -300 +05 - 0 +05 -");
}

TEST(TimeZone, AYearOfFourChangesIsToldByTheLongerTime) {
    // Egypt interrupted daylight time for Ramadan in 2014: 16 May to 27 June, 1 August to 26 September.
    const std::string now = told_of("Africa/Cairo", c_utc(2014, 6, 1));
    EXPECT_EQ(now, "2 -120 EET M6.4.5 00:00:00 -60 EEST M5.3.5 00:00:00");
    EXPECT_EQ(told_of("Africa/Cairo", c_utc(2014, 7, 10)).front(), '1');
}

TEST(TimeZone, WhatIsInForceIsRightAtEveryMomentOfEveryZone) {
    StoppedClock clock(kWinter);
    for (const std::string& name : zr::test::system_zones()) {
        set_zone(name.c_str());
        // Some days and a prime number of seconds, so that all times of day are met.
        for (std::int64_t now = c_utc(2019, 1, 1); now < c_utc(2029, 1, 1); now += 23 * 86'400 + 3'607) {
            clock.set(now);
            const std::tm expected = zr::test::c_local_time(now);
            TIME_ZONE_INFORMATION zone{};
            const DWORD id = GetTimeZoneInformation(&zone);
            ASSERT_LE(id, TIME_ZONE_ID_DAYLIGHT) << name;
            LONG bias = zone.Bias;
            if (id == TIME_ZONE_ID_STANDARD) bias += zone.StandardBias;
            if (id == TIME_ZONE_ID_DAYLIGHT) bias += zone.DaylightBias;
            ASSERT_EQ(-bias * 60, expected.tm_gmtoff) << name << " " << now;
            ASSERT_EQ(text_of(id == TIME_ZONE_ID_DAYLIGHT ? zone.DaylightName : zone.StandardName), expected.tm_zone)
                << name << " " << now;
            ASSERT_EQ(zone.StandardDate.wMonth == 0, id == TIME_ZONE_ID_UNKNOWN) << name << " " << now;
            ASSERT_EQ(zone.DaylightDate.wMonth == 0, id == TIME_ZONE_ID_UNKNOWN) << name << " " << now;
            ASSERT_EQ(zone.StandardBias, 0);
            SYSTEMTIME local{};
            GetLocalTime(&local);
            ASSERT_EQ(local.wHour, expected.tm_hour);
            ASSERT_EQ(local.wMinute, expected.tm_min);
            ASSERT_EQ(local.wDay, expected.tm_mday);
        }
    }
}

TEST(TimeZone, TheChangeIsMetToTheSecond) {
    set_zone("Europe/Berlin");
    const std::int64_t change = c_utc(2026, 3, 29, 1);
    StoppedClock clock(change - 1);
    EXPECT_EQ(told().front(), '1');
    clock.set(change);
    EXPECT_EQ(told().front(), '2');
    clock.set(change - 1);
    EXPECT_EQ(told().front(), '1');
}

TEST(TimeZone, TheYearIsTheLocalOne) {
    // The rule of the USA changed in 2007.
    EXPECT_EQ(told_of("America/New_York", c_utc(2007, 1, 1, 4)), "1 300 EST M10.5.0 02:00:00 -60 EDT M4.1.0 02:00:00");
    EXPECT_EQ(told_of("America/New_York", c_utc(2007, 1, 1, 5)), "1 300 EST M11.1.0 02:00:00 -60 EDT M3.2.0 02:00:00");
}

TEST(LocalFileTime, UsesTheBiasOfNowWhateverIsConverted) {
    set_zone("Europe/Berlin");
    StoppedClock clock(kWinter);
    const FILETIME summer = zr::test::file_time(kSummer);
    FILETIME local{};
    ASSERT_TRUE(FileTimeToLocalFileTime(&summer, &local));
    EXPECT_EQ(zr::test::unix_second(local), kSummer + 3600);
    FILETIME back{};
    ASSERT_TRUE(LocalFileTimeToFileTime(&local, &back));
    EXPECT_EQ(zr::test::unix_second(back), kSummer);
    clock.set(kSummer);
    ASSERT_TRUE(FileTimeToLocalFileTime(&summer, &local));
    EXPECT_EQ(zr::test::unix_second(local), kSummer + 7200);
}

TEST(LocalFileTime, WhateverIsConvertedComesBack) {
    for (const char* const zone : {"EET-2", "EST5", "UTC"}) {
        set_zone(zone);
        for (const FILETIME time : {FILETIME{0, 0}, FILETIME{1, 0}, FILETIME{0xFFFFFFFF, 0x7FFFFF00}}) {
            FILETIME local{};
            FILETIME back{};
            ASSERT_TRUE(FileTimeToLocalFileTime(&time, &local));
            ASSERT_TRUE(LocalFileTimeToFileTime(&local, &back));
            EXPECT_EQ(CompareFileTime(&back, &time), 0);
            ASSERT_TRUE(LocalFileTimeToFileTime(&time, &back));
        }
        for (const FILETIME late : {FILETIME{0, 0x80000000}, FILETIME{0xFFFFFFFF, 0xFFFFFF00}}) {
            FILETIME out{1, 2};
            SetLastError(0);
            EXPECT_FALSE(FileTimeToLocalFileTime(&late, &out));
            EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
            EXPECT_FALSE(LocalFileTimeToFileTime(&late, &out));
            EXPECT_EQ(out.dwHighDateTime, 2u);
        }
        const FILETIME last{0xFFFFFFFF, 0xFFFFFFFF};
        FILETIME out{1, 2};
        EXPECT_FALSE(FileTimeToLocalFileTime(&last, &out));
        EXPECT_EQ(out.dwHighDateTime, 2u);
    }
    set_zone("EST5");
    const FILETIME first{0, 0};
    FILETIME out{1, 2};
    ASSERT_TRUE(FileTimeToLocalFileTime(&first, &out));
    EXPECT_EQ((ULONGLONG{out.dwHighDateTime} << 32 | out.dwLowDateTime), ULONGLONG{0} - 5 * 36'000'000'000u);
    out = {1, 2};
    SetLastError(0);
    EXPECT_FALSE(FileTimeToLocalFileTime(nullptr, &out));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(FileTimeToLocalFileTime(&first, nullptr));
    EXPECT_EQ(out.dwLowDateTime, 1u);
    EXPECT_EQ(out.dwHighDateTime, 2u);
}

TEST(TimeZone, AZoneThatIsNotThereFails) {
    const FILETIME time = zr::test::file_time(kSummer);
    FILETIME local{};
    for (const char* wrong : {"Nowhere/City", "zone:", "/nowhere", "Europe", "Europe/Berlin/x", ":Nowhere"}) {
        EXPECT_EQ(told_of(wrong, kSummer), "error " + std::to_string(ERROR_FILE_NOT_FOUND)) << wrong;
        SetLastError(0);
        EXPECT_FALSE(FileTimeToLocalFileTime(&time, &local));
        EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
        ZR_ZONE_TRANSITION transition{};
        EXPECT_FALSE(ZrGetNextZoneTransition(&time, &transition));
        EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    }
    EXPECT_EQ(told_of("zone.tab", kSummer), "error " + std::to_string(ERROR_FILE_CORRUPT));
    EXPECT_EQ(told_of("/dev/null", kSummer), "error " + std::to_string(ERROR_FILE_CORRUPT));
    const StoppedClock clock(kSummer);
    SYSTEMTIME local_time{};
    GetLocalTime(&local_time);
    EXPECT_EQ(local_time.wHour, 0);
    EXPECT_EQ(local_time.wDay, 15);
    EXPECT_EQ(GetTimeZoneInformation(nullptr), TIME_ZONE_ID_INVALID);
}

TEST(TimeZone, AFileThatMayNotBeReadFails) {
    const zr::test::WithoutOverride like_everybody;
    const fs::path file = zr::test::sandbox() / "zone";
    fs::copy_file("/usr/share/zoneinfo/Asia/Tokyo", file);
    fs::permissions(file, fs::perms::none);
    EXPECT_EQ(told_of(file.c_str(), kSummer), "error " + std::to_string(ERROR_ACCESS_DENIED));
}

TEST(TimeZone, TheWaysToNameOne) {
    EXPECT_EQ(told_of("Asia/Tokyo", kSummer), told_of(":Asia/Tokyo", kSummer));
    EXPECT_EQ(told_of("Asia/Tokyo", kSummer), told_of("/usr/share/zoneinfo/Asia/Tokyo", kSummer));
    EXPECT_EQ(told_of("JST-9", kSummer), told_of("Asia/Tokyo", kSummer));
    EXPECT_EQ(told_of("<A-Very-Long-Name-That-Does-Not-Fit-In-32>-9", kSummer),
              "0 -540 A-Very-Long-Name-That-Does-Not- - 0 A-Very-Long-Name-That-Does-Not- -");
    const fs::path folder = zr::test::sandbox() / "zones";
    fs::create_directories(folder);
    fs::copy_file("/usr/share/zoneinfo/Asia/Tokyo", folder / "Mine");
    setenv("TZDIR", folder.c_str(), 1);
    EXPECT_EQ(told_of("Mine", kSummer), "0 -540 JST - 0 JST -");
    unsetenv("TZDIR");
}

TEST(TimeZone, AChangeOfTzIsNoticedAtOnce) {
    const StoppedClock clock(kSummer);
    for (int i = 0; i < 200; ++i) {
        set_zone("Asia/Tokyo");
        ASSERT_EQ(told(), "0 -540 JST - 0 JST -");
        set_zone("Asia/Kathmandu");
        ASSERT_EQ(told(), "0 -345 +0545 - 0 +0545 -");
        set_zone("<A-Very-Long-Name-That-Goes-On-And-On-And-On-And-On-And-On-And-On>-3");
        ASSERT_EQ(told().substr(0, 6), "0 -180");
    }
}

void put_in_place(const fs::path& file, const char* zone) {
    const fs::path fresh = file.string() + ".new";
    fs::create_symlink(std::string("/usr/share/zoneinfo/") + zone, fresh);
    fs::rename(fresh, file);
}

TEST(TimeZone, AChangeOfTheSystemsFileIsNoticed) {
    const fs::path file = zr::test::sandbox() / "localtime";
    setenv("ZR_ZONE_FILE", file.c_str(), 1);
    fs::remove(file);
    const StoppedClock clock(kSummer);
    set_zone(nullptr);
    EXPECT_EQ(told(), "0 0 UTC - 0 UTC -");  // no file
    for (const auto& [zone, expected] :
         {std::pair{"Asia/Tokyo", "0 -540 JST - 0 JST -"}, std::pair{"Asia/Kathmandu", "0 -345 +0545 - 0 +0545 -"}}) {
        put_in_place(file, zone);
        const auto begin = std::chrono::steady_clock::now();
        while (told() != expected && std::chrono::steady_clock::now() - begin < std::chrono::seconds(10))
            std::this_thread::yield();
        EXPECT_EQ(told(), expected);
    }
    fs::remove(file);
}

TEST(TimeZone, WhoIsToldOfAChangeGetsTheNewZone) {
    const fs::path file = zr::test::sandbox() / "localtime";
    setenv("ZR_ZONE_FILE", file.c_str(), 1);
    set_zone(nullptr);
    put_in_place(file, "Asia/Tokyo");
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, u"a zone changed");
    ASSERT_NE(event, nullptr);
    ASSERT_TRUE(CeRunAppAtEvent(u"\\\\.\\Notifications\\NamedEvents\\a zone changed", NOTIFICATION_EVENT_TZ_CHANGE));
    for (int i = 0; i < 10; ++i) {
        const bool east = i % 2 == 0;
        static_cast<void>(told());
        put_in_place(file, east ? "Asia/Kathmandu" : "Asia/Tokyo");
        while (WaitForSingleObject(event, 0) == WAIT_TIMEOUT)
            static_cast<void>(told());
        EXPECT_EQ(told().substr(0, 6), east ? "0 -345" : "0 -540");
    }
    CeRunAppAtEvent(u"\\\\.\\Notifications\\NamedEvents\\a zone changed", NOTIFICATION_EVENT_NONE);
    CloseHandle(event);
    fs::remove(file);
}

TEST(TimeZone, IsToldToManyThreadsAtOnce) {
    set_zone("Europe/Berlin");
    StoppedClock clock(kSummer);
    const FILETIME time = zr::test::file_time(kSummer);
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20'000; ++i) {
                TIME_ZONE_INFORMATION zone{};
                FILETIME local{};
                if (GetTimeZoneInformation(&zone) != TIME_ZONE_ID_DAYLIGHT || zone.Bias != -60) ++wrong;
                if (!FileTimeToLocalFileTime(&time, &local) || zr::test::unix_second(local) != kSummer + 7200) ++wrong;
                ZR_ZONE_TRANSITION next{};
                if (i % 100 == 0 && !ZrGetNextZoneTransition(&time, &next)) ++wrong;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST(ZoneTransitions, FollowEachOther) {
    set_zone("Europe/Berlin");
    FILETIME after = zr::test::file_time(kSummer);
    ZR_ZONE_TRANSITION transition{};
    ASSERT_TRUE(ZrGetNextZoneTransition(&after, &transition));
    EXPECT_EQ(zr::test::unix_second(transition.When), c_utc(2026, 10, 25, 1));
    EXPECT_EQ(transition.BiasBefore, -7200);
    EXPECT_EQ(transition.Bias, -3600);
    EXPECT_EQ(text_of(transition.NameBefore), "CEST");
    EXPECT_EQ(text_of(transition.Name), "CET");
    after = transition.When;
    ASSERT_TRUE(ZrGetNextZoneTransition(&after, &transition));
    EXPECT_EQ(zr::test::unix_second(transition.When), c_utc(2027, 3, 28, 1));
}

TEST(ZoneTransitions, EndWhereTheyEnd) {
    FILETIME after = zr::test::file_time(kSummer);
    ZR_ZONE_TRANSITION transition{};
    set_zone("Asia/Tokyo");
    EXPECT_FALSE(ZrGetNextZoneTransition(&after, &transition));
    EXPECT_EQ(GetLastError(), ERROR_NO_MORE_ITEMS);
    set_zone("Europe/Berlin");
    after = {0xFFFFFFFF, 0x7FFFFFFF};
    EXPECT_FALSE(ZrGetNextZoneTransition(&after, &transition));
    EXPECT_EQ(GetLastError(), ERROR_NO_MORE_ITEMS);
    after = {0, 0x80000000};
    EXPECT_FALSE(ZrGetNextZoneTransition(&after, &transition));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(ZrGetNextZoneTransition(nullptr, &transition));
    EXPECT_FALSE(ZrGetNextZoneTransition(&after, nullptr));
}

std::string zone_name() {
    WCHAR name[256];
    const DWORD length = ZrGetZoneName(name, 256);
    EXPECT_EQ(length, text_of(name).size());
    return text_of(name);
}

TEST(ZoneName, IsThatOfTz) {
    set_zone("Europe/Berlin");
    EXPECT_EQ(zone_name(), "Europe/Berlin");
    set_zone("Nowhere/City");
    EXPECT_EQ(zone_name(), "Nowhere/City");
    set_zone("");
    EXPECT_EQ(zone_name(), "UTC");
}

TEST(ZoneName, IsThatOfTheSystemsFile) {
    const fs::path file = zr::test::sandbox() / "localtime";
    setenv("ZR_ZONE_FILE", file.c_str(), 1);
    fs::remove(file);
    set_zone(nullptr);
    EXPECT_EQ(zone_name(), "UTC");
    put_in_place(file, "Asia/Tokyo");
    EXPECT_EQ(zone_name(), "Asia/Tokyo");
    fs::remove(file);
    fs::create_symlink("elsewhere", file);
    fs::create_symlink("/usr/share/zoneinfo/Europe/Paris", zr::test::sandbox() / "elsewhere");
    EXPECT_EQ(zone_name(), "Europe/Paris");
    fs::remove(file);
    fs::copy_file("/usr/share/zoneinfo/Asia/Tokyo", file);
    EXPECT_EQ(zone_name(), file.string());
}

TEST(ZoneName, IsCutToItsRoom) {
    set_zone("Europe/Berlin");
    WCHAR name[7];
    EXPECT_EQ(ZrGetZoneName(name, 7), 13u);
    EXPECT_EQ(text_of(name), "Europe");
    EXPECT_EQ(ZrGetZoneName(nullptr, 0), 13u);
    EXPECT_EQ(ZrGetZoneName(name, 0), 13u);
}

}  // namespace
