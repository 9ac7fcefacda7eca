#include "zr/icalendar/recurrence.h"

#include <gtest/gtest.h>
#include <libical/ical.h>
#include <platform/platform.h>

#include <random>
#include <vector>

#include "zr/icalendar/calendars.h"

namespace {

using namespace std::chrono;
using zr::CalendarDay;
using zr::Pattern;
using zr::RulePattern;
using zr::test::at;
using zr::test::on;

RulePattern pattern_of(const std::string& rule, zr::Moment start, int shift = 0) {
    zr::RuleStart from;
    from.wall = start;
    from.shift = shift;
    from.last_day = [](const zr::ZonedTime& until) { return floor<days>(until.wall); };
    return zr::pattern_of_rule(rule, from);
}

std::string why(const std::string& rule, zr::Moment start = at(2026, 1, 5, 9)) {
    const RulePattern found = pattern_of(rule, start);
    return found.pattern ? zr::rule_of_pattern(*found.pattern) : found.why;
}

// The days that libical gives for a rule, none before `start`.
std::vector<CalendarDay> days_by_libical(const std::string& rule, CalendarDay start, std::size_t most) {
    const year_month_day date(start);
    icaltimetype from = icaltime_null_time();
    from.year = int(date.year());
    from.month = static_cast<int>(unsigned(date.month()));
    from.day = static_cast<int>(unsigned(date.day()));
    from.hour = 12;
    icalrecur_iterator* iterator = icalrecur_iterator_new(icalrecurrencetype_from_string(rule.c_str()), from);
    std::vector<CalendarDay> found;
    while (iterator && found.size() < most) {
        const icaltimetype next = icalrecur_iterator_next(iterator);
        if (icaltime_is_null_time(next) || next.year > 2120) break;
        found.push_back(on(next.year, static_cast<unsigned>(next.month), static_cast<unsigned>(next.day)));
    }
    if (iterator) icalrecur_iterator_free(iterator);
    return found;
}

std::vector<CalendarDay> days_by_pattern(const Pattern& pattern, CalendarDay first, std::size_t most) {
    std::vector<CalendarDay> found;
    for (CalendarDay day = first; found.size() < most && day < on(2120, 12, 31); day += days(1)) {
        if (zr::occurs_on(pattern, first, day)) found.push_back(day);
    }
    return found;
}

TEST(Recurrence, HoldsTheFormsThatProgramsWrite) {
    EXPECT_EQ(why("FREQ=DAILY"), "FREQ=DAILY");
    EXPECT_EQ(why("FREQ=DAILY;INTERVAL=3"), "FREQ=DAILY;INTERVAL=3");
    EXPECT_EQ(why("FREQ=DAILY;BYDAY=MO,TU,WE,TH,FR"), "FREQ=WEEKLY;BYDAY=MO,TU,WE,TH,FR");
    EXPECT_EQ(why("FREQ=WEEKLY"), "FREQ=WEEKLY;BYDAY=MO");
    EXPECT_EQ(why("FREQ=WEEKLY;INTERVAL=2;BYDAY=MO,WE"), "FREQ=WEEKLY;INTERVAL=2;BYDAY=MO,WE;WKST=SU");
    EXPECT_EQ(why("FREQ=MONTHLY"), "FREQ=MONTHLY;BYMONTHDAY=5");
    EXPECT_EQ(why("FREQ=MONTHLY;BYMONTHDAY=-1"), "FREQ=MONTHLY;BYMONTHDAY=-1");
    EXPECT_EQ(why("FREQ=MONTHLY;BYMONTHDAY=28,29,30;BYSETPOS=-1"), "FREQ=MONTHLY;BYMONTHDAY=28,29,30;BYSETPOS=-1");
    EXPECT_EQ(why("FREQ=MONTHLY;BYDAY=2TU"), "FREQ=MONTHLY;BYDAY=2TU");
    EXPECT_EQ(why("FREQ=MONTHLY;BYDAY=TU;BYSETPOS=2"), "FREQ=MONTHLY;BYDAY=2TU");
    EXPECT_EQ(why("FREQ=MONTHLY;BYDAY=TU;BYMONTHDAY=8,9,10,11,12,13,14"), "FREQ=MONTHLY;BYDAY=2TU");
    EXPECT_EQ(why("FREQ=MONTHLY;BYDAY=-1FR"), "FREQ=MONTHLY;BYDAY=-1FR");
    EXPECT_EQ(why("FREQ=MONTHLY;BYDAY=MO,TU,WE,TH,FR;BYSETPOS=-1"), "FREQ=MONTHLY;BYDAY=MO,TU,WE,TH,FR;BYSETPOS=-1");
    EXPECT_EQ(why("FREQ=MONTHLY;BYDAY=MO"), "FREQ=WEEKLY;BYDAY=MO");
    EXPECT_EQ(why("FREQ=YEARLY"), "FREQ=YEARLY;BYMONTH=1;BYMONTHDAY=5");
    EXPECT_EQ(why("FREQ=YEARLY;INTERVAL=4;BYMONTH=11;BYDAY=1TU"), "FREQ=YEARLY;INTERVAL=4;BYMONTH=11;BYDAY=1TU");
    EXPECT_EQ(why("FREQ=MONTHLY;BYMONTH=11;BYMONTHDAY=5"), "FREQ=YEARLY;BYMONTH=11;BYMONTHDAY=5");
    EXPECT_EQ(why("FREQ=YEARLY;BYMONTH=2;BYMONTHDAY=-1"), "FREQ=YEARLY;BYMONTH=2;BYMONTHDAY=-1");
    EXPECT_EQ(why("FREQ=DAILY;BYHOUR=9;BYMINUTE=0"), "FREQ=DAILY");
    EXPECT_EQ(why("FREQ=DAILY;UNTIL=99991231T235959Z"), "FREQ=DAILY");
}

TEST(Recurrence, SaysWhatItCannotHold) {
    EXPECT_EQ(why("FREQ=HOURLY"), "more often than daily");
    EXPECT_EQ(why("FREQ=SECONDLY;COUNT=3"), "more often than daily");
    EXPECT_EQ(why("FREQ=DAILY;BYHOUR=9,17"), "times of day in a rule");
    EXPECT_EQ(why("FREQ=DAILY;BYMONTH=1"), "a daily rule with months, month days or positions");
    EXPECT_EQ(why("FREQ=DAILY;INTERVAL=2;BYDAY=MO"), "every few days, on weekdays only");
    EXPECT_EQ(why("FREQ=MONTHLY;BYMONTHDAY=1,15"), "several days of a month");
    EXPECT_EQ(why("FREQ=MONTHLY;BYMONTHDAY=-2"), "days counted from the end of the month");
    EXPECT_EQ(why("FREQ=MONTHLY;BYDAY=1MO,3MO"), "several numbered weekdays");
    EXPECT_EQ(why("FREQ=MONTHLY;BYDAY=5FR"), "weekdays but for the first to fourth and last");
    EXPECT_EQ(why("FREQ=MONTHLY;BYDAY=FR;BYMONTHDAY=13"), "weekdays on certain days of a month");
    EXPECT_EQ(why("FREQ=MONTHLY;BYDAY=MO,TU;BYSETPOS=1,2"), "positions (BYSETPOS)");
    EXPECT_EQ(why("FREQ=MONTHLY;INTERVAL=2;BYDAY=MO"), "every such weekday of a month");
    EXPECT_EQ(why("FREQ=YEARLY;BYMONTH=1,7"), "several months of a year");
    EXPECT_EQ(why("FREQ=YEARLY;BYMONTHDAY=1"), "days of a month, but no month");
    EXPECT_EQ(why("FREQ=YEARLY;BYDAY=20MO"), "numbered weekdays of a year");
    EXPECT_EQ(why("FREQ=YEARLY;BYYEARDAY=100"), "days of the year");
    EXPECT_EQ(why("FREQ=YEARLY;BYWEEKNO=20"), "weeks of the year");
    EXPECT_EQ(why("FREQ=WEEKLY;INTERVAL=2;BYDAY=MO,SU"), "WKST: weeks that do not begin on Sunday");
    EXPECT_EQ(why("FREQ=DAILY;INTERVAL=1000"), "an interval that is not from 1 to 999");
    EXPECT_EQ(why("FREQ=DAILY;INTERVAL=65537"), "an interval that is not from 1 to 999");
    EXPECT_EQ(why("FREQ=DAILY;COUNT=1000000"), "occurrences behind the year 4500");
    EXPECT_EQ(why("FREQ=DAILY;UNTIL=20251231"), "ends before it begins");
    EXPECT_EQ(why("FREQ=YEARLY;BYMONTH=2;BYMONTHDAY=30"), "no day that fits");
    EXPECT_EQ(why("FREQ=NEVER"), "no rule that can be read");
    EXPECT_EQ(why(""), "no rule that can be read");
}

TEST(Recurrence, NamesMonthsThatAreTooShort) {
    const RulePattern found = pattern_of("FREQ=MONTHLY;BYMONTHDAY=31", at(2026, 1, 31));
    ASSERT_TRUE(found.pattern);
    EXPECT_FALSE(found.exact);
    EXPECT_EQ(found.why, "months without a day 31 have it on their last day");
    EXPECT_FALSE(pattern_of("FREQ=YEARLY", at(2024, 2, 29)).exact);
    // Every other month, and never the short ones.
    EXPECT_TRUE(pattern_of("FREQ=MONTHLY;INTERVAL=12", at(2026, 1, 31)).exact);
    EXPECT_TRUE(pattern_of("FREQ=MONTHLY;INTERVAL=2", at(2026, 1, 30)).exact);
}

TEST(Recurrence, BeginsOnTheFirstDayThatFits) {
    EXPECT_EQ(pattern_of("FREQ=WEEKLY;BYDAY=TU", at(2026, 1, 5)).first, on(2026, 1, 6));
    EXPECT_EQ(pattern_of("FREQ=WEEKLY;INTERVAL=3;BYDAY=MO;WKST=SU", at(2026, 1, 6)).first, on(2026, 1, 26));
    EXPECT_EQ(pattern_of("FREQ=WEEKLY;INTERVAL=4;BYDAY=SU", at(2030, 11, 25)).first, on(2030, 12, 1));
    EXPECT_EQ(pattern_of("FREQ=WEEKLY;INTERVAL=4;BYDAY=SU;WKST=SU", at(2030, 11, 25)).first, on(2030, 12, 22));
    EXPECT_EQ(pattern_of("FREQ=MONTHLY;BYMONTHDAY=31;INTERVAL=3", at(2026, 2, 1)).first, on(2026, 5, 31));
    EXPECT_EQ(pattern_of("FREQ=YEARLY;BYMONTH=2;BYMONTHDAY=29", at(2026, 1, 1)).first, on(2028, 2, 29));
    EXPECT_EQ(pattern_of("FREQ=YEARLY;BYMONTH=3", at(2026, 4, 5)).first, on(2027, 3, 5));
}

TEST(Recurrence, MovesDaysBetweenZones) {
    const auto moved = [](const std::string& rule, int shift) {
        const RulePattern found = pattern_of(rule, at(2026, 1, 5, 9), shift);  // a Monday
        return found.pattern ? zr::rule_of_pattern(*found.pattern) + " " + zr::day_text(found.first) : found.why;
    };
    EXPECT_EQ(moved("FREQ=DAILY", -1), "FREQ=DAILY 20260104");
    EXPECT_EQ(moved("FREQ=WEEKLY;BYDAY=MO,SA", 1), "FREQ=WEEKLY;BYDAY=SU,TU 20260106");
    EXPECT_EQ(moved("FREQ=WEEKLY;BYDAY=MO,SU", -1), "FREQ=WEEKLY;BYDAY=SU,SA 20260104");
    EXPECT_EQ(moved("FREQ=MONTHLY", 1), "FREQ=MONTHLY;BYMONTHDAY=6 20260106");
    EXPECT_EQ(moved("FREQ=MONTHLY;BYDAY=1MO", -1), "in a zone where it is another day than on the device");
    EXPECT_EQ(moved("FREQ=MONTHLY;BYMONTHDAY=-1", 1), "in a zone where it is another day than on the device");
    // Weeks from Monday become weeks from Sunday, which is what the store has.
    EXPECT_EQ(moved("FREQ=WEEKLY;INTERVAL=2;BYDAY=MO,SU", -1), "FREQ=WEEKLY;INTERVAL=2;BYDAY=SU,SA;WKST=SU 20260104");
}

class RandomRules {
public:
    explicit RandomRules(unsigned seed) : random_(seed) {}

