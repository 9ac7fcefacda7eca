#include "zr/icalendar/event_writer.h"

#include <gtest/gtest.h>
#include <libical/ical.h>

#include "zr/icalendar/random_calendar.h"

namespace {

using namespace std::chrono;
using zr::CalendarWriter;
using zr::Event;
using zr::Task;
using zr::test::at;
using zr::test::on;
using zr::test::read_calendar;
using zr::test::use_zone;

constexpr sys_seconds kNow = sys_days(year(2026) / 2 / 3) + hours(4);

std::string written(const std::vector<Event>& events, const std::vector<Task>& tasks = {}) {
    const CalendarWriter writer(1999, kNow);
    std::string text;
    writer.begin(text);
    for (const Event& event : events) {
        writer.write(event, text);
    }
    for (const Task& task : tasks) {
        writer.write(task, text);
    }
    CalendarWriter::end(text);
    return text;
}

// What libical finds wrong.
std::string faults_of(const std::string& text) {
    icalcomponent* calendar = icalparser_parse_string(text.c_str());
    if (!calendar) return "no calendar";
    icalrestriction_check(calendar);
    std::string found;
    char* all = icalcomponent_as_ical_string_r(calendar);
    for (std::string_view rest = all; !rest.empty();) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        if (rest.starts_with("X-LIC-ERROR")) found += std::string(rest.substr(0, end)) + "\n";
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    icalmemory_free_buffer(all);
    icalcomponent_free(calendar);
    return found;
}

std::string without_stamp(const std::string& extras) {
    const std::string stamp = "DTSTAMP:20260203T040000Z\n";
    return extras.starts_with(stamp) ? extras.substr(stamp.size()) : extras;
}

// An appointment as it is after a way through a file: with the stamp of the writing.
Event stripped(Event event) {
    event.extras = without_stamp(event.extras);
    for (zr::Change& change : event.changes) {
        change.fields.extras = without_stamp(change.fields.extras);
    }
    return event;
}

class Writer : public testing::Test {
protected:
    void SetUp() override { use_zone("Europe/Berlin"); }
};

TEST_F(Writer, WritesAnAppointment) {
    Event event;
    event.uid = "u@v";
    event.subject = "Caf\xC3\xA9, again; and \\ a line\nmore";
    event.start = at(2026, 3, 2, 9, 30);
    event.end = at(2026, 3, 2, 10);
    event.reminder = true;
    event.reminder_minutes = 5;
    event.extras = "URL:http://x.y/\nBEGIN:X-PART\nA:b\nEND:X-PART\nSEQUENCE:3\n";
    std::string text;
    CalendarWriter(1999, kNow).write(event, text);
    EXPECT_EQ(text,
              "BEGIN:VEVENT\r\nUID:u@v\r\nDTSTAMP:20260203T040000Z\r\nDTSTART;TZID=Europe/Berlin:20260302T093000\r\n"
              "DTEND;TZID=Europe/Berlin:20260302T100000\r\nSUMMARY:Caf\xC3\xA9\\, again\\; and \\\\ a line\\nmore\r\n"
              "TRANSP:OPAQUE\r\nX-MICROSOFT-CDO-BUSYSTATUS:BUSY\r\nURL:http://x.y/\r\nSEQUENCE:3\r\n"
              "BEGIN:VALARM\r\nACTION:DISPLAY\r\nDESCRIPTION:Caf\xC3\xA9\\, again\\; and \\\\ a line\\nmore\r\n"
              "TRIGGER:-PT5M\r\nEND:VALARM\r\nBEGIN:X-PART\r\nA:b\r\nEND:X-PART\r\nEND:VEVENT\r\n");
}

TEST_F(Writer, WritesASeries) {
    Event event;
    event.uid = "s";
    event.start = at(2026, 3, 2, 9, 30);
    event.end = at(2026, 3, 2, 10);
    event.pattern = zr::Pattern{olRecursWeekly, 2, olMonday | olWednesday, 0, 0, 0, 0, on(2026, 6, 30)};
    event.changes.push_back({on(2026, 3, 4), true, {}});
    zr::Change moved = {on(2026, 3, 16), false, event};
    moved.fields.start = at(2026, 3, 17, 8);
    moved.fields.end = at(2026, 3, 17, 9);
    event.changes.push_back(moved);
    std::string text;
    CalendarWriter(1999, kNow).write(event, text);
    EXPECT_NE(text.find("\r\nRRULE:FREQ=WEEKLY;INTERVAL=2;BYDAY=MO,WE;WKST=SU;UNTIL=20260630T215959Z\r\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\r\nEXDATE;TZID=Europe/Berlin:20260304T093000\r\n"), std::string::npos);
    EXPECT_NE(text.find("\r\nRECURRENCE-ID;TZID=Europe/Berlin:20260316T093000\r\n"
                        "DTSTART;TZID=Europe/Berlin:20260317T080000\r\n"),
              std::string::npos);
    EXPECT_EQ(faults_of(written({event})), "");
    event.all_day = true;
    event.start = at(2026, 3, 2);
    event.end = at(2026, 3, 3);
    EXPECT_NE(written({event}).find(";UNTIL=20260630\r\n"), std::string::npos);
    EXPECT_NE(written({event}).find("EXDATE;VALUE=DATE:20260304\r\n"), std::string::npos);
}

TEST_F(Writer, FoldsBetweenCharacters) {
    Event event;
    event.start = event.end = at(2026, 3, 2);
    for (int i = 0; i < 100; ++i) {
        event.subject += "\xE5\xB1\xB1";
    }
    const std::string text = written({event});
    std::size_t begin = 0;
    for (std::size_t end; (end = text.find("\r\n", begin)) != std::string::npos; begin = end + 2) {
        EXPECT_LE(end - begin, 75u);
        EXPECT_NE(static_cast<unsigned char>(text[begin]) & 0xC0, 0x80);
    }
    EXPECT_EQ(read_calendar(text).events[0].subject, event.subject);
}

TEST_F(Writer, ComesBackAsItWasInEveryZone) {
    int seed = 0;
    for (const char* zone : {"Europe/Berlin", "America/New_York", "UTC", "Australia/Lord_Howe", "America/Sao_Paulo",
                             "EST5EDT,M3.2.0,M11.1.0", "Asia/Kolkata"}) {
        use_zone(zone);
        zr::test::RandomCalendar random(static_cast<unsigned>(++seed));
        std::vector<Event> events;
        std::vector<Task> tasks;
        for (int i = 0; i < 60; ++i) {
            events.push_back(random.event(i));
            tasks.push_back(random.task(i));
        }
        const std::string text = written(events, tasks);
        ASSERT_EQ(faults_of(text), "") << zone;
        const zr::test::ReadCalendar read = read_calendar(text);
        ASSERT_TRUE(read.problems.empty()) << zone << ": " << read.problems[0].reason;
        ASSERT_EQ(read.events.size(), events.size());
        ASSERT_EQ(read.tasks.size(), tasks.size());
        for (const Event& found : read.events) {
            const auto i = static_cast<std::size_t>(std::stoi(found.uid.substr(4)));
            ASSERT_EQ(stripped(found), events[i]) << zone << "\n" << written({events[i]});
        }
        for (std::size_t i = 0; i < tasks.size(); ++i) {
            Task found = read.tasks[i];
            found.extras = without_stamp(found.extras);
            ASSERT_EQ(found, tasks[i]) << zone << "\n" << written({}, {tasks[i]});
        }
    }
}

}  // namespace
