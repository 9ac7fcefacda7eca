#include "zr/icalendar/recurrence.h"

#include <platform/platform.h>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <string_view>
#include <vector>

#include "zr/base/text.h"
#include "zr/icalendar/libical.h"

namespace zr {
namespace {

using namespace std::chrono;

constexpr int kMostInterval = 999;
constexpr int kLastYearOfSeries = 4500;
constexpr const char* kDayNames[] = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};

template <std::size_t N>
std::vector<int> list_of(const short (&by)[N]) {
    return {by, std::find(by, by + N, static_cast<short>(ICAL_RECURRENCE_ARRAY_MAX))};
}

// The text of one part of a rule, such as "20260131" of UNTIL; empty when there is none.
std::string part_of(std::string_view rule, std::string_view name) {
    while (!rule.empty()) {
        const std::size_t end = std::min(rule.find(';'), rule.size());
        const std::string_view part = rule.substr(0, end);
        rule.remove_prefix(std::min(end + 1, rule.size()));
        const std::size_t equals = std::min(part.find('='), part.size());
        if (equals < part.size() && equal_ignoring_case(trimmed(part.substr(0, equals)), name)) {
            return std::string(trimmed(part.substr(equals + 1)));
        }
    }
    return {};
}

// The value of a part that is a number from 1 on; 0 when it is none or a larger one than `most`.
int number_of(const std::string& text, int most) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number >= 1 && number <= most ? number : 0;
}

unsigned days_in(year_month month) {
    return unsigned((month / last).day());
}

int bit_of(weekday day) {
    return 1 << day.c_encoding();
}

// The day that a monthly or yearly pattern has in a month.
CalendarDay day_in(const Pattern& pattern, year_month month) {
    const unsigned length = days_in(month);
    if (pattern.type == olRecursMonthly || pattern.type == olRecursYearly) {
        return local_days(month / static_cast<int>(std::min(static_cast<unsigned>(pattern.day_of_month), length)));
    }
    CalendarDay found{};
    int seen = 0;
    for (unsigned day = 1; day <= length && (seen < pattern.instance || pattern.instance == 5); ++day) {
        const CalendarDay candidate = local_days(month / static_cast<int>(day));
        if (!(pattern.weekdays & bit_of(weekday(candidate)))) continue;
        found = candidate;
        ++seen;
    }
    return found;
}

bool is_yearly(const Pattern& pattern) {
    return pattern.type == olRecursYearly || pattern.type == olRecursYearNth;
}

year_month month_of(CalendarDay day) {
    const year_month_day date(day);
    return date.year() / date.month();
}

// Makes a pattern of one rule.
class RuleReader {
public:
    RuleReader(const icalrecurrencetype& rule, int interval, const RuleStart& start)
        : rule_(rule), start_(start), day_(floor<days>(start.wall)) {
        pattern_.interval = interval;
    }

    RulePattern read(const std::string& text);

private:
    bool fail(const char* why) {
        result_.why = why;
        return false;
    }
    bool check_clock();
    bool read_days();
    bool read_weekly(const std::vector<int>& weekdays);
    bool read_yearly();
    bool read_month();
    bool read_month_days(const std::vector<int>& month_days, const std::vector<int>& positions);
    bool read_weekdays(const std::vector<int>& weekdays, const std::vector<int>& month_days,
                       const std::vector<int>& positions);
    bool nth(int weekdays, int position);
    bool start_on_first();
    bool start_in_month();
    bool fits_sunday_weeks(int week_start, CalendarDay first) const;
    bool shift_days();
    void check_lengths();
    bool read_end(const std::string& text);
    void type(int plain, int yearly) { pattern_.type = yearly_ ? yearly : plain; }

    const icalrecurrencetype& rule_;
    const RuleStart& start_;
    CalendarDay day_;  // of DTSTART
    bool yearly_ = false;
    bool clamps_ = false;  // the rule itself means the last day of shorter months
    Pattern pattern_;
    CalendarDay first_{};
    RulePattern result_;
};