    int number(int from, int to) { return std::uniform_int_distribution<int>(from, to)(random_); }
    bool chance() { return number(0, 1) == 1; }
    std::string days(bool numbered) {
        static const char* names[] = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};
        std::string text;
        for (int day = 0; day < 7; ++day) {
            if (number(0, 3) > 0) continue;
            text += text.empty() ? "" : ",";
            if (numbered) text += std::to_string(number(0, 4) == 0 ? -1 : number(1, 4));
            text += names[day];
        }
        return text;
    }
    std::string rule() {
        static const char* frequencies[] = {"DAILY", "WEEKLY", "MONTHLY", "YEARLY"};
        const int frequency = number(0, 3);
        std::string text = std::string("FREQ=") + frequencies[frequency];
        if (chance()) text += ";INTERVAL=" + std::to_string(number(1, 5));
        const std::string weekdays = chance() ? days(frequency > 1 && number(0, 2) == 0) : "";
        if (!weekdays.empty()) text += ";BYDAY=" + weekdays;
        if (frequency > 1 && number(0, 2) == 0) text += ";BYMONTHDAY=" + std::to_string(chance() ? number(1, 31) : -1);
        if (frequency > 1 && !weekdays.empty() && chance())
            text += ";BYSETPOS=" + std::to_string(chance() ? number(1, 4) : -1);
        if (frequency == 3 ? chance() : number(0, 20) == 0) text += ";BYMONTH=" + std::to_string(number(1, 12));
        // libical does not count weeks from other days as RFC 5545 says.
        static const char* starts[] = {"", ";WKST=SU", ";WKST=MO"};
        return text + starts[number(0, 2)];
    }

private:
    std::mt19937 random_;
};

