#include "zr/commands/calendar_day.h"

#include <chrono>
#include <cstdio>

#include "zr/base/failure.h"

namespace zr {

CalendarDay parse_day(const std::string& what, const std::string& text) {
    using namespace std::chrono;
    int y = 0;
    unsigned m = 0;
    unsigned d = 0;
    char rest;
    const bool shaped = std::sscanf(text.c_str(), "%4d-%2u-%2u%c", &y, &m, &d, &rest) == 3;
    const year_month_day date{year(y), month(m), day(d)};
    if (!shaped || !date.ok() || !is_storable(local_days(date))) {
        throw Failure{Exit::Usage, what + ": " + text + " is not a day such as 2026-01-31"};
    }
    return local_days(date);
}

}  // namespace zr
