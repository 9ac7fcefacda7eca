#pragma once

// A rule of two dates, each a weekday of a month, and how far it is from what a zone really does.

#include <cstdint>
#include <optional>
#include <vector>

#include "time/zone.h"

namespace zr::platform {

// A day of each year as a TIME_ZONE_INFORMATION says it, and a time of that day.
struct YearlyTurn {
    unsigned month;
    unsigned weekday;
    unsigned week;  // 5 is the last
    std::int32_t second;

    std::int64_t in(int year) const;  // local seconds since 1970
};

struct YearlyRule {
    std::int32_t standard;  // seconds east of UTC
    std::int32_t daylight;  // more than that
    YearlyTurn to_daylight;
    YearlyTurn to_standard;
};

// Offsets as they follow each other; each holds until the next one.
struct OffsetStep {
    std::int64_t at;
    std::int32_t offset;
};
using OffsetSteps = std::vector<OffsetStep>;

// What a zone does from one second until before another; the first step is at `from`.
OffsetSteps steps_of(const Zone& zone, std::int64_t from, std::int64_t until);
// The same of a rule, for whole years.
OffsetSteps steps_of(const YearlyRule& rule, int first_year, int last_year);

std::int32_t offset_at(const OffsetSteps& steps, std::int64_t second);
// The seconds by which two differ, summed over a time.
std::int64_t difference(const OffsetSteps& left, const OffsetSteps& right, std::int64_t from, std::int64_t until);

}  // namespace zr::platform
