#include "zone_year.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <optional>
#include <vector>

#include "units.h"
#include "yearly_rule.h"
#include "zone_name.h"

namespace zr::platform {

namespace {

namespace chrono = std::chrono;

// After so many years the calendar repeats itself, weekdays and all.
constexpr int kYearsOfCalendar = 28;

std::int64_t local_new_year(int year) {
    const chrono::sys_days day = chrono::year(year) / 1 / 1;
    return day.time_since_epoch().count() * kSecondsPerDay;
}

int local_year(std::int64_t local) {
    const auto day = chrono::floor<chrono::days>(chrono::sys_seconds(chrono::seconds(local)));
    return static_cast<int>(chrono::year_month_day(day).year());
}

std::int64_t new_year(const Zone& zone, int year, std::int32_t near_offset) {
    const std::int64_t local = local_new_year(year);
    return local - zone.at(local - near_offset).offset;
}

LONG bias_of(std::int32_t offset) {
    return static_cast<LONG>(-chrono::round<chrono::minutes>(chrono::seconds(offset)).count());
}

// The year that it is, what the zone does in it, and what to hold a rule against.
struct Year {
    int number;
    std::int64_t begin;
    std::int64_t end;
    std::int64_t from;  // since when the offset that is in force is
    std::int64_t until;
    OffsetSteps steps;
    int last_of_measure;
    OffsetSteps measure;

