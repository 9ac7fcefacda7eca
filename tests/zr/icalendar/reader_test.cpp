#include "zr/icalendar/reader.h"

#include <gtest/gtest.h>
#include <platform/platform.h>

#include "zr/icalendar/calendars.h"

namespace {

using zr::Event;
using zr::test::at;
using zr::test::calendar_text;
using zr::test::event_text;
using zr::test::on;
using zr::test::read_calendar;
using zr::test::ReadCalendar;
using zr::test::use_zone;

constexpr const char* kNewYork =
    "BEGIN:VTIMEZONE\r\nTZID:New York\r\nBEGIN:DAYLIGHT\r\nTZOFFSETFROM:-0500\r\nTZOFFSETTO:-0400\r\n"
    "DTSTART:20070311T020000\r\nRRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=2SU\r\nEND:DAYLIGHT\r\n"
    "BEGIN:STANDARD\r\nTZOFFSETFROM:-0400\r\nTZOFFSETTO:-0500\r\nDTSTART:20071104T020000\r\n"
    "RRULE:FREQ=YEARLY;BYMONTH=11;BYDAY=1SU\r\nEND:STANDARD\r\nEND:VTIMEZONE\r\n";

class Calendars : public testing::Test {
protected:
    void SetUp() override { use_zone("Europe/Berlin"); }
};

// The reasons of all problems, one in a line, each with its line number.
std::string reasons(const ReadCalendar& read) {
    std::string text;
    for (const zr::Problem& problem : read.problems) {
        text += std::to_string(problem.line) + (problem.lost ? " ! " : " ? ") + problem.reason + "\n";
    }
    return text;
}

// The only event of a calendar with these properties.
Event only(const std::string& properties, const std::string& more = {}, std::string* told = nullptr) {
    const ReadCalendar read = read_calendar(calendar_text(more + event_text(properties)));
    if (told) {
        *told = reasons(read);
    } else {
        EXPECT_EQ(reasons(read), "");
    }
    EXPECT_EQ(read.events.size(), 1u);
    return read.events.empty() ? Event() : read.events[0];
}

TEST_F(Calendars, ReadsFields) {
    const Event event = only(
        "UID:a@b\r\nSUMMARY;LANGUAGE=en:Lunch\\, again\r\nLOCATION:Caf\xC3\xA9\r\nDESCRIPTION:One\\nTwo\\;\\\\ th\r\n"
        " ree\r\nCATEGORIES:Food,Fun\\, really\r\nCATEGORIES:More\r\nCLASS:PRIVATE\r\nTRANSP:TRANSPARENT\r\n"
        "DTSTART:20260701T120000\r\nDTEND:20260701T130000\r\nX-OTHER;A=B:kept\r\nURL:https://e.x/\r\n"
        "COMMENT:\r\nX-EMPTY:\r\nBEGIN:VALARM\r\nACTION:DISPLAY\r\nTRIGGER:-PT1H30M\r\nEND:VALARM\r\n");
    EXPECT_EQ(event.uid, "a@b");
    EXPECT_EQ(event.subject, "Lunch, again");
    EXPECT_EQ(event.location, "Caf\xC3\xA9");
    EXPECT_EQ(event.body, "One\nTwo;\\ three");
    EXPECT_EQ(event.categories, "Food, Fun, really, More");
    EXPECT_EQ(event.sensitivity, olPrivate);
    EXPECT_EQ(event.busy, olFree);
    EXPECT_EQ(event.start, at(2026, 7, 1, 12));
    EXPECT_EQ(event.end, at(2026, 7, 1, 13));
    EXPECT_FALSE(event.all_day);
    EXPECT_TRUE(event.reminder);
    EXPECT_EQ(event.reminder_minutes, 90);
    EXPECT_EQ(event.extras, "X-OTHER;A=B:kept\nURL:https://e.x/\nX-EMPTY:\n");
    EXPECT_FALSE(event.pattern);
}

TEST_F(Calendars, MakesTimesTheDevices) {
    EXPECT_EQ(only("DTSTART:20260701T120000Z\r\n").start, at(2026, 7, 1, 14));
    EXPECT_EQ(only("DTSTART:20260101T120000Z\r\n").start, at(2026, 1, 1, 13));
    EXPECT_EQ(only("DTSTART:20260101T120000\r\n").start, at(2026, 1, 1, 12));
    EXPECT_EQ(only("DTSTART;TZID=New York:20260701T120000\r\n", kNewYork).start, at(2026, 7, 1, 18));
    EXPECT_EQ(only("DTSTART;TZID=\"New York\":20260101T120000\r\n", kNewYork).start, at(2026, 1, 1, 18));
    // In March the two zones are an hour closer for a while.
    EXPECT_EQ(only("DTSTART;TZID=New York:20260315T120000\r\n", kNewYork).start, at(2026, 3, 15, 17));
    // The system's zones stand in for one that is not defined.
    EXPECT_EQ(only("DTSTART;TZID=Asia/Tokyo:20260101T120000\r\n").start, at(2026, 1, 1, 4));
    // The device's own zone is not converted, not even a time that its clock skips.
    EXPECT_EQ(only("DTSTART;TZID=Europe/Berlin:20260329T023000\r\n").start, at(2026, 3, 29, 2, 30));
    std::string told;
    EXPECT_EQ(only("UID:u\r\nDTSTART;TZID=Nowhere:20260101T120000\r\n", {}, &told).start, at(2026, 1, 1, 12));
    EXPECT_EQ(told, "6 ! VEVENT u: DTSTART: no VTIMEZONE for TZID Nowhere; read as the device's time\n");
}

TEST_F(Calendars, KnowsZonesThatAreDefinedFurtherDown) {
    const ReadCalendar read =
        read_calendar(calendar_text(event_text("DTSTART;TZID=New York:20260701T120000\r\n") + kNewYork));
    ASSERT_EQ(read.events.size(), 1u);
    EXPECT_EQ(read.events[0].start, at(2026, 7, 1, 18));
    // But not those of another calendar.
    const ReadCalendar other =
        read_calendar(calendar_text(kNewYork) + calendar_text(event_text("DTSTART;TZID=New York:20260701T120000\r\n")));
    EXPECT_EQ(other.problems.size(), 1u);
}

TEST_F(Calendars, ReadsEnds) {
    const auto end = [](const std::string& properties) { return only("DTSTART:20260328T120000\r\n" + properties).end; };
    EXPECT_EQ(end(""), at(2026, 3, 28, 12));
    EXPECT_EQ(end("DURATION:PT90M\r\n"), at(2026, 3, 28, 13, 30));
    // A day is a day on the clock, hours are hours: the clock is put meanwhile.
    EXPECT_EQ(end("DURATION:P1D\r\n"), at(2026, 3, 29, 12));
    EXPECT_EQ(end("DURATION:PT24H\r\n"), at(2026, 3, 29, 13));
    EXPECT_EQ(end("DTEND:20260328T150000Z\r\n"), at(2026, 3, 28, 16));
    std::string told;
    EXPECT_EQ(only("DTSTART:20260101T120000\r\nDTEND:20260101T110000\r\n", {}, &told).end, at(2026, 1, 1, 12));
    EXPECT_EQ(told, "6 ! VEVENT: DTEND: before DTSTART\n");
}

TEST_F(Calendars, ReadsWholeDays) {
    const Event one = only("DTSTART;VALUE=DATE:20260704\r\n");
    EXPECT_TRUE(one.all_day);
    EXPECT_EQ(one.start, at(2026, 7, 4));
    EXPECT_EQ(one.end, at(2026, 7, 5));
    EXPECT_EQ(only("DTSTART;VALUE=DATE:20260704\r\nDTEND;VALUE=DATE:20260704\r\n").end, at(2026, 7, 5));
    EXPECT_EQ(only("DTSTART;VALUE=DATE:20260704\r\nDTEND;VALUE=DATE:20260707\r\n").end, at(2026, 7, 7));
    EXPECT_EQ(only("DTSTART;VALUE=DATE:20260704\r\nDURATION:P2D\r\n").end, at(2026, 7, 6));
    const Event flagged = only(
        "DTSTART;TZID=New York:20260302T000000\r\nDTEND;TZID=New York:20260304T000000\r\n"
        "X-MICROSOFT-CDO-ALLDAYEVENT:TRUE\r\n",
        kNewYork);
    EXPECT_TRUE(flagged.all_day);
    EXPECT_EQ(flagged.start, at(2026, 3, 2));
    EXPECT_EQ(flagged.end, at(2026, 3, 4));
}

TEST_F(Calendars, ReadsSeries) {
    const Event event = only(
        "UID:s\r\nDTSTART:20260105T090000\r\nDTEND:20260105T093000\r\nRRULE:FREQ=WEEKLY;BYDAY=MO,TH;COUNT=20\r\n"
        "EXDATE:20260108T090000,20260112T080000Z\r\nEXDATE;VALUE=DATE:20260115\r\n");
    ASSERT_TRUE(event.pattern);
    EXPECT_EQ(event.pattern->type, olRecursWeekly);
    EXPECT_EQ(event.pattern->weekdays, olMonday | olThursday);
    EXPECT_EQ(event.pattern->count, 20);
    ASSERT_EQ(event.changes.size(), 3u);
    EXPECT_EQ(event.changes[0].day, on(2026, 1, 8));
    EXPECT_EQ(event.changes[1].day, on(2026, 1, 12));
    EXPECT_EQ(event.changes[2].day, on(2026, 1, 15));
    EXPECT_TRUE(event.changes[0].deleted && event.changes[1].deleted && event.changes[2].deleted);
    std::string told;
    EXPECT_TRUE(
        only("DTSTART:20260105T090000\r\nRRULE:FREQ=WEEKLY\r\nEXDATE:20260106T090000\r\n", {}, &told).changes.empty());
    EXPECT_EQ(told, "7 ? VEVENT: EXDATE: 20260106T090000 is no day of the series\n");
}

TEST_F(Calendars, EndsSeriesOnTheRightDay) {
    const auto until = [](const std::string& start, const std::string& rule, const std::string& zones = {}) {
        std::string told;
        const Event event = only("DTSTART" + start + "\r\nRRULE:FREQ=DAILY;UNTIL=" + rule + "\r\n", zones, &told);
        return event.pattern && event.pattern->until ? zr::day_text(*event.pattern->until) : "none";
    };
    EXPECT_EQ(until(":20260105T090000", "20260110T080000Z"), "20260110");
    EXPECT_EQ(until(":20260105T090000", "20260110T075959Z"), "20260109");
    EXPECT_EQ(until(":20260105T090000", "20260110T090000"), "20260110");
    EXPECT_EQ(until(":20260105T090000", "20260110"), "20260110");
    EXPECT_EQ(until(";VALUE=DATE:20260105", "20260110"), "20260110");
    EXPECT_EQ(until(";VALUE=DATE:20260105", "20260110T000000Z"), "20260110");
    // Eight in the evening in New York is the next day here.
    EXPECT_EQ(until(";TZID=New York:20260105T200000", "20260111T010000Z", kNewYork), "20260111");
    EXPECT_EQ(until(";TZID=New York:20260105T200000", "20260111T005959Z", kNewYork), "20260110");
}

TEST_F(Calendars, AppliesOverridesWhereverTheyStand) {
    const std::string series = event_text(
        "UID:s\r\nDTSTART;TZID=New York:20260105T200000\r\nDTEND;TZID=New York:20260105T210000\r\nSUMMARY:Choir\r\n"
        "RRULE:FREQ=WEEKLY;COUNT=5\r\nEXDATE;TZID=New York:20260119T200000\r\n");
    const std::string moved = event_text(
        "UID:s\r\nRECURRENCE-ID:20260113T010000Z\r\nDTSTART;TZID=New York:20260114T180000\r\n"
        "DTEND;TZID=New York:20260114T190000\r\nSUMMARY:Choir elsewhere\r\n");
    for (const std::string& text : {kNewYork + series + moved, kNewYork + moved + series, moved + series + kNewYork}) {
        const ReadCalendar read = read_calendar(calendar_text(text));
        EXPECT_EQ(reasons(read), "");
        ASSERT_EQ(read.events.size(), 1u);
        const Event& event = read.events[0];
        EXPECT_EQ(event.start, at(2026, 1, 6, 2));
        EXPECT_EQ(event.pattern->weekdays, olTuesday);
        ASSERT_EQ(event.changes.size(), 2u);
        EXPECT_EQ(event.changes[0].day, on(2026, 1, 13));
        EXPECT_EQ(event.changes[0].fields.subject, "Choir elsewhere");
        EXPECT_EQ(event.changes[0].fields.start, at(2026, 1, 15));
        EXPECT_EQ(event.changes[1].day, on(2026, 1, 20));
        EXPECT_TRUE(event.changes[1].deleted);
    }
}

TEST_F(Calendars, AFoldedLineBeginsAndEndsNothing) {
    const Event event = only(
        "UID:a@b\r\nDTSTART:20260701T120000\r\nDTEND:20260701T130000\r\nSUMMARY:Lunch\r\n"
        "DESCRIPTION:Salad\r\n END:VEVENT\r\n BEGIN:VEVENT\r\n\tEND:VCALENDAR\r\n BEGIN:VALARM\r\n");
    EXPECT_EQ(event.subject, "Lunch");
    EXPECT_EQ(event.body, "SaladEND:VEVENTBEGIN:VEVENTEND:VCALENDARBEGIN:VALARM");
}

TEST_F(Calendars, KeepsOverridesOfNoSeries) {
    const ReadCalendar read = read_calendar(calendar_text(
        event_text("UID:s\r\nDTSTART:20260105T090000\r\nRRULE:FREQ=WEEKLY\r\nSUMMARY:A\r\n") +
        event_text("UID:s\r\nRECURRENCE-ID:20260106T090000\r\nDTSTART:20260107T090000\r\nSUMMARY:B\r\n") +
        event_text("UID:t\r\nRECURRENCE-ID;VALUE=DATE:20260106\r\nDTSTART;VALUE=DATE:20260107\r\nSUMMARY:C\r\n") +
        event_text("UID:s\r\nRECURRENCE-ID:20260112T090000\r\nDTSTART:20260112T100000\r\nSUMMARY:D\r\n") +
        event_text("UID:s\r\nRECURRENCE-ID:20260112T090000\r\nDTSTART:20260112T110000\r\nSUMMARY:E\r\n")));
    ASSERT_EQ(read.events.size(), 4u);
    EXPECT_EQ(read.problems.size(), 3u);
    EXPECT_EQ(read.events[0].subject, "B");
    EXPECT_EQ(read.events[0].extras, "RECURRENCE-ID:20260106T080000Z\n");
    EXPECT_EQ(read.events[1].extras, "RECURRENCE-ID;VALUE=DATE:20260106\n");
    EXPECT_EQ(read.events[2].subject, "E");
    ASSERT_EQ(read.events[3].changes.size(), 1u);
    EXPECT_EQ(read.events[3].changes[0].fields.subject, "D");
}

TEST_F(Calendars, NamesWhatItCannotHoldAndKeepsIt) {
    std::string told;
    Event event = only("UID:u\r\nDTSTART:20260105T090000Z\r\nRRULE:FREQ=MONTHLY;BYMONTHDAY=1,15\r\n", {}, &told);
    EXPECT_EQ(told, "7 ! VEVENT u: RRULE: several days of a month; kept, but the appointment is a single one\n");
    EXPECT_EQ(event.extras, "RRULE:FREQ=MONTHLY;BYMONTHDAY=1,15\n");
    EXPECT_FALSE(event.pattern);
    event = only(
        "UID:u\r\nDTSTART:20260105T090000\r\nRRULE:FREQ=DAILY\r\nRRULE:FREQ=WEEKLY\r\nRDATE:20260201T100000\r\n"
        "RDATE;VALUE=PERIOD:20260202T090000Z/PT1H\r\nATTACH:http://x.y/z\r\nEXRULE:FREQ=YEARLY\r\n",
        {}, &told);
    EXPECT_EQ(told,
              "11 ? VEVENT u: ATTACH: kept, but not shown\n"
              "12 ! VEVENT u: EXRULE: kept, but not followed\n"
              "8 ! VEVENT u: RRULE: a second rule; kept, but not followed\n"
              "9 ! VEVENT u: RDATE: 20260201T100000 is kept, but the appointment does not occur then\n"
              "10 ! VEVENT u: RDATE: 20260202T090000Z/PT1H is kept, but the appointment does not occur then\n");
    EXPECT_EQ(event.extras,
              "ATTACH:http://x.y/z\nEXRULE:FREQ=YEARLY\nRRULE:FREQ=WEEKLY\nRDATE:20260201T090000Z\n"
              "RDATE;VALUE=PERIOD:20260202T090000Z/PT1H\n");
    EXPECT_TRUE(event.pattern);
    only("UID:u\r\nDTSTART:20260105T090000\r\nRRULE:FREQ=MONTHLY;BYMONTHDAY=31\r\n", {}, &told);
    EXPECT_EQ(told,
              "7 ! VEVENT u: RRULE: months without a day 31 have it on their last day\n"
              "7 ! VEVENT u: RRULE: DTSTART is not one of its days; begins on 2026-01-31\n");
    only("UID:u\r\nDTSTART;TZID=New York:20260105T090000\r\nRRULE:FREQ=WEEKLY\r\n", kNewYork, &told);
    EXPECT_EQ(told,
              "22 ! VEVENT u: RRULE: its zone puts the clock on other days than the device's; times are off from about "
              "2026-03-09 on for a while\n");
}

TEST_F(Calendars, ReadsAlarms) {
    const auto reminder = [](const std::string& trigger, const std::string& more = {}) {
        std::string told;
        const Event event = only("DTSTART:20260105T090000\r\nDTEND:20260105T100000\r\n" + more +
                                     "BEGIN:VALARM\r\nACTION:DISPLAY\r\n" + trigger + "\r\nEND:VALARM\r\n",
                                 {}, &told);
        EXPECT_EQ(told.empty(), event.reminder) << told;
        EXPECT_EQ(event.reminder, event.extras.empty());
        return event.reminder ? event.reminder_minutes : -1;
    };
    EXPECT_EQ(reminder("TRIGGER:-PT15M"), 15);
    EXPECT_EQ(reminder("TRIGGER;RELATED=START:-P1W"), 7 * 24 * 60);
    EXPECT_EQ(reminder("TRIGGER:PT0S"), 0);
    EXPECT_EQ(reminder("TRIGGER;RELATED=END:-PT70M"), 10);
    EXPECT_EQ(reminder("TRIGGER;VALUE=DATE-TIME:20260105T073000Z"), 30);
    EXPECT_EQ(reminder("TRIGGER:PT5M"), -1);
    EXPECT_EQ(reminder("TRIGGER:-PT30S"), -1);
    EXPECT_EQ(reminder("TRIGGER;VALUE=DATE-TIME:20260105T073000Z", "RRULE:FREQ=DAILY\r\n"), -1);
    std::string told;
    const Event two = only(
        "DTSTART:20260105T090000\r\nBEGIN:VALARM\r\nACTION:EMAIL\r\nTRIGGER:-PT1H\r\nEND:VALARM\r\n"
        "BEGIN:VALARM\r\nACTION:AUDIO\r\nTRIGGER:-PT5M\r\nEND:VALARM\r\n"
        "BEGIN:VALARM\r\nACTION:NONE\r\nTRIGGER;VALUE=DATE-TIME:19760401T005545Z\r\nEND:VALARM\r\n",
        {}, &told);
    EXPECT_EQ(two.reminder_minutes, 5);
    EXPECT_EQ(told, "6 ? VEVENT: VALARM: kept, but nobody is reminded\n");
    EXPECT_EQ(two.extras,
              "BEGIN:VALARM\nACTION:EMAIL\nTRIGGER:-PT1H\nEND:VALARM\n"
              "BEGIN:VALARM\nACTION:NONE\nTRIGGER;VALUE=DATE-TIME:19760401T005545Z\nEND:VALARM\n");
}

TEST_F(Calendars, ReadsTasks) {
    const ReadCalendar read = read_calendar(calendar_text(
        "BEGIN:VTODO\r\nUID:t\r\nSUMMARY:Taxes\r\nDTSTART;VALUE=DATE:20260301\r\nDUE;VALUE=DATE:20260331\r\n"
        "PRIORITY:2\r\nSTATUS:COMPLETED\r\nBEGIN:VALARM\r\nACTION:DISPLAY\r\nTRIGGER;RELATED=END:-PT12H\r\n"
        "END:VALARM\r\nEND:VTODO\r\nBEGIN:VTODO\r\nRRULE:FREQ=DAILY\r\nEND:VTODO\r\n"));
    EXPECT_EQ(reasons(read), "17 ! VTODO: RRULE: kept, but the task is a single one\n");
    ASSERT_EQ(read.tasks.size(), 2u);
    const zr::Task& task = read.tasks[0];
    EXPECT_EQ(task.subject, "Taxes");
    EXPECT_EQ(task.start, at(2026, 3, 1));
    EXPECT_EQ(task.due, at(2026, 3, 31));
    EXPECT_EQ(task.importance, olImportanceHigh);
    EXPECT_EQ(task.extras, "PRIORITY:2\n");
    EXPECT_TRUE(task.complete);
    EXPECT_EQ(task.reminder, at(2026, 3, 30, 12));
}

TEST_F(Calendars, NamesDamage) {
    const auto told = [](const std::string& text) { return reasons(read_calendar(text)); };
    EXPECT_EQ(told(""), "");
    EXPECT_EQ(told("junk\r\nmore\r\n"), "1 ! text outside of BEGIN:VCALENDAR and END:VCALENDAR\n");
    EXPECT_EQ(told("BEGIN:VCALENDAR\r\n"), "1 ! the file ends inside this calendar\n");
    EXPECT_EQ(told("BEGIN:VCALENDAR\r\nBEGIN:VCALENDAR\r\nEND:VCALENDAR\r\n"),
              "1 ! no END:VCALENDAR before the next calendar begins\n");
    EXPECT_EQ(told(calendar_text("BEGIN:VEVENT\r\n")), "4 ! VEVENT: no END:VEVENT before the next component begins\n");
    EXPECT_EQ(told(calendar_text("BEGIN:VEVENT\r\nBEGIN:VALARM\r\nEND:VEVENT\r\n")), "5 ! VEVENT: no END:VALARM\n");
    EXPECT_EQ(told(calendar_text("BEGIN:VEVENT\r\nEND:VALARM\r\nEND:VEVENT\r\n")),
              "5 ! VEVENT: END:VALARM without its BEGIN\n");
    EXPECT_EQ(told("BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nDTSTART"),
              "2 ! VEVENT: the file ends inside this component\n1 ! the file ends inside this calendar\n");
    EXPECT_EQ(
        told("BEGIN:VCALENDAR\r\nVERSION:1.0\r\n" + event_text("DTSTART:20260101T000000\r\n") + "END:VCALENDAR\r\n"),
        "3 ! VEVENT: in a calendar of version 1.0, which is not read\n");
    EXPECT_EQ(told(calendar_text(event_text("SUMMARY:x\r\n"))), "4 ! VEVENT: no DTSTART\n");
    EXPECT_EQ(told(calendar_text(event_text("DTSTART:2026-01-01\r\n"))),
              "5 ! VEVENT: DTSTART: 2026-01-01 is no date from 1601 to 4500\n");
    EXPECT_EQ(told(calendar_text(event_text("DTSTART:45010101T000000Z\r\n"))),
              "5 ! VEVENT: DTSTART: 45010101T000000Z is no date from 1601 to 4500\n");
    EXPECT_EQ(told(calendar_text(event_text("DTSTART:20260230T000000\r\n"))),
              "5 ! VEVENT: DTSTART: 20260230T000000 is no date from 1601 to 4500\n");
    EXPECT_EQ(told(calendar_text("BEGIN:VJOURNAL\r\nEND:VJOURNAL\r\n")),
              "4 ! VJOURNAL: the contact store keeps nothing of this kind\n");
    EXPECT_EQ(told(calendar_text(event_text("DTSTART:20260101T000000\r\nno mark\r\n;A:b\r\nX;Q=\"a:b\r\n"))),
              "6 ! VEVENT: a line without a colon\n7 ! VEVENT: a line without a property name\n"
              "8 ! VEVENT: a quote without an end\n");
}

TEST_F(Calendars, RefusesZonesThatWouldTakeForEver) {
    const auto zone = [](const std::string& rule) {
        return "BEGIN:VTIMEZONE\r\nTZID:Z\r\nBEGIN:STANDARD\r\nDTSTART:20000101T000000\r\nTZOFFSETFROM:+0000\r\n"
               "TZOFFSETTO:+0100\r\nRRULE:" +
               rule + "\r\nEND:STANDARD\r\nEND:VTIMEZONE\r\n";
    };
    for (const char* rule : {"FREQ=SECONDLY", "FREQ=DAILY", "FREQ=YEARLY;BYHOUR=1,2,3", "FREQ=YEARLY;BYMONTH=1,2",
                             "FREQ=YEARLY;BYDAY=MO", "FREQ=YEARLY;BYYEARDAY=1,2"}) {
        const ReadCalendar read = read_calendar(calendar_text(zone(rule)));
        EXPECT_EQ(reasons(read), "4 ! VTIMEZONE Z: an RRULE that is not yearly\n") << rule;
    }
    EXPECT_EQ(reasons(read_calendar(calendar_text("BEGIN:VTIMEZONE\r\nTZID:Z\r\nEND:VTIMEZONE\r\n"))),
              "4 ! VTIMEZONE Z: neither STANDARD nor DAYLIGHT\n");
    EXPECT_EQ(reasons(read_calendar(calendar_text("BEGIN:VTIMEZONE\r\nEND:VTIMEZONE\r\n"))),
              "4 ! VTIMEZONE: no TZID\n");
}

TEST_F(Calendars, ReadsEveryEncodingAndLineEnd) {
    const std::string text =
        calendar_text(event_text("DTSTART:20260101T000000\r\nSUMMARY:Z\xC3\xB6\r\n \xC3\xA9!\r\n"));
    std::string lf;
    for (const char c : text) {
        if (c != '\r') lf += c;
    }
    std::string cut = text;  // between the bytes of a character
    cut.replace(cut.find("\xB6"), 0, "\r\n ");
    for (const std::string& one : {text, lf, "\xEF\xBB\xBF" + text, cut}) {
        const ReadCalendar read = read_calendar(one);
        ASSERT_EQ(read.events.size(), 1u);
        EXPECT_EQ(reasons(read), "");
        EXPECT_EQ(read.events[0].subject, "Z\xC3\xB6\xC3\xA9!");
    }
    const ReadCalendar old = read_calendar(calendar_text(event_text("DTSTART:20260101T000000\r\nSUMMARY:Z\xF6\r\n")));
    EXPECT_EQ(old.events[0].subject, "Z\xC3\xB6");
    EXPECT_EQ(reasons(old), "6 ? not valid UTF-8; read as Windows-1252\n");
}

TEST(CalendarReader, AnOverrideBehindTheEndOfItsSeriesIsAnAppointmentOfItsOwn) {
    use_zone("Europe/Berlin");
    struct Case {
        const char* rule;
        const char* last;  // its last day, and the next that the pattern would have
        const char* behind;
    };
    for (const Case& one : {Case{"FREQ=DAILY;COUNT=3", "20260107", "20260108"},
                            Case{"FREQ=DAILY;INTERVAL=2;UNTIL=20260109", "20260109", "20260111"},
                            Case{"FREQ=WEEKLY;BYDAY=MO,TH;COUNT=4", "20260115", "20260119"},
                            Case{"FREQ=WEEKLY;INTERVAL=2;BYDAY=MO;COUNT=2", "20260119", "20260202"},
                            Case{"FREQ=MONTHLY;BYMONTHDAY=5;COUNT=2", "20260205", "20260305"},
                            Case{"FREQ=YEARLY;BYMONTH=1;BYMONTHDAY=5;COUNT=2", "20270105", "20280105"}}) {
        const auto with = [&](const std::string& day) {
            return read_calendar(calendar_text(
                event_text("UID:u\r\nDTSTART;VALUE=DATE:20260105\r\nRRULE:" + std::string(one.rule) + "\r\n") +
                event_text("UID:u\r\nRECURRENCE-ID;VALUE=DATE:" + day + "\r\nDTSTART;VALUE=DATE:20260401\r\n")));
        };
        const auto inside = with(one.last);
        ASSERT_EQ(inside.events.size(), 1u) << one.rule;
        EXPECT_EQ(inside.events[0].changes.size(), 1u) << one.rule;
        const auto behind = with(one.behind);
        ASSERT_EQ(behind.events.size(), 2u) << one.rule;
        ASSERT_EQ(behind.problems.size(), 1u);
        EXPECT_NE(behind.problems[0].reason.find("imported as an appointment of its own"), std::string::npos);
    }
}

}  // namespace
