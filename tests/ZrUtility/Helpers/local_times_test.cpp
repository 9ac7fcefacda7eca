// Conversions with the device's zone, against the system's zone data: every zone, in winter and in summer, for all the
// years in which the zone did what its rule of today says.

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <vector>

#include "ZrUtility/Helpers/WindowsUtilities.h"
#include "support/zones.h"
#include "time/zone.h"

namespace {

using zr::test::c_utc;
using zr::test::file_time;
using zr::test::set_zone;
using zr::test::StoppedClock;
using zr::test::unix_second;

constexpr int kFirstYear = 1990;
constexpr int kLastYear = 2037;

std::int64_t to_local(std::int64_t second) {
    const FILETIME utc = file_time(second);
    FILETIME local{};
    WindowsUtilities::WUFileTimeToLocalFileTime(&utc, &local);
    return unix_second(local);
}

std::int64_t to_utc(std::int64_t second) {
    const FILETIME local = file_time(second);
    FILETIME utc{};
    WindowsUtilities::WULocalFileTimeToFileTime(&local, &utc);
    return unix_second(utc);
}

// The first change behind a second, as the zone data have it; zone_test.cpp holds them against the C library.
std::optional<zr::platform::Zone> zone_data(const std::string& name) {
    std::ifstream file("/usr/share/zoneinfo/" + name, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    return zr::platform::Zone::of_file(bytes);
}

// When a rule's date comes in a year, by the clock that is shown until then.
std::int64_t local_turn(int year, const SYSTEMTIME& rule) {
    namespace chrono = std::chrono;
    const chrono::year_month month = chrono::year(year) / chrono::month(rule.wMonth);
    const chrono::weekday weekday(rule.wDayOfWeek);
    const chrono::sys_days day =
        rule.wDay == 5 ? chrono::sys_days(month / weekday[chrono::last]) : chrono::sys_days(month / weekday[rule.wDay]);
    return day.time_since_epoch().count() * std::int64_t{86'400} + (rule.wHour * 60 + rule.wMinute) * 60 + rule.wSecond;
}

struct Turns {
    std::int64_t to_daylight;
    std::int64_t to_standard;
};

// Says when the rule turns in a year, and whether the zone really did just that, and nothing else.
class Rule {
public:
    explicit Rule(const std::string& name) : zone_(zone_data(name)) {
        id_ = GetTimeZoneInformation(&information_);
        standard_ = -60 * information_.Bias;
        shift_ = -60 * information_.DaylightBias;
    }

    bool has_daylight() const { return information_.StandardDate.wMonth != 0; }
    std::int64_t standard() const { return standard_; }
    std::int64_t shift() const { return shift_; }
    Turns in(int year) const {
        return {local_turn(year, information_.DaylightDate) - standard_,
                local_turn(year, information_.StandardDate) - standard_ - shift_};
    }
    bool held_in(int year) const {
        const std::int64_t begin = c_utc(year, 1, 1) - standard_;
        const std::int64_t end = c_utc(year + 1, 1, 1) - standard_;
        std::vector<std::int64_t> changes;
        for (auto change = zone_->next(begin - 86'400); change && change->at < end + 86'400;
             change = zone_->next(change->at)) {
            if (change->before.offset != change->after.offset) changes.push_back(change->at);
        }
        if (!has_daylight()) return changes.empty() && zone_->at(begin).offset == standard_;
        const Turns turns = in(year);
        const std::vector<std::int64_t> expected{std::min(turns.to_daylight, turns.to_standard),
                                                 std::max(turns.to_daylight, turns.to_standard)};
        return changes == expected && zone_->at(turns.to_daylight).offset == standard_ + shift_ &&
               zone_->at(turns.to_standard).offset == standard_;
    }

private:
    std::optional<zr::platform::Zone> zone_;
    TIME_ZONE_INFORMATION information_{};
    DWORD id_ = 0;
    std::int64_t standard_ = 0;
    std::int64_t shift_ = 0;
};

std::vector<std::int64_t> moments_of(int year, const Rule& rule, std::mt19937_64& random) {
    const std::int64_t begin = c_utc(year, 1, 1, 12) - rule.standard();
    std::vector<std::int64_t> moments;
    for (int i = 0; i < 4; ++i)
        moments.push_back(begin + static_cast<std::int64_t>(random() % (364 * 86'400)));
    if (!rule.has_daylight()) return moments;
    const Turns turns = rule.in(year);
    for (const std::int64_t turn : {turns.to_daylight, turns.to_standard}) {
        for (const std::int64_t away : {std::int64_t{0}, rule.shift()}) {
            for (const std::int64_t near : {-1, 0}) {
                moments.push_back(turn - away + near);
                moments.push_back(turn + away + near);
            }
        }
    }
    return moments;
}

// Calls `check(name, rule, year, moment, is it daylight time now)` for everything there is.
template <typename Check>
void for_all(Check check) {
    std::mt19937_64 random(9);
    std::size_t years = 0;
    for (const std::string& name : zr::test::system_zones()) {
        set_zone(name.c_str());
        for (const std::int64_t now : {c_utc(2026, 1, 15), c_utc(2026, 7, 15)}) {
            const StoppedClock clock(now);
            const Rule rule(name);
            TIME_ZONE_INFORMATION information{};
            const bool daylight_now = GetTimeZoneInformation(&information) == TIME_ZONE_ID_DAYLIGHT;
            for (int year = kFirstYear; year <= kLastYear; ++year) {
                if (!rule.held_in(year)) continue;
                ++years;
                for (const std::int64_t moment : moments_of(year, rule, random)) {
                    check(name, rule, year, moment, daylight_now);
                    if (testing::Test::HasFatalFailure()) return;
                }
            }
        }
    }
    EXPECT_GT(years, 15'000u / zr::test::kStride);  // of the 2 x 48 of some 340 zones
}

bool is_between(std::int64_t moment, std::int64_t from, std::int64_t until) {
    return moment >= from && moment < until;
}

// While it is standard time the shift before daylight time's end is looked up too late, and the shift behind it still
// counts as daylight time; while it is daylight time, the shift before its beginning already does.
bool is_shown_wrong(const Rule& rule, int year, std::int64_t moment, bool daylight_now) {
    if (!rule.has_daylight()) return false;
    const Turns turns = rule.in(year);
    return daylight_now ? is_between(moment, turns.to_daylight - rule.shift(), turns.to_daylight)
                        : is_between(moment, turns.to_standard, turns.to_standard + rule.shift());
}

TEST(LocalTimes, AreTrueButForTheShiftBesideOneTurn) {
    for_all([](const std::string& name, const Rule& rule, int year, std::int64_t moment, bool daylight_now) {
        const std::int64_t local = to_local(moment);
        const std::int64_t expected = moment + zr::test::c_local_time(moment).tm_gmtoff;
        if (is_shown_wrong(rule, year, moment, daylight_now)) {
            ASSERT_EQ(local, expected + rule.shift()) << name << " " << moment << " " << daylight_now;
        } else {
            ASSERT_EQ(local, expected) << name << " " << moment << " " << daylight_now;
        }
        // The same through the other ways.
        FILETIME utc = file_time(moment);
        double date = 0;
        double local_date = 0;
        WindowsUtilities::FileTimeToLocalVariantTime(&utc, &local_date);
        FILETIME from_date{};
        WindowsUtilities::VariantTimeToFileTime(local_date, &from_date);
        ASSERT_EQ(unix_second(from_date), local);
        WindowsUtilities::FileTimeToVariantTime(&utc, &date);
        double other_date = 0;
        WindowsUtilities::VariantTimeToLocalVariantTime(date, &other_date);
        ASSERT_EQ(other_date, local_date);
    });
}

// A time that clocks show twice is taken for daylight time, one that they leave out for daylight time as well.
TEST(LocalTimes, BecomeTheUtcTimeThatTheyStandFor) {
    for_all([](const std::string& name, const Rule& rule, int year, std::int64_t moment, bool daylight_now) {
        const std::int64_t local = moment + zr::test::c_local_time(moment).tm_gmtoff;
        std::int64_t expected = moment;
        if (rule.has_daylight()) {
            const Turns turns = rule.in(year);
            if (is_between(moment, turns.to_standard, turns.to_standard + rule.shift())) expected -= rule.shift();
        }
        const std::int64_t utc = to_utc(local);
        ASSERT_EQ(utc, expected) << name << " " << moment << " " << daylight_now;
        double date = 0;
        FILETIME time = file_time(local);
        WindowsUtilities::FileTimeToVariantTime(&time, &date);
        FILETIME through_date{};
        WindowsUtilities::LocalVariantTimeToFileTime(date, &through_date);
        ASSERT_EQ(unix_second(through_date), utc);
        double utc_date = 0;
        WindowsUtilities::LocalVariantTimeToVariantTime(date, &utc_date);
        WindowsUtilities::VariantTimeToFileTime(utc_date, &through_date);
        ASSERT_EQ(unix_second(through_date), utc);
        // The bias at a local time is the same question.
        ASSERT_EQ(local + 60 * WindowsUtilities::GetCurrentTimeZoneBias(time), utc);
    });
}

TEST(LocalTimes, ThoseThatClocksLeaveOutCountAsDaylightTime) {
    for_all([](const std::string& name, const Rule& rule, int year, std::int64_t moment, bool) {
        if (!rule.has_daylight() || moment != rule.in(year).to_daylight) return;
        const std::int64_t gap = rule.in(year).to_daylight + rule.standard() + rule.shift() / 2;
        ASSERT_EQ(to_utc(gap), gap - rule.standard() - rule.shift()) << name << " " << year;
    });
}

// The server's zones, for the device's zones that have the same rules.
TEST(LocalTimes, OfTheServersZonesBecomeUtc) {
    std::size_t zones = 0;
    std::string last;
    int index = 0;
    for_all([&](const std::string& name, const Rule& rule, int year, std::int64_t moment, bool) {
        if (name != last) {
            last = name;
            index = WindowsUtilities::GetCurrentTZIndex(0);
            zones += index != 0;
        }
        if (index == 0) return;
        const std::int64_t local = moment + zr::test::c_local_time(moment).tm_gmtoff;
        std::int64_t expected = moment;
        if (rule.has_daylight()) {
            const Turns turns = rule.in(year);
            if (is_between(moment, turns.to_standard, turns.to_standard + rule.shift())) expected -= rule.shift();
        }
        const FILETIME time = file_time(local);
        FILETIME utc{};
        WindowsUtilities::TzSpecificFileTimeToFileTime(index, &time, &utc);
        ASSERT_EQ(unix_second(utc), expected) << name << " " << index << " " << moment;
        ASSERT_EQ(WindowsUtilities::GetTimeZoneBias(index, time) * 60, local - expected);
    });
    EXPECT_GT(zones, 100u / zr::test::kStride);
}

// What an outdated rule costs, which docs/time.md tells: the rule of the current year goes for all years.
TEST(LocalTimes, OfOtherYearsFollowTheRuleOfThisOne) {
    set_zone("America/New_York");
    const StoppedClock clock(c_utc(2026, 1, 15));
    const std::int64_t march_2006 = c_utc(2006, 3, 20, 12);  // daylight time began in April then
    EXPECT_EQ(to_local(march_2006), march_2006 - 4 * 3600);
    EXPECT_EQ(zr::test::c_local_time(march_2006).tm_gmtoff, -5 * 3600);
}

TEST(LocalTimes, InAndOutMayBeTheSame) {
    set_zone("Europe/Berlin");
    const StoppedClock clock(c_utc(2026, 1, 15));
    FILETIME time = file_time(c_utc(2026, 7, 15));
    WindowsUtilities::WUFileTimeToLocalFileTime(&time, &time);
    EXPECT_EQ(unix_second(time), c_utc(2026, 7, 15, 2));
    WindowsUtilities::WULocalFileTimeToFileTime(&time, &time);
    EXPECT_EQ(unix_second(time), c_utc(2026, 7, 15));
}

}  // namespace
