#include "zr/icalendar/event.h"

#include <platform/platform.h>

#include <charconv>
#include <cstdio>

#include "zr/base/text.h"

namespace zr {

using namespace std::chrono;

bool is_storable(Moment time) {
    return time >= CalendarDay(year(1601) / 1 / 1) && time < CalendarDay(year(4501) / 1 / 1);
}

int priority_of(std::string_view value) {
    value = trimmed(value);
    int priority = 0;
    std::from_chars(value.data(), value.data() + value.size(), priority);
    return priority;
}

int importance_of(int priority) {
    if (priority <= 0 || priority == 5) return olImportanceNormal;
    return priority < 5 ? olImportanceHigh : olImportanceLow;
}

std::string day_text(CalendarDay day) {
    const year_month_day date(day);
    char text[24];
    std::snprintf(text, sizeof text, "%04d%02u%02u", int(date.year()), unsigned(date.month()), unsigned(date.day()));
    return text;
}

std::string time_text(Moment time) {
    const auto day = floor<days>(time);
    const hh_mm_ss clock(time - day);
    char text[40];
    std::snprintf(text, sizeof text, "T%02d%02d%02d", static_cast<int>(clock.hours().count()),
                  static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()));
    return day_text(day) + text;
}

std::string shown_time(Moment time, bool is_day) {
    if (time == kNoTime) return {};
    const auto day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    char text[40];
    std::snprintf(text, sizeof text, is_day ? "%04d-%02u-%02u" : "%04d-%02u-%02u %02d:%02d", int(date.year()),
                  unsigned(date.month()), unsigned(date.day()), static_cast<int>(clock.hours().count()),
                  static_cast<int>(clock.minutes().count()));
    return text;
}

}  // namespace zr