RulePattern RuleReader::read(const std::string& text) {
    if (check_clock() && read_days() && start_on_first() && shift_days() && read_end(text)) {
        result_.pattern = pattern_;
        result_.first = first_;
        check_lengths();
    }
    return result_;
}

// Parts that name a time of day change nothing when it is DTSTART's.
bool RuleReader::check_clock() {
    const hh_mm_ss clock(start_.wall - floor<days>(start_.wall));
    const auto is_of_start = [](const std::vector<int>& by, std::int64_t value) {
        return by.empty() || (by.size() == 1 && by[0] == value);
    };
    if (!is_of_start(list_of(rule_.by_hour), clock.hours().count()) ||
        !is_of_start(list_of(rule_.by_minute), clock.minutes().count()) ||
        !is_of_start(list_of(rule_.by_second), clock.seconds().count())) {
        return fail("times of day in a rule");
    }
    if (!list_of(rule_.by_year_day).empty()) return fail("days of the year");
    if (!list_of(rule_.by_week_no).empty()) return fail("weeks of the year");
    clamps_ = rule_.skip == ICAL_SKIP_BACKWARD && rule_.rscale != nullptr;
    return true;
}

bool RuleReader::read_days() {
    const std::vector<int> weekdays = list_of(rule_.by_day);
    const bool more =
        !list_of(rule_.by_month).empty() || !list_of(rule_.by_month_day).empty() || !list_of(rule_.by_set_pos).empty();
    switch (rule_.freq) {
        case ICAL_DAILY_RECURRENCE:
            if (more) return fail("a daily rule with months, month days or positions");
            if (!weekdays.empty() && pattern_.interval > 1) return fail("every few days, on weekdays only");
            if (!weekdays.empty()) return read_weekly(weekdays);
            pattern_.type = olRecursDaily;
            return true;
        case ICAL_WEEKLY_RECURRENCE:
            if (more) return fail("a weekly rule with months, month days or positions");
            return read_weekly(weekdays);
        case ICAL_MONTHLY_RECURRENCE: {
            const std::vector<int> months = list_of(rule_.by_month);
            if (months.empty()) return read_month();
            if (months.size() > 1 || pattern_.interval > 1) return fail("a monthly rule for certain months");
            return read_yearly();
        }
        case ICAL_YEARLY_RECURRENCE:
            return read_yearly();
        default:
            return fail("more often than daily");
    }
}

bool RuleReader::read_weekly(const std::vector<int>& weekdays) {
    pattern_.type = olRecursWeekly;
    for (const int day : weekdays) {
        if (icalrecurrencetype_day_position(static_cast<short>(day)) != 0) return fail("numbered weekdays of a week");
        pattern_.weekdays |= 1 << (icalrecurrencetype_day_day_of_week(static_cast<short>(day)) - ICAL_SUNDAY_WEEKDAY);
    }
    if (weekdays.empty()) pattern_.weekdays = bit_of(weekday(day_));
    return true;
}

bool RuleReader::read_yearly() {
    const std::vector<int> months = list_of(rule_.by_month);
    const std::vector<int> weekdays = list_of(rule_.by_day);
    if (months.size() > 1) return fail("several months of a year");
    // Programs do not agree on what this means.
    if (months.empty() && !list_of(rule_.by_month_day).empty()) return fail("days of a month, but no month");
    if (months.empty() && !weekdays.empty()) {
        // Without a month these are weekdays of every week, or numbered through the year.
        const bool numbered = std::any_of(weekdays.begin(), weekdays.end(), [](int day) {
            return icalrecurrencetype_day_position(static_cast<short>(day)) != 0;
        });
        if (numbered || pattern_.interval > 1 || !list_of(rule_.by_set_pos).empty()) {
            return fail("numbered weekdays of a year");
        }
        return read_weekly(weekdays);
    }
    yearly_ = true;
    pattern_.month = months.empty() ? static_cast<int>(unsigned(year_month_day(day_).month())) : months[0];
    if (pattern_.month < 1 || pattern_.month > 12) return fail("a month that the calendar has not");
    return read_month();
}