    std::int64_t end_of_measure() const { return local_new_year(last_of_measure + 1) - steps.back().offset; }
    std::int32_t offset() const { return offset_at(steps, from); }
};

bool same_steps(const OffsetSteps& left, const OffsetSteps& right) {
    return std::ranges::equal(left, right, [](const OffsetStep& one, const OffsetStep& other) {
        return one.at == other.at && one.offset == other.offset;
    });
}

// A zone that this year does what it will do for ever is measured over a whole cycle of the calendar, so that the last
// Sunday is told from the fourth. Others do something else soon: for them it is this year and the next.
void set_measure(const Zone& zone, Year& year) {
    const std::optional<Zone> rule = zone.for_ever();
    const bool settled = rule && same_steps(steps_of(*rule, year.begin, year.end), year.steps);
    year.last_of_measure = year.number + (settled ? kYearsOfCalendar - 1 : 1);
    year.measure = steps_of(settled ? *rule : zone, year.begin, year.end_of_measure());
}

Year year_around(const Zone& zone, std::int64_t second) {
    const std::int32_t offset = zone.at(second).offset;
    Year year{};
    year.number = local_year(second + offset);
    year.begin = std::min(new_year(zone, year.number, offset), second);
    year.end = std::max(new_year(zone, year.number + 1, offset), second + 1);
    year.from = year.begin;
    year.until = year.end;
    for (auto change = zone.next(year.begin); change && change->at < year.end; change = zone.next(change->at)) {
        if (change->at > second) {
            year.until = change->at;
            break;
        }
        year.from = change->at;
    }
    year.steps = steps_of(zone, year.begin, year.end);
    set_measure(zone, year);
    return year;
}

// The ways to say a day of this year as a weekday of a month. None when the time is not in the year.
std::vector<YearlyTurn> turns_at(std::int64_t local, int year) {
    if (local_year(local) != year) return {};
    const auto day = chrono::floor<chrono::days>(chrono::sys_seconds(chrono::seconds(local)));
    const chrono::year_month_day date(day);
    const auto number = static_cast<unsigned>(date.day());
    YearlyTurn turn{};
    turn.month = static_cast<unsigned>(date.month());
    turn.weekday = chrono::weekday(day).c_encoding();
    turn.week = (number - 1) / 7 + 1;
    turn.second = static_cast<std::int32_t>(local - day.time_since_epoch().count() * kSecondsPerDay);
    std::vector<YearlyTurn> turns{turn};
    const auto last = static_cast<unsigned>((date.year() / date.month() / chrono::last).day());
    if (turn.week < 5 && number + 7 > last) {
        turn.week = 5;
        turns.push_back(turn);
    }
    return turns;
}

// The ways to say when this year's time of an offset begins: where the clock is put forward (back, for the lower
// offset), or with the year.
std::vector<YearlyTurn> turns_to(const Year& year, std::int32_t offset, std::int32_t other) {
    std::vector<YearlyTurn> turns;
    for (std::size_t i = 1; i < year.steps.size(); ++i) {
        const bool forward = year.steps[i].offset > year.steps[i - 1].offset;
        if (forward != (offset > other)) continue;
        std::ranges::copy(turns_at(year.steps[i].at + other, year.number), std::back_inserter(turns));
    }
    std::ranges::copy(turns_at(local_new_year(year.number), year.number), std::back_inserter(turns));
    return turns;
}

std::vector<YearlyRule> rules_of(const Year& year) {
    std::vector<YearlyRule> rules;
    std::vector<std::int32_t> others;
    for (const OffsetStep& step : year.steps) {
        if (step.offset != year.offset() && std::ranges::find(others, step.offset) == others.end())
            others.push_back(step.offset);
    }
    for (const std::int32_t other : others) {
        const std::int32_t standard = std::min(year.offset(), other);
        const std::int32_t daylight = std::max(year.offset(), other);
        for (const YearlyTurn& to_daylight : turns_to(year, daylight, standard)) {
            for (const YearlyTurn& to_standard : turns_to(year, standard, daylight))
                rules.push_back({standard, daylight, to_daylight, to_standard});
        }
    }
    return rules;
}

// How wrong a rule is. What lies ahead counts double.
std::int64_t wrongness(const Year& year, const OffsetSteps& steps) {
    return difference(steps, year.measure, year.begin, year.from) +
           2 * difference(steps, year.measure, year.from, year.end_of_measure());
}

// The rule that is the least wrong of those that are right now; none when no daylight time is at least as good.
std::optional<YearlyRule> best_rule(const Year& year) {
    std::optional<YearlyRule> best;
    std::int64_t least = wrongness(year, {{year.begin, year.offset()}});
    for (const YearlyRule& rule : rules_of(year)) {
        const OffsetSteps steps = steps_of(rule, year.number, year.last_of_measure);
        // A rule turns where the zone does, or at the new year; so it is the same until the zone's next turn.
        if (offset_at(steps, year.until - 1) != year.offset()) continue;
        const std::int64_t wrong = wrongness(year, steps);
        if (wrong >= least) continue;
        least = wrong;
        best = rule;
    }
    return best;
}

SYSTEMTIME date_of_turn(const YearlyTurn& turn) {
    SYSTEMTIME date{};
    date.wMonth = static_cast<WORD>(turn.month);
    date.wDayOfWeek = static_cast<WORD>(turn.weekday);
    date.wDay = static_cast<WORD>(turn.week);
    date.wHour = static_cast<WORD>(turn.second / 3600);
    date.wMinute = static_cast<WORD>(turn.second / 60 % 60);
    date.wSecond = static_cast<WORD>(turn.second % 60);
    return date;
}

// The name of the time with an offset, at or nearest after the beginning of what is in force.
std::string_view name_of(const Zone& zone, const Year& year, std::int32_t offset) {
    const ZoneTime now = zone.at(year.from);
    if (now.offset == offset) return now.name;
    for (const OffsetStep& step : year.steps)
        if (step.offset == offset) return zone.at(step.at).name;
    return now.name;
}

}  // namespace

ZoneNow zone_now(const Zone& zone, std::int64_t second) {
    const Year year = year_around(zone, second);
    ZoneNow now;
    now.from = year.from;
    now.until = year.until;
    now.bias = bias_of(year.offset());
    TIME_ZONE_INFORMATION& information = now.information;
    const std::optional<YearlyRule> rule = best_rule(year);
    const std::int32_t standard = rule ? rule->standard : year.offset();
    const std::int32_t daylight = rule ? rule->daylight : year.offset();
    information.Bias = bias_of(standard);
    copy_zone_name(name_of(zone, year, standard), information.StandardName);
    copy_zone_name(name_of(zone, year, daylight), information.DaylightName);
    if (rule) {
        information.DaylightBias = bias_of(daylight) - bias_of(standard);
        information.DaylightDate = date_of_turn(rule->to_daylight);
        information.StandardDate = date_of_turn(rule->to_standard);
        now.id = year.offset() == daylight ? TIME_ZONE_ID_DAYLIGHT : TIME_ZONE_ID_STANDARD;
    }
    return now;
}

}  // namespace zr::platform