TEST(Recurrence, OccursWhereLibicalSaysForEveryRuleThatItHolds) {
    RandomRules random(4711);
    int held = 0;
    for (int round = 0; round < 600; ++round) {
        const std::string rule = random.rule();
        const CalendarDay start = on(2020, 1, 1) + days(random.number(0, 4000));
        const RulePattern found = pattern_of(rule, start);
        if (!found.pattern) continue;
        const auto expected = days_by_libical(rule, found.first, 12);
        ASSERT_FALSE(expected.empty()) << rule;
        // The same rule from DTSTART on has no earlier day.
        // (libical leaves out the rest of the first week when a weekly rule does not have DTSTART.)
        if (found.pattern->type != olRecursWeekly) {
            ASSERT_EQ(days_by_libical(rule, start, 1)[0], found.first) << rule << " from " << zr::day_text(start);
        }
        if (found.exact) {
            ++held;
            ASSERT_EQ(expected, days_by_pattern(*found.pattern, found.first, expected.size()))
                << rule << " from " << zr::day_text(start);
        }
        // What is written for the pattern has the pattern's days, and gives it again.
        const std::string written = zr::rule_of_pattern(*found.pattern);
        ASSERT_EQ(days_by_libical(written, found.first, 10), days_by_pattern(*found.pattern, found.first, 10))
            << rule << " as " << written;
        const RulePattern again = pattern_of(written, found.first);
        ASSERT_TRUE(again.pattern && again.exact) << written << ": " << again.why;
        ASSERT_EQ(zr::rule_of_pattern(*again.pattern), written);
    }
    EXPECT_GT(held, 150);
}

}  // namespace