bool RuleReader::read_month() {
    const std::vector<int> weekdays = list_of(rule_.by_day);
    const std::vector<int> month_days = list_of(rule_.by_month_day);
    const std::vector<int> positions = list_of(rule_.by_set_pos);
    if (!weekdays.empty()) return read_weekdays(weekdays, month_days, positions);
    if (!read_month_days(month_days, positions)) return false;
    if (clamps_ && yearly_) {
        const unsigned length = days_in(year(2000) / month(static_cast<unsigned>(pattern_.month)));
        pattern_.day_of_month = std::min(pattern_.day_of_month, static_cast<int>(length));
    }
    return true;
}

bool RuleReader::read_month_days(const std::vector<int>& month_days, const std::vector<int>& positions) {
    type(olRecursMonthly, olRecursYearly);
    if (month_days.empty() && positions.empty()) {
        pattern_.day_of_month = static_cast<int>(unsigned(year_month_day(day_).day()));
        return true;
    }
    if (month_days.size() == 1 && (positions.empty() || positions == std::vector<int>{1} || positions[0] == -1)) {
        const int day = month_days[0];
        if (day < -1 || day == 0) return fail("days counted from the end of the month");
        clamps_ = clamps_ || day == -1;
        pattern_.day_of_month = day == -1 ? 31 : day;
        return true;
    }
    // The last of 28, 29 ... n is n, and in shorter months the last day.
    std::vector<int> sorted = month_days;
    std::sort(sorted.begin(), sorted.end());
    const bool consecutive = !sorted.empty() && sorted.front() == 28 &&
                             sorted.back() - sorted.front() == static_cast<int>(sorted.size()) - 1;
    if (consecutive && positions == std::vector<int>{-1}) {
        clamps_ = true;
        pattern_.day_of_month = sorted.back();
        return true;
    }
    return fail(positions.empty() ? "several days of a month" : "positions (BYSETPOS)");
}

bool RuleReader::read_weekdays(const std::vector<int>& weekdays, const std::vector<int>& month_days,
                               const std::vector<int>& positions) {
    const auto position_of = [](int day) { return icalrecurrencetype_day_position(static_cast<short>(day)); };
    int mask = 0;
    bool numbered = false;
    for (const int day : weekdays) {
        mask |= 1 << (icalrecurrencetype_day_day_of_week(static_cast<short>(day)) - ICAL_SUNDAY_WEEKDAY);
        numbered = numbered || position_of(day) != 0;
    }
    if (numbered) {
        if (weekdays.size() > 1) return fail("several numbered weekdays");
        if (!month_days.empty() || !positions.empty()) return fail("numbered weekdays on certain days");
        return nth(mask, position_of(weekdays[0]));
    }
    if (month_days.empty() && positions.size() == 1) return nth(mask, positions[0]);
    if (!positions.empty()) return fail("positions (BYSETPOS)");
    if (!month_days.empty()) {
        // A weekday among seven days of a month that begin a week of it.
        std::vector<int> sorted = month_days;
        std::sort(sorted.begin(), sorted.end());
        const bool week = sorted.size() == 7 && sorted[6] - sorted[0] == 6 && sorted[0] % 7 == 1 && sorted[0] > 0 &&
                          std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end();
        if (week && weekdays.size() == 1) return nth(mask, sorted[0] / 7 + 1);
        return fail("weekdays on certain days of a month");
    }
    if (yearly_ || pattern_.interval > 1) return fail("every such weekday of a month");
    pattern_.type = olRecursWeekly;
    pattern_.weekdays = mask;
    return true;
}

bool RuleReader::nth(int weekdays, int position) {
    if (position != -1 && (position < 1 || position > 4)) return fail("weekdays but for the first to fourth and last");
    type(olRecursMonthNth, olRecursYearNth);
    pattern_.weekdays = weekdays;
    pattern_.instance = position == -1 ? 5 : position;
    return true;
}

