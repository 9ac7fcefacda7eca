#pragma once

#include "platform/types.h"

namespace zr::platform::pim {

// Whether a date lies in the years 100 to 9999.
constexpr bool is_date(DATE date) {
    return date > -657435.0 && date < 2958466.0;
}

// Days since 30 December 1899, the time of day as the fraction, and its parts; to the nearest second. False outside the
// years 100 to 9999 or when the parts are no date.
bool date_to_parts(DATE date, SYSTEMTIME& parts);
bool parts_to_date(const SYSTEMTIME& parts, DATE& date);
DATE today();  // the local day, at midnight

// A date on an even scale, to the nearest second: days from 30 December 1899, seconds of the day.
struct Moment {
    LONG day;
    LONG second;

    friend bool operator==(const Moment&, const Moment&) = default;
};
inline constexpr LONG kSecondsPerDay = 86400;

Moment moment_of(DATE date);  // of a date in range
DATE date_of(Moment moment);
constexpr LONGLONG seconds_between(Moment from, Moment to) {
    return (LONGLONG{to.day} - from.day) * kSecondsPerDay + to.second - from.second;
}
Moment later(Moment moment, LONGLONG seconds);

}  // namespace zr::platform::pim
