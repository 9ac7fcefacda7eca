#include "zr/icalendar/expansion.h"

#include <gtest/gtest.h>

#include "zr/icalendar/calendars.h"

namespace {

using zr::DaySpan;
using zr::Expansion;
using zr::RecurrenceSet;
using zr::ZonedTime;
using zr::test::at;
using zr::test::calendar_text;
using zr::test::event_text;
using zr::test::on;
using zr::test::use_zone;

const DaySpan kSpring{on(2026, 3, 1), on(2026, 5, 31)};

// The occurrences as a person would list them.
std::string times_of(const Expansion& expansion) {
    if (!expansion.why.empty()) return expansion.why;
    std::string text;
    for (const zr::OccurrenceTime& one : expansion.occurrences) {
        text += (text.empty() ? "" : ",") + (one.time.is_day
                                                 ? zr::day_text(std::chrono::floor<std::chrono::days>(one.time.wall))
                                                 : zr::time_text(one.time.wall));
    }
    return text;
}

RecurrenceSet floating_set(zr::Moment start) {
    RecurrenceSet set;
    set.start.wall = start;
    return set;
}

std::string days_of_rule(const std::string& rule, const DaySpan& span = kSpring) {
    RecurrenceSet set = floating_set(at(2026, 1, 1));
    set.start.is_day = true;
    set.rules = {rule};
    return times_of(zr::expand(set, span));
}

struct Expanded {
    std::string events;
    std::string problems;
};

// Each appointment in a line: its times and its subject.
Expanded expanded(std::string_view components, const DaySpan& span = kSpring) {
    Expanded result;
    const std::string text = calendar_text(components);
    zr::LineReader lines(zr::read_from_memory(text));
    zr::CalendarReader reader(lines, span);
    zr::CalendarReader::Item item;
    while (reader.next(item)) {
        for (const zr::Problem& problem : item.problems) {
            result.problems += (problem.lost ? "! " : "? ") + problem.reason + "\n";
        }
        if (item.kind != zr::CalendarReader::Kind::Event) continue;
        EXPECT_FALSE(item.of_series && item.event.extras.find("RECURRENCE-ID") == std::string::npos);
        result.events += zr::shown_time(item.event.start, item.event.all_day) + " - " +
                         zr::shown_time(item.event.end, item.event.all_day) + " " + item.event.subject +
                         (item.event.pattern ? " (series)" : "") + "\n";
    }
    return result;
}

class Expansions : public testing::Test {
protected:
    void SetUp() override { use_zone("Europe/Oslo"); }
};

TEST_F(Expansions, FollowsRulesThatNoPatternHolds) {
    EXPECT_EQ(days_of_rule("FREQ=MONTHLY;BYMONTHDAY=10,20"), "20260310,20260320,20260410,20260420,20260510,20260520");
    EXPECT_EQ(days_of_rule("FREQ=MONTHLY;BYMONTHDAY=31"), "20260331,20260531");
    EXPECT_EQ(days_of_rule("FREQ=MONTHLY;BYMONTHDAY=-2"), "20260330,20260429,20260530");
    EXPECT_EQ(days_of_rule("FREQ=MONTHLY;BYDAY=FR;BYMONTHDAY=13"), "20260313");
    EXPECT_EQ(days_of_rule("FREQ=YEARLY;BYYEARDAY=100;COUNT=2"), "20260410");
    EXPECT_EQ(days_of_rule("FREQ=YEARLY;BYMONTH=4;BYDAY=2MO,-1FR"), "20260413,20260424");
    EXPECT_EQ(days_of_rule("FREQ=MONTHLY;BYMONTHDAY=10,20;COUNT=6"), "20260310,20260320");
    EXPECT_EQ(days_of_rule("FREQ=MONTHLY;BYMONTHDAY=10,20;UNTIL=20260420"), "20260310,20260320,20260410,20260420");
    EXPECT_EQ(days_of_rule("FREQ=MONTHLY;BYMONTHDAY=10,20;UNTIL=20260419"), "20260310,20260320,20260410");
    EXPECT_EQ(days_of_rule("FREQ=MONTHLY;BYMONTHDAY=10,20;UNTIL=20251231"), "");
    EXPECT_EQ(days_of_rule("FREQ=MONTHLY;BYMONTHDAY=10", {on(2026, 3, 10), on(2026, 4, 10)}), "20260310,20260410");
    EXPECT_EQ(days_of_rule("FREQ=SOMETIMES"), "no rule that can be read");
    EXPECT_EQ(days_of_rule("FREQ=DAILY;INTERVAL=70000"), "an interval that is not from 1 to 32767");
}

TEST_F(Expansions, AddsAndLeavesOutDatesAndRules) {
    RecurrenceSet set = floating_set(at(2026, 3, 2, 9));
    set.rules = {"FREQ=WEEKLY;COUNT=5", "FREQ=WEEKLY;BYDAY=WE;COUNT=2"};
    set.excluded_rules = {"FREQ=WEEKLY;INTERVAL=2;COUNT=2"};
    ZonedTime more;
    more.wall = at(2026, 3, 20, 17);
    set.dates = {{more, {}}, {set.start, {}}};
    ZonedTime day;
    day.wall = at(2026, 3, 30);
    day.is_day = true;
    ZonedTime time;
    time.wall = at(2026, 3, 11, 9);
    set.excluded_dates = {day, time};
    EXPECT_EQ(times_of(zr::expand(set, kSpring)), "20260304T090000,20260309T090000,20260320T170000,20260323T090000");
    // Without a rule the start is the first date.
    set.rules.clear();
    set.excluded_rules.clear();
    EXPECT_EQ(times_of(zr::expand(set, kSpring)), "20260302T090000,20260320T170000");
}

TEST_F(Expansions, TakesTheSpanOnTheDevice) {
    // 23:00 in New York is the next day in Oslo.
    const std::string text = event_text(
        "SUMMARY:Late\r\nDTSTART;TZID=America/New_York:20260301T230000\r\nDTEND;TZID=America/New_York:"
        "20260301T233000\r\nRRULE:FREQ=MONTHLY;BYMONTHDAY=9,10\r\n");
    EXPECT_EQ(expanded(text, {on(2026, 3, 10), on(2026, 3, 10)}).events, "2026-03-10 04:00 - 2026-03-10 04:30 Late\n");
    EXPECT_EQ(expanded(text, {on(2026, 4, 11), on(2026, 4, 30)}).events, "2026-04-11 05:00 - 2026-04-11 05:30 Late\n");
}

TEST_F(Expansions, EndsInBoundedTime) {
    RecurrenceSet set = floating_set(at(1601, 1, 2, 9));
    set.rules = {"FREQ=SECONDLY;BYMONTH=2;BYMONTHDAY=30"};
    EXPECT_EQ(times_of(zr::expand(set, kSpring)), "too many steps from its start to the last of the days");
    set = floating_set(at(2026, 3, 1));
    set.rules = {"FREQ=MINUTELY;INTERVAL=5"};
    const Expansion many = zr::expand(set, kSpring);
    EXPECT_TRUE(many.cut);
    EXPECT_EQ(many.occurrences.size(), Expansion::kMost);
    set.rules = {"FREQ=HOURLY;BYMONTH=2;BYMONTHDAY=30"};
    EXPECT_EQ(times_of(zr::expand(set, kSpring)), "");
}

TEST_F(Expansions, MakesAppointmentsOfThem) {
    const Expanded got = expanded(
        event_text("UID:a\r\nSUMMARY:Rounds\r\nDTSTART:20260331T220000\r\nDURATION:P1D\r\nRRULE:FREQ=HOURLY;"
                   "INTERVAL=12;COUNT=4\r\nEXDATE:20260401T100000\r\n") +
        event_text("UID:a\r\nRECURRENCE-ID:20260402T100000\r\nDTSTART:20260402T110000\r\nSUMMARY:Rounds, later\r\n") +
        event_text("UID:b\r\nSUMMARY:Held\r\nDTSTART:20260331T220000\r\nRRULE:FREQ=DAILY;COUNT=3\r\n") +
        event_text("UID:c\r\nSUMMARY:Dates\r\nDTSTART;VALUE=DATE:20260301\r\nRDATE;VALUE=DATE:20260311,20261224\r\n") +
        event_text("UID:d\r\nSUMMARY:Periods\r\nDTSTART:20260301T080000\r\nDTEND:20260301T090000\r\n"
                   "RDATE;VALUE=PERIOD:20260302T080000/PT3H,20260303T080000/20260303T080500\r\n"));
    EXPECT_EQ(got.events,
              "2026-04-02 11:00 - 2026-04-02 11:00 Rounds, later\n"
              "2026-03-31 22:00 - 2026-03-31 22:00 Held (series)\n"
              "2026-03-31 22:00 - 2026-04-01 22:00 Rounds\n"
              "2026-04-01 22:00 - 2026-04-02 22:00 Rounds\n"
              "2026-03-01 - 2026-03-02 Dates\n"
              "2026-03-11 - 2026-03-12 Dates\n"
              "2026-03-01 08:00 - 2026-03-01 09:00 Periods\n"
              "2026-03-02 08:00 - 2026-03-02 11:00 Periods\n"
              "2026-03-03 08:00 - 2026-03-03 08:05 Periods\n");
    EXPECT_EQ(got.problems,
              "? VEVENT a: RRULE: its occurrences from 2026-03-01 to 2026-05-31 are appointments of their own: 3\n"
              "? VEVENT c: RDATE: its occurrences from 2026-03-01 to 2026-05-31 are appointments of their own: 2\n"
              "? VEVENT d: RDATE: its occurrences from 2026-03-01 to 2026-05-31 are appointments of their own: 3\n");
}

TEST_F(Expansions, KeepsTheClockOfTheirZone) {
    // The clock is put in New York three weeks before it is in Oslo.
    EXPECT_EQ(expanded(event_text("UID:a\r\nSUMMARY:Call\r\nDTSTART;TZID=America/New_York:20260302T090000\r\n"
                                  "DURATION:PT1H\r\nRRULE:FREQ=WEEKLY;COUNT=5\r\n"))
                  .events,
              "2026-03-02 15:00 - 2026-03-02 16:00 Call\n"
              "2026-03-09 14:00 - 2026-03-09 15:00 Call\n"
              "2026-03-16 14:00 - 2026-03-16 15:00 Call\n"
              "2026-03-23 14:00 - 2026-03-23 15:00 Call\n"
              "2026-03-30 15:00 - 2026-03-30 16:00 Call\n");
}

TEST_F(Expansions, NamesWhatDoesNotOccurOrCannotBeExpanded) {
    EXPECT_EQ(
        expanded(event_text("UID:a\r\nDTSTART;VALUE=DATE:20250110\r\nRRULE:FREQ=MONTHLY;BYMONTHDAY=10,20;COUNT=4\r\n"))
            .problems,
        "! VEVENT a: RRULE: does not occur from 2026-03-01 to 2026-05-31\n");
    const Expanded single = expanded(
        event_text("UID:a\r\nSUMMARY:Tick\r\nDTSTART:20200110T090000\r\nRRULE:FREQ=SECONDLY\r\nEXRULE:FREQ=DAILY\r\n"));
    EXPECT_EQ(single.events, "2020-01-10 09:00 - 2020-01-10 09:00 Tick\n");
    EXPECT_EQ(single.problems,
              "! VEVENT a: EXRULE: kept, but not followed\n"
              "! VEVENT a: RRULE: more often than daily; kept, but the appointment is a single one\n"
              "! VEVENT a: RRULE: not expanded: too many steps from its start to the last of the days\n");
}

TEST_F(Expansions, KnowsTheZonesOfWindows) {
    const auto start = [](const std::string& zone) {
        const zr::test::ReadCalendar got = zr::test::read_calendar(
            calendar_text(event_text("UID:a\r\nDTSTART;TZID=\"" + zone + "\":20260701T090000\r\n")));
        return (got.problems.empty() ? "" : got.problems[0].reason + " ") + zr::time_text(got.events.at(0).start);
    };
    EXPECT_EQ(start("W. Europe Standard Time"), "20260701T090000");
    EXPECT_EQ(start("Eastern Standard Time"), "20260701T150000");
    EXPECT_EQ(start("Tokyo Standard Time"), "20260701T020000");
    EXPECT_EQ(start("GMT Standard Time"), "20260701T100000");
    EXPECT_EQ(start("Standard Time"),
              "VEVENT a: DTSTART: no VTIMEZONE for TZID Standard Time; read as the device's time 20260701T090000");
}

}  // namespace