// Finds the first day that the rule has.
bool RuleReader::start_on_first() {
    first_ = day_;
    if (pattern_.type == olRecursDaily) return true;
    if (pattern_.type != olRecursWeekly) return start_in_month();
    const int week_start = rule_.week_start == ICAL_NO_WEEKDAY ? 1 : rule_.week_start - ICAL_SUNDAY_WEEKDAY;
    const int into_week = (static_cast<int>(weekday(day_).c_encoding()) - week_start + 7) % 7;
    while (!(pattern_.weekdays & bit_of(weekday(first_)))) {
        first_ += days(1);
        const int passed = static_cast<int>((first_ - day_).count()) + into_week;
        if (passed == 7) first_ += days(7 * (pattern_.interval - 1));
    }
    if (pattern_.interval == 1) return true;
    // The store's weeks begin on Sunday. The shift moves the rule's weeks with their days.
    return fits_sunday_weeks(week_start, first_) || fail("WKST: weeks that do not begin on Sunday");
}

// Whether every day of the mask is in the same week as the first one, or not, both ways.
bool RuleReader::fits_sunday_weeks(int week_start, CalendarDay first) const {
    const auto place = [](int day, int begin) { return (day - begin + 14) % 7; };
    const int sunday = 0;
    const int on = static_cast<int>((weekday(first) + days(start_.shift)).c_encoding());
    const int begin = place(week_start + start_.shift, 0);
    for (int day = 0; day < 7; ++day) {
        if (!(pattern_.weekdays & 1 << day)) continue;
        const int moved = place(day + start_.shift, 0);
        if (place(moved, begin) - place(on, begin) != place(moved, sunday) - place(on, sunday)) return false;
    }
    return true;
}

bool RuleReader::start_in_month() {
    year_month month = month_of(day_);
    if (yearly_) month = month.year() / std::chrono::month(static_cast<unsigned>(pattern_.month));
    const months step(yearly_ ? 12 * pattern_.interval : pattern_.interval);
    // A month without the day has no occurrence, unless the rule says that its last day stands for it.
    for (int tries = 0; tries < 100; ++tries, month += step) {
        if (int(month.year()) > kLastYearOfSeries) break;
        const bool has_day = clamps_ || pattern_.day_of_month <= static_cast<int>(days_in(month));
        first_ = day_in(pattern_, month);
        if (has_day && first_ >= day_) return true;
    }
    return fail("no day that fits");
}

// Moves the pattern from the days of DTSTART's zone to the device's.
bool RuleReader::shift_days() {
    first_ += days(start_.shift);
    if (start_.shift == 0 || pattern_.type == olRecursDaily) return true;
    constexpr const char* why = "in a zone where it is another day than on the device";
    if (pattern_.type == olRecursWeekly) {
        int mask = 0;
        for (int day = 0; day < 7; ++day) {
            if (pattern_.weekdays & 1 << day) mask |= 1 << (day + start_.shift + 7) % 7;
        }
        pattern_.weekdays = mask;
        return true;
    }
    if (pattern_.type != olRecursMonthly && pattern_.type != olRecursYearly) return fail(why);
    const int day = pattern_.day_of_month + start_.shift;
    if (day < 1 || day > 28 || pattern_.day_of_month > 28) return fail(why);
    pattern_.day_of_month = day;
    return true;
}

// Whether months that are too short for the day come up, which the rule leaves out and the store does not.
void RuleReader::check_lengths() {
    if (clamps_ || pattern_.day_of_month <= 28) return;
    const year_month begin = month_of(first_);
    for (int i = 0; i < 12; ++i) {
        const year_month month = begin + months(yearly_ ? 0 : i * pattern_.interval);
        const unsigned length = days_in(year(2001) / month.month());  // the shorter February
        if (static_cast<unsigned>(pattern_.day_of_month) <= length) continue;
        result_.exact = false;
        result_.why = "months without a day " + std::to_string(pattern_.day_of_month) + " have it on their last day";
        return;
    }
}

