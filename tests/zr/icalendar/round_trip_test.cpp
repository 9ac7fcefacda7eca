// What was imported and is exported comes back as the same appointments and tasks, kept properties and all.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <sstream>

#include "support/instrumented.h"
#include "zr/icalendar/calendars.h"
#include "zr/icalendar/event_writer.h"
#include "zr/samples.h"

namespace {

using zr::CalendarWriter;
using zr::Event;
using zr::Task;
using zr::test::broken;
using zr::test::calendar_text;
using zr::test::event_text;
using zr::test::read_calendar;
using zr::test::ReadCalendar;
using zr::test::samples;
using zr::test::use_zone;

// The stamp of an item that has none is that of its export.
std::string without_dtstamp(const std::string& extras) {
    std::string out;
    std::istringstream lines(extras);
    for (std::string line; std::getline(lines, line);) {
        if (line != "DTSTAMP:20260101T000000Z") out += line + "\n";
    }
    return out;
}

Event stored(Event event) {
    if (event.uid.empty()) event.uid = "made";
    event.extras = without_dtstamp(event.extras);
    for (zr::Change& change : event.changes) {
        change.fields.extras = without_dtstamp(change.fields.extras);
    }
    return event;
}

Task stored(Task task) {
    if (task.uid.empty()) task.uid = "made";
    task.extras = without_dtstamp(task.extras);
    return task;
}

// Made once for a zone: it looks at all of the zone's changes.
const CalendarWriter& writer() {
    static constexpr std::chrono::sys_seconds now =
        std::chrono::sys_days(std::chrono::year(2026) / std::chrono::January / 1);
    static std::map<std::string, CalendarWriter> writers;
    return writers.try_emplace(getenv("TZ"), 1970, now).first->second;
}

// The item alone, as a calendar. The device's own zone needs no definition.
template <class Item>
std::string written(const Item& item) {
    std::string text = "BEGIN:VCALENDAR\r\n";
    writer().write(item, text);
    CalendarWriter::end(text);
    return text;
}

template <class Item>
::testing::AssertionResult comes_back(const Item& read, std::vector<Item> ReadCalendar::*items) {
    const Item item = stored(read);
    const std::string text = written(item);
    const ReadCalendar again = read_calendar(text);
    if ((again.*items).size() != 1 || again.events.size() + again.tasks.size() != 1 || again.left_out != 0)
        return ::testing::AssertionFailure() << (again.*items).size() << " of one:\n" << text;
    const Item back = stored((again.*items)[0]);
    if (back == item) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "written:\n"
                                         << text << "written again:\n"
                                         << written(back) << "kept:\n"
                                         << item.extras << "and then:\n"
                                         << back.extras;
}

::testing::AssertionResult all_come_back(const std::string& text, int& count) {
    const ReadCalendar read = read_calendar(text);
    for (const Event& event : read.events) {
        ++count;
        if (auto result = comes_back(event, &ReadCalendar::events); !result) return result << "\nof\n" << text;
    }
    for (const Task& task : read.tasks) {
        ++count;
        if (auto result = comes_back(task, &ReadCalendar::tasks); !result) return result << "\nof\n" << text;
    }
    return ::testing::AssertionSuccess();
}

class CalendarRoundTrip : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override { use_zone(GetParam()); }
};

TEST_P(CalendarRoundTrip, EveryItemOfTheCorpusComesBack) {
    int count = 0;
    for (const std::string& text : samples("calendar", ".ics")) {
        EXPECT_TRUE(all_come_back(text, count));
    }
    EXPECT_GT(count, 15);
}

// Bytes of calendars that mean something, to be strewn about.
const char* const kPieces[] = {"\r\n ",
                               "\n\t",
                               "BEGIN:VEVENT\r\n",
                               "END:VEVENT\r\n",
                               "BEGIN:VALARM\r\nTRIGGER:-PT5M\r\nACTION:DISPLAY\r\nEND:VALARM\r\n",
                               "\\",
                               "\\n",
                               ";",
                               ",",
                               ":",
                               "\"",
                               "RRULE:FREQ=HOURLY\r\n",
                               "RRULE:FREQ=WEEKLY;COUNT=3\r\n",
                               "EXDATE:20260105T090000\r\n",
                               "RDATE:20260105T090000\r\n",
                               "DTSTAMP:20200101T000000Z\r\n",
                               ";TZID=America/New_York",
                               ";VALUE=DATE",
                               "CATEGORIES:a,b c\r\n",
                               "DURATION:PT1H\r\n",
                               "PRIORITY:3\r\n",
                               "STATUS:COMPLETED\r\n",
                               "UID:x\r\n",
                               "CLASS:PRIVATE\r\n",
                               "X-A;B=c:d\r\n",
                               "\xC3\xA4",
                               "\xE4",
                               "\r",
                               " ",
                               "="};

TEST_P(CalendarRoundTrip, AndSoDoesWhatIsReadOfBrokenOnes) {
    std::mt19937 random(11);
    const std::vector<std::string> texts = samples("calendar", ".ics");
    int count = 0;
    constexpr int kRounds = 1000 / zr::test::kStride;
    for (int i = 0; i < kRounds; ++i) {
        const std::string text = broken(texts, kPieces, random);
        ASSERT_TRUE(all_come_back(text, count)) << i;
    }
    EXPECT_GT(count, kRounds);
}

TEST_P(CalendarRoundTrip, RulesStayInOrderAndNumber) {
    const std::string start = "UID:u\r\nDTSTART;TZID=Europe/Berlin:20260105T090000\r\n";
    const std::string followed = "RRULE:FREQ=WEEKLY;COUNT=3\r\n";
    const std::string odd = "RRULE:FREQ=HOURLY\r\n";
    for (const std::string& rules : {followed + odd, odd + followed, followed + followed, odd + odd + followed}) {
        const ReadCalendar read = read_calendar(calendar_text(event_text(start + rules)));
        ASSERT_EQ(read.events.size(), 1u);
        EXPECT_EQ(read.events[0].pattern.has_value(), rules.starts_with(followed)) << rules;
        int count = 0;
        EXPECT_TRUE(all_come_back(calendar_text(event_text(start + rules)), count));
        const std::string text = written(stored(read.events[0]));
        std::size_t last = 0;
        for (std::size_t at = rules.find("RRULE"); at != std::string::npos; at = rules.find("RRULE", at + 1)) {
            last = text.find(rules.substr(at, 16), last);
            ASSERT_NE(last, std::string::npos) << text;
            ++last;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Zones, CalendarRoundTrip, testing::Values("Europe/Berlin", "UTC", "America/New_York"));

}  // namespace
