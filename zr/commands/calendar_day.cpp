#include "zr/commands/calendar_day.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <optional>

#include "zr/base/failure.h"
#include "zr/base/nearest.h"
#include "zr/base/text.h"

namespace zr {
namespace {

using namespace std::chrono;

constexpr std::array<const char*, 7> kWeekdays = {"sunday",   "monday", "tuesday", "wednesday",
                                                  "thursday", "friday", "saturday"};

// A month's day that a shorter month lacks is its last one.
CalendarDay moved(CalendarDay day, int months) {
    const year_month_day date(day);
    const year_month month = date.year() / date.month() + std::chrono::months(months);
    const year_month_day same = month / date.day();
    return local_days(same.ok() ? same : year_month_day(month / last));
}

std::optional<CalendarDay> of_span(const std::string& text, CalendarDay from) {
    int number = 0;
    char unit = 0;
    char rest = 0;
    if (text.empty() || (text[0] != '+' && text[0] != '-')) return std::nullopt;
    if (std::sscanf(text.c_str(), "%5d%c%c", &number, &unit, &rest) != 2) return std::nullopt;
    switch (unit) {
        case 'd':
            return from + days(number);
        case 'w':
            return from + days(7 * number);
        case 'm':
            return moved(from, number);
        case 'y':
            return moved(from, 12 * number);
        default:
            return std::nullopt;
    }
}

std::optional<CalendarDay> of_word(const std::string& text) {
    if (equal_ignoring_case(text, "today")) return today();
    if (equal_ignoring_case(text, "tomorrow")) return today() + days(1);
    if (equal_ignoring_case(text, "yesterday")) return today() - days(1);
    constexpr std::size_t kShort = 3;
    for (unsigned i = 0; i < kWeekdays.size(); ++i) {
        const std::string name = kWeekdays[i];
        if (!equal_ignoring_case(text, name) && !equal_ignoring_case(text, name.substr(0, kShort))) continue;
        return today() + (weekday(i) - weekday(today()));
    }
    return std::nullopt;
}

std::optional<seconds> time_of_day(const std::string& text) {
    unsigned hours = 0;
    unsigned minutes = 0;
    char rest = 0;
    if (std::sscanf(text.c_str(), "%2u:%2u%c", &hours, &minutes, &rest) != 2 || hours > 23 || minutes > 59)
        return std::nullopt;
    return std::chrono::hours(hours) + std::chrono::minutes(minutes);
}

}  // namespace

Moment local_now() {
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    ::localtime_r(&now, &parts);
    const year_month_day date = year(parts.tm_year + 1900) / month(static_cast<unsigned>(parts.tm_mon + 1)) /
                                day(static_cast<unsigned>(parts.tm_mday));
    return local_days(date) + hours(parts.tm_hour) + minutes(parts.tm_min) + seconds(parts.tm_sec);
}

CalendarDay today() {
    return floor<days>(local_now());
}

CalendarDay parse_day_words(const std::string& what, const std::string& text, CalendarDay from) {
    std::optional<CalendarDay> found = of_span(text, from);
    if (!found) found = of_word(text);
    if (!found) {
        if (!text.empty() && (text[0] < '0' || text[0] > '9'))
            throw Failure{Exit::Usage,
                          what + ": " + text + " is not a day such as 2026-01-31, today, friday or +7d" +
                              did_you_mean(text, {"today", "tomorrow", "yesterday", "sunday", "monday", "tuesday",
                                                  "wednesday", "thursday", "friday", "saturday"})};
        return parse_day(what, text);
    }
    if (!is_storable(*found)) throw Failure{Exit::Usage, what + ": " + text + " is no day from 1601 to 4500"};
    return *found;
}

Moment parse_moment(const std::string& what, const std::string& text, bool& is_day, CalendarDay from) {
    is_day = false;
    if (const auto time = time_of_day(text)) return from + *time;
    const bool number = !text.empty() && text[0] >= '0' && text[0] <= '9';
    const std::size_t cut = number ? text.find_first_of(" T") : text.find(' ');
    const CalendarDay day = parse_day_words(what, text.substr(0, cut), from);
    is_day = cut == std::string::npos;
    if (is_day) return day;
    const auto time = time_of_day(text.substr(cut + 1));
    if (!time) throw Failure{Exit::Usage, what + ": " + text + " has no time of day such as 09:30 behind the day"};
    return day + *time;
}

CalendarDay parse_day(const std::string& what, const std::string& text) {
    int y = 0;
    unsigned m = 0;
    unsigned d = 0;
    char rest;
    const bool shaped = std::sscanf(text.c_str(), "%4d-%2u-%2u%c", &y, &m, &d, &rest) == 3;
    const year_month_day date{year(y), month(m), day(d)};
    if (!shaped || !date.ok() || !is_storable(local_days(date))) {
        throw Failure{Exit::Usage, what + ": " + text + " is not a day such as 2026-01-31"};
    }
    return local_days(date);
}

}  // namespace zr