bool RuleReader::read_end(const std::string& text) {
    const std::string until = part_of(text, "UNTIL");
    const std::string count = part_of(text, "COUNT");
    if (!count.empty()) {
        // Counts so large that no calendar holds them are no end.
        pattern_.count = number_of(count, 1000000);
        if (pattern_.count == 0) return fail("more occurrences than the calendar holds");
        const double unit = is_yearly(pattern_)               ? 366
                            : pattern_.type == olRecursDaily  ? 1
                            : pattern_.type == olRecursWeekly ? 7
                                                              : 31;
        const double last_day = unit * pattern_.interval * pattern_.count;
        const auto room = static_cast<double>((local_days(year(kLastYearOfSeries) / 12 / 31) - first_).count());
        return last_day < room || fail("occurrences behind the year 4500");
    }
    if (until.empty()) return true;
    ZonedTime time;
    // A year that the store has no room for is how some programs write that there is no end.
    const int year = number_of(until.substr(0, std::min<std::size_t>(until.size(), 4)), 9999);
    if (year >= kLastYearOfSeries) return true;
    if (!parse_time(until, time)) return fail("an UNTIL that is no date");
    pattern_.until = start_.last_day(time) + days(start_.shift);
    return *pattern_.until >= first_ || fail("ends before it begins");
}

std::string names_of(int mask, const char* const* names, const char* mark) {
    std::string text;
    for (int day = 0; day < 7; ++day) {
        if (mask & 1 << day) text += (text.empty() ? "" : mark) + std::string(names[day]);
    }
    return text;
}

std::string month_days_rule(const Pattern& pattern) {
    const int day = pattern.day_of_month;
    const unsigned shortest =
        is_yearly(pattern) ? days_in(year(2001) / month(static_cast<unsigned>(pattern.month))) : 28;
    if (day <= static_cast<int>(shortest)) return ";BYMONTHDAY=" + std::to_string(day);
    if (is_yearly(pattern) || day == 31) return ";BYMONTHDAY=-1";
    return std::string(";BYMONTHDAY=28,29") + (day == 30 ? ",30" : "") + ";BYSETPOS=-1";
}

std::string weekdays_rule(const Pattern& pattern) {
    const std::string place = pattern.instance == 5 ? "-1" : std::to_string(pattern.instance);
    const std::string names = names_of(pattern.weekdays, kDayNames, ",");
    if (names.size() == 2) return ";BYDAY=" + place + names;
    return ";BYDAY=" + names + ";BYSETPOS=" + place;
}

}  // namespace

int interval_of_rule(const std::string& value, int most) {
    const std::string text = part_of(value, "INTERVAL");
    return text.empty() ? 1 : number_of(text, most);
}

RulePattern pattern_of_rule(const std::string& value, const RuleStart& start) {
    RulePattern result;
    const int interval = interval_of_rule(value, kMostInterval);
    start_libical();
    const icalrecurrencetype rule = icalrecurrencetype_from_string(value.c_str());
    if (rule.freq == ICAL_NO_RECURRENCE) {
        result.why = "no rule that can be read";
    } else if (interval == 0) {
        result.why = "an interval that is not from 1 to 999";
    } else if (rule.rscale != nullptr && !equal_ignoring_case(rule.rscale, "GREGORIAN")) {
        result.why = "another calendar than the Gregorian";
    } else {
        result = RuleReader(rule, interval, start).read(value);
    }
    return result;
}

std::string rule_of_pattern(const Pattern& pattern) {
    std::string rule;
    switch (pattern.type) {
        case olRecursDaily:
            rule = "FREQ=DAILY";
            break;
        case olRecursWeekly:
            rule = "FREQ=WEEKLY";
            break;
        case olRecursMonthly:
        case olRecursMonthNth:
            rule = "FREQ=MONTHLY";
            break;
        default:
            rule = "FREQ=YEARLY";
    }
    if (pattern.interval > 1) rule += ";INTERVAL=" + std::to_string(pattern.interval);
    if (is_yearly(pattern)) rule += ";BYMONTH=" + std::to_string(pattern.month);
    if (pattern.type == olRecursWeekly) {
        rule += ";BYDAY=" + names_of(pattern.weekdays, kDayNames, ",");
        if (pattern.interval > 1) rule += ";WKST=SU";
    } else if (pattern.type == olRecursMonthly || pattern.type == olRecursYearly) {
        rule += month_days_rule(pattern);
    } else if (pattern.type != olRecursDaily) {
        rule += weekdays_rule(pattern);
    }
    return rule;
}

