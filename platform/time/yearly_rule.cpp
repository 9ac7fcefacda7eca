#include "yearly_rule.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace zr::platform {

std::int64_t YearlyTurn::in(int year) const {
    const RuleDay day{RuleDay::Form::MonthAndWeek, month, week, weekday, 0, second};
    return day.in(year);
}

OffsetSteps steps_of(const Zone& zone, std::int64_t from, std::int64_t until) {
    OffsetSteps steps{{from, zone.at(from).offset}};
    for (auto change = zone.next(from); change && change->at < until; change = zone.next(change->at)) {
        if (change->after.offset != steps.back().offset) steps.push_back({change->at, change->after.offset});
    }
    return steps;
}

OffsetSteps steps_of(const YearlyRule& rule, int first_year, int last_year) {
    OffsetSteps steps;
    for (int year = first_year; year <= last_year; ++year) {
        const OffsetStep daylight{rule.to_daylight.in(year)-rule.standard, rule.daylight};
        const OffsetStep standard{rule.to_standard.in(year)-rule.daylight, rule.standard};
        const bool north = daylight.at < standard.at;
        if (steps.empty())
            steps.push_back({std::numeric_limits<std::int64_t>::min(), (north ? standard : daylight).offset});
        steps.push_back(north ? daylight : standard);
        steps.push_back(north ? standard : daylight);
    }
    return steps;
}

std::int32_t offset_at(const OffsetSteps& steps, std::int64_t second) {
    const auto later = std::ranges::upper_bound(steps, second, {}, &OffsetStep::at);
    return later == steps.begin() ? steps.front().offset : std::prev(later)->offset;
}

std::int64_t difference(const OffsetSteps& left, const OffsetSteps& right, std::int64_t from, std::int64_t until) {
    std::int64_t sum = 0;
    auto next_left = std::ranges::upper_bound(left, from, {}, &OffsetStep::at);
    auto next_right = std::ranges::upper_bound(right, from, {}, &OffsetStep::at);
    for (std::int64_t at = from; at < until;) {
        std::int64_t end = until;
        if (next_left != left.end()) end = std::min(end, next_left->at);
        if (next_right != right.end()) end = std::min(end, next_right->at);
        sum += (end - at) * std::abs(offset_at(left, at) - offset_at(right, at));
        at = end;
        while (next_left != left.end() && next_left->at <= at)
            ++next_left;
        while (next_right != right.end() && next_right->at <= at)
            ++next_right;
    }
    return sum;
}

}  // namespace zr::platform
