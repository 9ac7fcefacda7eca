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

// What the rule changes, from two years before to some years later, in order. Daylight time goes from its date to the
// next date of standard time that is one of the same year or of the year after it. Where one such time reaches into the
// next one, or up to it, there is no standard time in between.
std::vector<Zone::Change> Zone::rule_changes(std::int64_t around, int years) const {
    std::vector<Change> changes;
    const auto begin = [this](int year) { return rule_->to_daylight.in(year)-types_[rule_->standard].offset; };
    const auto end = [this](int year) { return rule_->to_standard.in(year)-types_[rule_->daylight].offset; };
    const int now = year_of(around);
    for (int year = now - 2; year <= now + years; ++year) {
        const std::int64_t from = begin(year);
        const std::int64_t until = end(year) > from ? end(year) : end(year + 1);
        if (changes.empty() || from > changes.back().at) {
            changes.push_back({from, rule_->daylight});
            changes.push_back({until, rule_->standard});
        } else {
            changes.back().at = std::max(changes.back().at, until);
        }
    }
    return changes;
}

std::size_t Zone::rule_type_at(std::int64_t second) const {
    if (rule_->standard == rule_->daylight) return rule_->standard;
    const std::vector<Change> changes = rule_changes(second, 1);
    const auto later = std::ranges::upper_bound(changes, second, {}, &Change::at);
    return later == changes.begin() ? rule_->standard : std::prev(later)->type;
}

std::optional<ZoneChange> Zone::next_by_rule(std::int64_t second) const {
    if (!rule_ || rule_->standard == rule_->daylight) return std::nullopt;
    // A rule may leave standard time out but in leap years, which are up to eight years apart.
    for (const int years : {2, 9}) {
        for (const Change& change : rule_changes(second, years)) {
            if (change.at <= second) continue;
            const ZoneChange found{change.at, at(change.at - 1), at(change.at)};
            if (found.before != found.after) return found;
        }
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