std::string describe(const Pattern& pattern) {
    static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr const char* kPlaces[] = {"", "first", "second", "third", "fourth", "last"};
    static constexpr const char* kMonths[] = {"",     "January", "February",  "March",   "April",    "May",     "June",
                                              "July", "August",  "September", "October", "November", "December"};
    const char* unit = is_yearly(pattern)               ? "year"
                       : pattern.type == olRecursDaily  ? "day"
                       : pattern.type == olRecursWeekly ? "week"
                                                        : "month";
    std::string text = "every ";
    text += pattern.interval > 1 ? std::to_string(pattern.interval) + " " + unit + "s" : unit;
    const std::string weekdays = names_of(pattern.weekdays, kDays, ", ");
    if (pattern.type == olRecursWeekly) text += " on " + weekdays;
    if (pattern.instance > 0)
        text += std::string(" on the ") + kPlaces[std::clamp(pattern.instance, 1, 5)] + " " + weekdays;
    if (pattern.day_of_month > 0) text += " on day " + std::to_string(pattern.day_of_month);
    if (is_yearly(pattern)) text += std::string(" of ") + kMonths[std::clamp(pattern.month, 1, 12)];
    if (pattern.until) {
        text += " until " + shown_time(*pattern.until, true);
    } else if (pattern.count > 0) {
        text += pattern.count == 1 ? " once" : " " + std::to_string(pattern.count) + " times";
    }
    return text;
}

namespace {

// Whether a pattern without an end has an occurrence on that day.
bool recurs_on(const Pattern& pattern, CalendarDay first, CalendarDay day) {
    if (pattern.type == olRecursDaily) return (day - first).count() % pattern.interval == 0;
    if (pattern.type == olRecursWeekly) {
        const CalendarDay week = first - days(weekday(first).c_encoding());
        return (pattern.weekdays & bit_of(weekday(day))) && (day - week).count() / 7 % pattern.interval == 0;
    }
    const year_month begin = month_of(first);
    const year_month month = month_of(day);
    const auto passed = (month - begin).count();
    if (is_yearly(pattern) && month.month() != std::chrono::month(static_cast<unsigned>(pattern.month))) return false;
    return passed % (is_yearly(pattern) ? 12 * pattern.interval : pattern.interval) == 0 &&
           day_in(pattern, month) == day;
}

// Which occurrence is the one on `day`, counted from 1.
std::int64_t number_of(const Pattern& pattern, CalendarDay first, CalendarDay day) {
    if (pattern.type == olRecursDaily) return (day - first).count() / pattern.interval + 1;
    if (pattern.type == olRecursWeekly) {
        const auto before = [&](CalendarDay end) {
            return std::popcount(static_cast<unsigned>(pattern.weekdays & (bit_of(weekday(end)) - 1)));
        };
        const CalendarDay week = first - days(weekday(first).c_encoding());
        const std::int64_t weeks = (day - week).count() / 7 / pattern.interval;
        return weeks * std::popcount(static_cast<unsigned>(pattern.weekdays)) + before(day) + 1 - before(first);
    }
    const auto months = (month_of(day) - month_of(first)).count();
    return months / (is_yearly(pattern) ? 12 * pattern.interval : pattern.interval) + 1;
}

}  // namespace

bool occurs_on(const Pattern& pattern, CalendarDay first, CalendarDay day) {
    if (day < first || (pattern.until && day > *pattern.until) || !recurs_on(pattern, first, day)) return false;
    return pattern.count == 0 || number_of(pattern, first, day) <= pattern.count;
}

}  // namespace zr
