#pragma once

// Days on the command line.

#include <string>

#include "zr/icalendar/event.h"

namespace zr {

// A day such as 2026-01-31. Throws Failure (wrong usage), which names `what` was given.
CalendarDay parse_day(const std::string& what, const std::string& text);

}  // namespace zr
