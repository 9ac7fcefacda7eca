#pragma once

// Reading calendars from text, for tests.

#include <stdlib.h>
#include <time.h>

#include <string>
#include <string_view>
#include <vector>

#include "zr/icalendar/reader.h"

namespace zr::test {

struct ReadCalendar {
    std::vector<Event> events;
    std::vector<Task> tasks;
    std::vector<Problem> problems;  // of all components, in order
    int left_out = 0;
};

inline ReadCalendar read_calendar(std::string_view text) {
    ReadCalendar result;
    LineReader lines(read_from_memory(text));
    CalendarReader reader(lines);
    CalendarReader::Item item;
    while (reader.next(item)) {
        result.problems.insert(result.problems.end(), item.problems.begin(), item.problems.end());
        if (item.kind == CalendarReader::Kind::Event) result.events.push_back(item.event);
        if (item.kind == CalendarReader::Kind::Task) result.tasks.push_back(item.task);
        if (item.kind == CalendarReader::Kind::LeftOut) ++result.left_out;
    }
    return result;
}

inline std::string calendar_text(std::string_view components) {
    return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Test//EN\r\n" + std::string(components) + "END:VCALENDAR\r\n";
}

inline std::string event_text(std::string_view properties) {
    return "BEGIN:VEVENT\r\n" + std::string(properties) + "END:VEVENT\r\n";
}

inline void use_zone(const char* name) {
    setenv("TZ", name, 1);
    tzset();
}

inline Moment at(int year, unsigned month, unsigned day, int hour = 0, int minute = 0, int second = 0) {
    using namespace std::chrono;
    return local_days(std::chrono::year(year) / static_cast<int>(month) / static_cast<int>(day)) + hours(hour) +
           minutes(minute) + seconds(second);
}

inline CalendarDay on(int year, unsigned month, unsigned day) {
    return std::chrono::floor<std::chrono::days>(at(year, month, day));
}

}  // namespace zr::test
