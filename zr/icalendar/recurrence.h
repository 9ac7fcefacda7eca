#pragma once

// Recurrence rules of calendars and patterns of the contact store.

#include <functional>
#include <optional>
#include <string>

#include "zr/icalendar/event.h"
#include "zr/icalendar/zones.h"

namespace zr {

struct RuleStart {
    Moment wall{};  // DTSTART, in its own zone
    // Days from DTSTART's day in its own zone to its day on the device: -1, 0 or 1.
    int shift = 0;
    // The last day (in DTSTART's zone) that an UNTIL leaves.
    std::function<CalendarDay(const ZonedTime& until)> last_day;
};

struct RulePattern {
    std::optional<Pattern> pattern;  // none: no pattern says what the rule says
    CalendarDay first{};             // the first occurrence, on the device
    bool exact = true;               // false: the pattern has further occurrences than the rule
    std::string why;                 // there is no pattern, or it is not exact
};

// The pattern of an RRULE's value, which may be anything.
RulePattern pattern_of_rule(const std::string& value, const RuleStart& start);

// The INTERVAL of an RRULE's value, 1 where it has none; 0 when it is not a number from 1 to `most`.
int interval_of_rule(const std::string& value, int most);

// The value of an RRULE that has the pattern's occurrences, without its end.
std::string rule_of_pattern(const Pattern& pattern);

// The pattern in words, such as "every 2 weeks on Mon, Wed until 2026-12-31".
std::string describe(const Pattern& pattern);

// Whether the pattern has an occurrence on that day when `first` is its first one.
bool occurs_on(const Pattern& pattern, CalendarDay first, CalendarDay day);

}  // namespace zr
