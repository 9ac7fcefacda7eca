#include "recurrence.h"

#include <algorithm>
#include <bit>
#include <chrono>

namespace zr::platform::pim {
namespace {

constexpr std::chrono::sys_days kDayZero = std::chrono::year(1899) / 12 / 30;
constexpr int kDaysInWeek = 7;
constexpr int kMonthsInYear = 12;

std::chrono::year_month_day civil(Day day) {
    return kDayZero + std::chrono::days(day);
}

// Months since the beginning of year 0.
LONGLONG month_index(Day day) {
    const auto date = civil(day);
    return LONGLONG{static_cast<int>(date.year())} * kMonthsInYear + static_cast<unsigned>(date.month()) - 1;
}

std::chrono::year_month month_at(LONGLONG index) {
    return std::chrono::year(static_cast<int>(index / kMonthsInYear)) /
           std::chrono::month(static_cast<unsigned>(index % kMonthsInYear) + 1);
}

Day number_of(std::chrono::sys_days when) {
    return static_cast<Day>((when - kDayZero).count());
}

LONG bits(LONG mask) {
    return std::popcount(static_cast<unsigned>(mask));
}

// The days of a mask before a weekday.
LONG before(LONG mask, int weekday) {
    return mask & ((1 << weekday) - 1);
}

// The weekday of the bit that has `skipped` set bits below it.
int nth_bit(LONG mask, LONGLONG skipped) {
    for (; skipped > 0; --skipped) {
        mask &= mask - 1;
    }
    return std::countr_zero(static_cast<unsigned>(mask));
}

// The instance-th day of a month whose weekday is in the mask; the last one from kLastInstance on.
Day instance_in(std::chrono::year_month month, LONG mask, LONG instance) {
    const Day first = number_of(month / 1);
    const Day last = number_of(month / std::chrono::last);
    if (instance >= kLastInstance) {
        Day day = last;
        while ((mask >> weekday_of(day) & 1) == 0) {
            --day;
        }
        return day;
    }
    Day day = first;
    for (LONG left = instance;; ++day) {
        if ((mask >> weekday_of(day) & 1) != 0 && --left == 0) return day;
    }
}

Day day_in_month(const Rule& rule, LONGLONG index) {
    const std::chrono::year_month month = month_at(index);
    if (rule.by_instance()) return instance_in(month, rule.weekdays, rule.instance);
    const std::chrono::sys_days last = month / std::chrono::last;
    return std::min(number_of(month / 1) + rule.day_of_month - 1, number_of(last));
}

// A rule's days that repeat with the month, from the given day on.
Day first_fit_by_month(const Rule& rule, Day from) {
    LONGLONG month = month_index(from);
    if (rule.yearly()) month = month / kMonthsInYear * kMonthsInYear + rule.month - 1;
    const Day day = day_in_month(rule, month);
    return day >= from ? day : day_in_month(rule, month + (rule.yearly() ? kMonthsInYear : 1));
}

bool in_range(LONG value, LONG least, LONG most) {
    return value >= least && value <= most;
}

}  // namespace

int weekday_of(Day day) {
    const int weekday = (day + 6) % kDaysInWeek;  // day 0 is a Saturday
    return weekday < 0 ? weekday + kDaysInWeek : weekday;
}

LONG month_of(Day day) {
    return static_cast<LONG>(static_cast<unsigned>(civil(day).month()));
}

LONG day_of_month_of(Day day) {
    return static_cast<LONG>(static_cast<unsigned>(civil(day).day()));
}

bool Rule::valid() const {
    if (type != olRecursDaily && !weekly() && !by_date() && !by_instance()) return false;
    return in_range(interval, 1, kMostInterval) && (!by_weekday() || in_range(weekdays, 1, kDaysOfWeek)) &&
           (!by_date() || in_range(day_of_month, 1, 31)) && (!by_instance() || in_range(instance, 1, kLastInstance)) &&
           (!yearly() || in_range(month, 1, kMonthsInYear)) && (end != End::Count || count >= 1);
}

Rule rule_for(LONG type, Day first) {
    Rule rule;
    rule.type = type;
    rule.first = first;
    if (!rule.recurs()) return rule;
    rule.interval = 1;
    if (rule.by_weekday()) rule.weekdays = 1 << weekday_of(first);
    if (rule.by_date()) rule.day_of_month = day_of_month_of(first);
    if (rule.by_instance()) rule.instance = (day_of_month_of(first) - 1) / kDaysInWeek + 1;
    if (rule.yearly()) rule.month = month_of(first);
    return rule;
}

Day first_fit(const Rule& rule, Day from) {
    if (rule.by_date() || rule.by_instance()) return first_fit_by_month(rule, from);
    while (rule.weekly() && (rule.weekdays >> weekday_of(from) & 1) == 0) {
        ++from;
    }
    return from;
}

Occurrences::Occurrences(const Rule& rule) : rule_(rule) {
    rule_.first = first_fit(rule, rule.first);
    if (rule.end == Rule::End::Count) last_ = std::min(nth(rule.count), LONGLONG{kLastDay} + 1);
    if (rule.end == Rule::End::Date) last_ = rule.last;
}

LONGLONG Occurrences::months_apart() const {
    return LONGLONG{rule_.interval} * (rule_.yearly() ? kMonthsInYear : 1);
}

LONGLONG Occurrences::number_until(Day day) const {
    if (day < rule_.first) return 0;
    if (rule_.type == olRecursDaily) return (day - rule_.first) / rule_.interval + 1;
    if (rule_.weekly()) {
        const Day sunday = rule_.first - weekday_of(rule_.first);
        const LONGLONG week = (day - sunday) / kDaysInWeek;
        const LONGLONG whole = (week + rule_.interval - 1) / rule_.interval * bits(rule_.weekdays);
        const bool this_week = week % rule_.interval == 0;
        return whole - bits(before(rule_.weekdays, weekday_of(rule_.first))) +
               (this_week ? bits(before(rule_.weekdays, weekday_of(day) + 1)) : 0);
    }
    const LONGLONG start = month_index(rule_.first);
    const LONGLONG periods = (month_index(day) - start) / months_apart();
    return periods + (day_in_month(rule_, start + periods * months_apart()) <= day ? 1 : 0);
}

LONGLONG Occurrences::nth(LONGLONG number) const {
    if (rule_.type == olRecursDaily) return rule_.first + (number - 1) * rule_.interval;
    if (rule_.weekly()) {
        const Day sunday = rule_.first - weekday_of(rule_.first);
        const LONGLONG skipped = number - 1 + bits(before(rule_.weekdays, weekday_of(rule_.first)));
        const LONG per_week = bits(rule_.weekdays);
        return sunday + skipped / per_week * rule_.interval * kDaysInWeek + nth_bit(rule_.weekdays, skipped % per_week);
    }
    const LONGLONG month = month_index(rule_.first) + (number - 1) * months_apart();
    return month > month_index(kLastDay) ? LONGLONG{kLastDay} + 1 : day_in_month(rule_, month);
}

bool Occurrences::on(Day day) const {
    const std::optional<Day> found = next(day);
    return found && *found == day;
}

std::optional<Day> Occurrences::next(Day day) const {
    const LONGLONG found = nth(number_until(day - 1) + 1);
    if (found > std::min<LONGLONG>(last_, kLastDay)) return std::nullopt;
    return static_cast<Day>(found);
}

LONG Occurrences::count() const {
    if (rule_.end == Rule::End::Never) return -1;
    if (rule_.end == Rule::End::Count) return rule_.count;
    return static_cast<LONG>(number_until(rule_.last));
}

std::optional<Day> Occurrences::last() const {
    if (rule_.end == Rule::End::Never) return std::nullopt;
    if (rule_.end == Rule::End::Count) return static_cast<Day>(last_);
    const LONGLONG number = number_until(rule_.last);
    if (number == 0) return std::nullopt;
    return static_cast<Day>(nth(number));
}

bool Occurrences::possible() const {
    if (rule_.first > kLastDay) return false;
    if (rule_.end == Rule::End::Never) return true;
    return last_ >= rule_.first && last_ <= kLastDay;
}

}  // namespace zr::platform::pim
