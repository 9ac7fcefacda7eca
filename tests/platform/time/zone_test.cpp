// Zone data and rules, against the C library's reading of them.

#include "time/zone.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <random>

#include "support/zones.h"

namespace {

using zr::platform::Zone;
using zr::platform::ZoneChange;
using zr::test::kStride;

std::string bytes_of(const std::string& zone) {
    std::ifstream file("/usr/share/zoneinfo/" + zone, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void expect_as_c(const Zone& zone, std::int64_t second, const std::string& name) {
    const std::tm expected = zr::test::c_local_time(second);
    const zr::platform::ZoneTime time = zone.at(second);
    ASSERT_EQ(time.offset, expected.tm_gmtoff) << name << " at " << second;
    ASSERT_EQ(time.name, expected.tm_zone) << name << " at " << second;
}

TEST(Zone, EveryZoneOfTheSystemIsAsTheCLibrarySays) {
    const std::vector<std::string> names = zr::test::system_zones();
    ASSERT_GT(names.size(), 300u / kStride);
    std::mt19937_64 random(1);
    for (const std::string& name : names) {
        const std::optional<Zone> zone = Zone::of_file(bytes_of(name));
        ASSERT_TRUE(zone) << name;
        zr::test::set_zone(name.c_str());
        // Around each change, from the earliest to long behind the last that the file knows.
        for (auto change = zone->next(zr::test::c_utc(1850, 1, 1)); change && change->at < zr::test::c_utc(2120, 1, 1);
             change = zone->next(change->at)) {
            ASSERT_NE(change->before, change->after) << name;
            ASSERT_EQ(zone->at(change->at - 1), change->before) << name;
            ASSERT_EQ(zone->at(change->at), change->after) << name;
            expect_as_c(*zone, change->at - 1, name);
            expect_as_c(*zone, change->at, name);
        }
        for (int i = 0; i < 200; ++i)
            expect_as_c(*zone, static_cast<std::int64_t>(random() % 8'000'000'000) - 3'000'000'000, name);
    }
}

TEST(Zone, NoChangeIsMissed) {
    for (const char* name : {"Europe/Dublin", "Africa/Casablanca", "Australia/Lord_Howe", "America/Nuuk", "Asia/Gaza",
                             "Asia/Tehran", "Pacific/Apia", "America/New_York"}) {
        const std::optional<Zone> zone = Zone::of_file(bytes_of(name));
        ASSERT_TRUE(zone);
        const std::int64_t begin = zr::test::c_utc(2000, 1, 1);
        auto next = zone->next(begin);
        zr::platform::ZoneTime now = zone->at(begin);
        for (std::int64_t second = begin; second < zr::test::c_utc(2042, 1, 1); second += 3600 * kStride) {
            if (next && next->at <= second) {
                now = next->after;
                next = zone->next(next->at);
            }
            ASSERT_EQ(zone->at(second), now) << name << " " << second;
        }
    }
}

TEST(Zone, RulesAreAsTheCLibrarySays) {
    for (const char* rule :
         {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "EST5EDT,M3.2.0,M11.1.0", "IST-1GMT0,M10.5.0,M3.5.0/1",
          "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", "NZST-12NZDT,M9.5.0,M4.1.0/3", "<-02>2<-01>,M3.5.0/-1,M10.5.0/0",
          "EET-2EEST,M3.4.4/50,M10.4.4/50", "<+0330>-3:30<+0430>,J79/24,J263/24", "AAA3BBB,80/2:30:15,300/1",
          "ABC+5:45:30", "AAA-3BBB,J60,J300", "AAA-3BBB,59,300", "XXX-14", "YYY12"}) {
        zr::test::set_zone(rule);
        const std::optional<Zone> zone = Zone::of_rule(rule);
        ASSERT_TRUE(zone) << rule;
        for (auto change = zone->next(zr::test::c_utc(1990, 1, 1)); change && change->at < zr::test::c_utc(2050, 1, 1);
             change = zone->next(change->at)) {
            expect_as_c(*zone, change->at - 1, rule);
            expect_as_c(*zone, change->at, rule);
        }
        for (std::int64_t second = zr::test::c_utc(1990, 1, 1); second < zr::test::c_utc(2050, 1, 1);
             second += 86'399 * kStride)
            expect_as_c(*zone, second, rule);
    }
}

TEST(Zone, ARuleWithoutDatesHasThoseOfTheUsa) {
    const std::optional<Zone> zone = Zone::of_rule("AAA5BBB");
    const std::optional<Zone> usa = Zone::of_rule("AAA5BBB,M3.2.0,M11.1.0");
    ASSERT_TRUE(zone && usa);
    const auto change = zone->next(zr::test::c_utc(2026, 1, 1));
    ASSERT_TRUE(change);
    EXPECT_EQ(change->at, zr::test::c_utc(2026, 3, 8, 7));
    EXPECT_EQ(zone->next(change->at)->at, usa->next(change->at)->at);
}

TEST(Zone, DaylightTimeAllYearIsNeverInterrupted) {
    const std::optional<Zone> zone = Zone::of_rule("XXX3EDT4,0/0,J365/23");
    ASSERT_TRUE(zone);
    for (int year = 2000; year < 2030; ++year) {
        const std::int64_t turn = zr::test::c_utc(year, 1, 1, 3);
        for (const std::int64_t second : {turn - 3601, turn - 1, turn, turn + 1, turn + 15'000'000})
            EXPECT_EQ(zone->at(second).offset, -4 * 3600) << year;
    }
    EXPECT_FALSE(zone->next(zr::test::c_utc(2000, 1, 1)));
}

TEST(Zone, DaylightTimeThatReachesIntoTheNextIsOneWithIt) {
    // Until 23:00 of the 365th day by a clock three hours behind: in a common year that is behind the new year's
    // midnight.
    const std::optional<Zone> zone = Zone::of_rule("EST1EDT4,0/0,364/23");
    ASSERT_TRUE(zone);
    EXPECT_EQ(zone->at(c_utc(2002, 6, 25, 12)).name, "EDT");
    EXPECT_EQ(zone->at(c_utc(2003, 1, 1, 2)).name, "EDT");
    // In a leap year it ends a day before that.
    const std::optional<ZoneChange> end = zone->next(c_utc(2001, 1, 1, 12));
    ASSERT_TRUE(end);
    EXPECT_EQ(end->at, c_utc(2004, 12, 31, 3));
    EXPECT_EQ(end->before.name, "EDT");
    EXPECT_EQ(end->after.name, "EST");
    const std::optional<ZoneChange> begin = zone->next(end->at);
    ASSERT_TRUE(begin);
    EXPECT_EQ(begin->at, c_utc(2005, 1, 1, 1));
    // No leap year in 2100.
    const std::optional<ZoneChange> rare = zone->next(c_utc(2097, 1, 1, 12));
    ASSERT_TRUE(rare);
    EXPECT_EQ(rare->at, c_utc(2104, 12, 31, 3));
}

TEST(Zone, WhatIsNoRuleIsRefused) {
    for (const char* rule : {"",
                             "A",
                             "AB1",
                             "UTC",
                             "CET-",
                             "CET-1CEST,",
                             "CET-1CEST,M3.5.0",
                             "CET-1CEST,M3.5.0,",
                             "CET25",
                             "CET-1:60",
                             "CET-1:00:60",
                             "CET-1CEST,M13.5.0,M10.5.0",
                             "CET-1CEST,M0.5.0,M10.5.0",
                             "CET-1CEST,M3.6.0,M10.5.0",
                             "CET-1CEST,M3.0.0,M10.5.0",
                             "CET-1CEST,M3.5.7,M10.5.0",
                             "CET-1CEST,J0,J5",
                             "CET-1CEST,J366,J5",
                             "CET-1CEST,366,5",
                             "CET-1CEST,M3.5.0/168,M10.5.0",
                             "CET-1CEST,M3.5.0,M10.5.0/3 ",
                             "<CET-1",
                             "<A>1",
                             "<>1",
                             "CET-1CEST,M3.5.0;M10.5.0",
                             "CET99999999999999999999",
                             "Europe/Berlin",
                             "C\xC3\x84T1"})
        EXPECT_FALSE(Zone::of_rule(rule)) << rule;
    EXPECT_FALSE(Zone::of_rule(std::string(300, 'A') + "1"));
    EXPECT_TRUE(Zone::of_rule(std::string(255, 'A') + "1"));
}

TEST(Zone, ADamagedFileIsRefusedOrReadButNeverHarms) {
    const std::string good = bytes_of("Europe/Dublin");
    for (std::size_t size = 0; size < good.size(); ++size)
        EXPECT_FALSE(Zone::of_file(std::string_view(good).substr(0, size))) << size;
    std::mt19937 random(2);
    for (int i = 0; i < 20'000; ++i) {
        std::string bad = good;
        for (int k = 0; k < 3; ++k)
            bad[random() % bad.size()] = static_cast<char>(random());
        const std::optional<Zone> zone = Zone::of_file(bad);
        if (!zone) continue;
        EXPECT_LE(std::abs(zone->at(static_cast<std::int64_t>(random())).offset), 26 * 3600);
        static_cast<void>(zone->next(static_cast<std::int64_t>(random())));
    }
}

// The pieces of a file of the second version with nothing in it but one type.
std::string small_file(std::int32_t offset, const std::string& rule) {
    const auto number = [](std::uint32_t value) {
        std::string bytes;
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes += static_cast<char>(value >> shift);
        return bytes;
    };
    std::string block = "TZif2" + std::string(15, '\0');
    for (const std::uint32_t count : {0u, 0u, 0u, 0u, 1u, 4u})
        block += number(count);
    block += number(static_cast<std::uint32_t>(offset)) + std::string(2, '\0') + std::string("ABC\0", 4);
    return block + block + "\n" + rule + "\n";
}

TEST(Zone, AFileWithoutChangesFollowsItsRule) {
    const std::optional<Zone> zone = Zone::of_file(small_file(3600, "CET-1CEST,M3.5.0,M10.5.0/3"));
    ASSERT_TRUE(zone);
    EXPECT_EQ(zone->at(zr::test::c_utc(2026, 7, 1)).name, "CEST");
    const std::optional<Zone> plain = Zone::of_file(small_file(3600, ""));
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->at(0).name, "ABC");
    EXPECT_FALSE(plain->next(0));
    EXPECT_FALSE(plain->for_ever());
}

TEST(Zone, OffsetsThatNoPlaceHasAreRefused) {
    EXPECT_TRUE(Zone::of_file(small_file(26 * 3600, "")));
    EXPECT_FALSE(Zone::of_file(small_file(26 * 3600 + 1, "")));
    EXPECT_FALSE(Zone::of_file(small_file(-25 * 3600 - 1, "")));
    EXPECT_FALSE(Zone::of_file(small_file(0, "no rule")));
}

TEST(Zone, LeapSecondsAreTakenOut) {
    if (bytes_of("right/Europe/Berlin").empty()) GTEST_SKIP() << "no zones that count leap seconds here";
    const std::optional<Zone> right = Zone::of_file(bytes_of("right/Europe/Berlin"));
    const std::optional<Zone> plain = Zone::of_file(bytes_of("Europe/Berlin"));
    ASSERT_TRUE(right && plain);
    for (std::int64_t second = zr::test::c_utc(1970, 1, 1); second < zr::test::c_utc(2026, 1, 1);) {
        const auto one = right->next(second);
        const auto other = plain->next(second);
        ASSERT_TRUE(one && other);
        ASSERT_EQ(one->at, other->at);
        second = one->at;
    }
}

TEST(Zone, LeapSecondsThatTurnChangesAroundAreRefused) {
    const auto number = [](std::uint32_t value) {
        std::string bytes;
        for (const int shift : {24, 16, 8, 0})
            bytes += static_cast<char>(value >> shift);
        return bytes;
    };
    const auto file = [&](std::uint32_t correction) {
        std::string bytes = "TZif" + std::string(16, '\0');
        for (const std::uint32_t count : {0u, 0u, 1u, 2u, 2u, 2u})
            bytes += number(count);
        bytes += number(100) + number(200) + std::string("\0\1", 2);
        for (const std::uint32_t offset : {3600u, 7200u})
            bytes += number(offset) + std::string(2, '\0');
        return bytes + std::string("A\0", 2) + number(150) + number(correction);
    };
    EXPECT_TRUE(Zone::of_file(file(99)));
    EXPECT_FALSE(Zone::of_file(file(100)));
    EXPECT_FALSE(Zone::of_file(file(150)));
}

TEST(Zone, TheEndsOfTimeAreNoTrouble) {
    for (const char* name : {"Europe/Berlin", "UTC", "Africa/Casablanca"}) {
        const std::optional<Zone> zone = Zone::of_file(bytes_of(name));
        ASSERT_TRUE(zone);
        static_cast<void>(zone->at(INT64_MIN));
        static_cast<void>(zone->at(INT64_MAX));
        static_cast<void>(zone->next(INT64_MIN));
        EXPECT_FALSE(zone->next(INT64_MAX));
    }
}

}  // namespace
