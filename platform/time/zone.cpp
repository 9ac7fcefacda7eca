#include "time/zone.h"

#include <algorithm>
#include <chrono>
#include <limits>

#include "units.h"

namespace zr::platform {

namespace {

namespace chrono = std::chrono;

std::int64_t midnight(chrono::sys_days day) {
    return day.time_since_epoch().count() * kSecondsPerDay;
}

// The year in UTC, kept to those that dates can be made of.
int year_of(std::int64_t second) {
    constexpr std::int64_t kFar = std::int64_t{30'000} * 365 * kSecondsPerDay;
    const chrono::seconds time(std::clamp(second, -kFar, kFar));
    return static_cast<int>(chrono::year_month_day(chrono::floor<chrono::days>(chrono::sys_seconds(time))).year());
}

chrono::sys_days day_in(const RuleDay& rule, int number) {
    const chrono::year year(number);
    const chrono::sys_days new_year = year / 1 / 1;
    if (rule.form == RuleDay::Form::DayOfYear) return new_year + chrono::days(rule.day);
    if (rule.form == RuleDay::Form::DayWithoutLeapDay) {
        const bool behind_leap_day = year.is_leap() && rule.day >= 60;
        return new_year + chrono::days(rule.day - 1 + (behind_leap_day ? 1 : 0));
    }
    const chrono::year_month month = year / chrono::month(rule.month);
    const chrono::weekday weekday(rule.weekday);
    if (rule.week == 5) return month / weekday[chrono::last];
    return month / weekday[rule.week];
}

}  // namespace

std::int64_t RuleDay::in(int year) const noexcept {
    return midnight(day_in(*this, year)) + second;
}

Zone Zone::utc() {
    Zone zone;
    zone.types_.push_back({0, "UTC"});
    return zone;
}

std::int64_t Zone::end_of_changes() const {
    return changes_.empty() ? std::numeric_limits<std::int64_t>::min() : changes_.back().at;
}

std::size_t Zone::type_at(std::int64_t second) const {
    if (rule_ && second >= end_of_changes()) return rule_type_at(second);
    const auto later = std::ranges::upper_bound(changes_, second, {}, &Change::at);
    return later == changes_.begin() ? 0 : std::prev(later)->type;
}

ZoneTime Zone::at(std::int64_t second) const {
    return time_of(type_at(second));
}

// What the rule changes, from the year before to some years later, in order. Where both meet in one instant daylight
// time has the last word: there is no standard time in between.
std::vector<Zone::Change> Zone::rule_changes(std::int64_t around, int years) const {
    std::vector<Change> changes;
    const int first = year_of(around) - 1;
    for (int year = first; year <= first + years; ++year) {
        changes.push_back({rule_->to_standard.in(year)-types_[rule_->daylight].offset, rule_->standard});
        changes.push_back({rule_->to_daylight.in(year)-types_[rule_->standard].offset, rule_->daylight});
    }
    std::ranges::sort(changes, [this](const Change& left, const Change& right) {
        if (left.at != right.at) return left.at < right.at;
        return left.type == rule_->standard && right.type != rule_->standard;
    });
    return changes;
}

std::size_t Zone::rule_type_at(std::int64_t second) const {
    if (rule_->standard == rule_->daylight) return rule_->standard;
    const std::vector<Change> changes = rule_changes(second, 2);
    const auto later = std::ranges::upper_bound(changes, second, {}, &Change::at);
    return later == changes.begin() ? rule_->standard : std::prev(later)->type;
}

std::optional<ZoneChange> Zone::next_by_rule(std::int64_t second) const {
    if (!rule_ || rule_->standard == rule_->daylight) return std::nullopt;
    for (const Change& change : rule_changes(second, 3)) {
        if (change.at <= second) continue;
        const ZoneChange found{change.at, at(change.at - 1), at(change.at)};
        if (found.before != found.after) return found;
    }
    return std::nullopt;
}

std::optional<ZoneChange> Zone::next(std::int64_t second) const {
    for (auto change = std::ranges::upper_bound(changes_, second, {}, &Change::at); change != changes_.end();
         ++change) {
        const std::size_t before = change == changes_.begin() ? 0 : std::prev(change)->type;
        const ZoneChange found{change->at, time_of(before), at(change->at)};
        if (found.before != found.after) return found;
    }
    return next_by_rule(std::max(second, end_of_changes()));
}

std::optional<Zone> Zone::for_ever() const {
    if (!rule_ || rule_->standard == rule_->daylight) return std::nullopt;
    Zone zone;
    zone.types_ = types_;
    zone.rule_ = rule_;
    return zone;
}

}  // namespace zr::platform
