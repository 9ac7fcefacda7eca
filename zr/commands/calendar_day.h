#pragma once

// A day of the command line.

#include <string>

#include "zr/icalendar/event.h"

namespace zr {

// On the device's clock.
CalendarDay today();
Moment local_now();

// A day such as 2026-01-31. `what` names the argument. Throws Failure (wrong usage).
CalendarDay parse_day(const std::string& what, const std::string& text);

// The same, or in words: today, tomorrow, yesterday, a day of the week (the next one, or today), and spans from `from`
// on: +7d, -2w, +1m, +1y.
CalendarDay parse_day_words(const std::string& what, const std::string& text, CalendarDay from = today());

// A day, in words or not, alone or with a time of day behind a blank or a T: 'tomorrow 09:30'. A time alone is one of
// `from`. `is_day` tells whether there was no time.
Moment parse_moment(const std::string& what, const std::string& text, bool& is_day, CalendarDay from = today());

}  // namespace zr
