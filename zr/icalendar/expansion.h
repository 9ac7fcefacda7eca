#pragma once

// The occurrences of recurrence sets that no pattern of the contact store holds.

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "zr/icalendar/event.h"
#include "zr/icalendar/zones.h"

namespace zr {

// Days on the device, the first and the last of them.
struct DaySpan {
    CalendarDay from{};
    CalendarDay to{};
};

// Spans end here at the latest: the rules of zones and of recurrence are not followed much further.
inline constexpr CalendarDay kLastExpandedDay{std::chrono::local_days(std::chrono::year(2399) / 12 / 31)};

// When something occurs, as a component states it: rules and dates, less other rules and dates.
struct RecurrenceSet {
    struct Date {
        ZonedTime time;
        std::optional<ZonedTime> end;  // of a period
    };

    ZonedTime start;
    std::vector<std::string> rules;  // values of RRULE
    std::vector<std::string> excluded_rules;
    std::vector<Date> dates;
    std::vector<ZonedTime> excluded_dates;  // a day stands for all of it
};

struct OccurrenceTime {
    ZonedTime time;                // what a RECURRENCE-ID calls it
    std::optional<ZonedTime> end;  // where it has one of its own

    bool operator==(const OccurrenceTime&) const = default;
};

struct Expansion {
    static constexpr std::size_t kMost = 10000;

    std::vector<OccurrenceTime> occurrences;  // by their time, kMost at most
    bool cut = false;                         // there are more in the span
    std::string why;                          // it cannot be expanded
};

// The occurrences that begin within the span. Takes time in proportion to what lies between the start and the span's
// end, with a bound.
Expansion expand(const RecurrenceSet& set, const DaySpan& span);

}  // namespace zr
