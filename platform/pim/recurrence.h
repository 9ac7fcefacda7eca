#pragma once

// On which days a series occurs. Days are numbered evenly from 30 December 1899 (day 0), unlike the whole part of a
// DATE with a time of day before that.

#include <optional>

#include "platform/pim.h"

namespace zr::platform::pim {

using Day = LONG;

inline constexpr Day kLastDay = 949997;  // 31 December 4500; no occurrence comes later
inline constexpr LONG kMostInterval = 999;
inline constexpr LONG kDaysOfWeek = 127;
inline constexpr LONG kLastInstance = 5;
inline constexpr LONG kDefaultOccurrences = 10;

// What a pattern says. Fields that its type does not have are 0.
struct Rule {
    enum class End { Never, Count, Date };

    LONG type = olRecursOnce;
    LONG interval = 0;
    LONG weekdays = 0;
    LONG day_of_month = 0;
    LONG instance = 0;
    LONG month = 0;
    Day first = 0;
    End end = End::Never;
    LONG count = 0;  // with End::Count
    Day last = 0;    // with End::Date

    friend bool operator==(const Rule&, const Rule&) = default;

    bool recurs() const { return type != olRecursOnce; }
    bool weekly() const { return type == olRecursWeekly; }
    bool by_date() const { return type == olRecursMonthly || type == olRecursYearly; }
    bool by_instance() const { return type == olRecursMonthNth || type == olRecursYearNth; }
    bool by_weekday() const { return weekly() || by_instance(); }
    bool yearly() const { return type == olRecursYearly || type == olRecursYearNth; }

    // Whether the type is known and its fields are in range; the start may be any day.
    bool valid() const;
};

int weekday_of(Day day);  // 0 is Sunday
LONG month_of(Day day);
LONG day_of_month_of(Day day);

// A rule of this type that fits `first`, without an end.
Rule rule_for(LONG type, Day first);

// The first day from `from` on that fits a valid rule's type and fields, whatever its interval.
Day first_fit(const Rule& rule, Day from);

// The days of a valid rule, the first of which is first_fit of its start.
class Occurrences {
public:
    explicit Occurrences(const Rule& rule);

    Day first() const { return rule_.first; }
    bool on(Day day) const;
    // The first one on `day` or later.
    std::optional<Day> next(Day day) const;
    // How many there are; -1: no end.
    LONG count() const;
    // The last one; none when there is no end, or no occurrence before it.
    std::optional<Day> last() const;
    // At least one occurrence, and a last one no later than kLastDay if there is an end.
    bool possible() const;

private:
    Day in_month(LONGLONG month) const;
    LONGLONG months_apart() const;
    LONGLONG number_until(Day day) const;  // from the first to this day, whatever the end
    LONGLONG nth(LONGLONG number) const;   // the day of one, numbered from 1

    Rule rule_;
    LONGLONG last_ = kLastDay;  // none is later
};

}  // namespace zr::platform::pim
