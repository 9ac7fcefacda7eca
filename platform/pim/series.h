#pragma once

// A series as its fields say it: when it begins and ends, and its pattern.

#include <optional>

#include "ole_date.h"
#include "recurrence.h"
#include "values.h"

namespace zr::platform::pim {

struct Series {
    std::optional<Moment> start;
    std::optional<Moment> end;
    bool all_day = false;
    Rule rule;  // its first day is the start's, or today

    // From an appointment's fields. A pattern that makes no sense is none.
    static Series from(const Values& values);

    LONGLONG seconds() const { return start && end ? seconds_between(*start, *end) : 0; }
    // Start and end of the occurrence on a day.
    Moment start_on(Day day) const { return {day, start->second}; }
    Moment end_on(Day day) const { return later(start_on(day), seconds()); }

    // An all-day event takes whole days.
    void round_to_days();
    // Moves the start on to the first occurrence. E_INVALIDARG when the series makes no sense.
    HRESULT begin_with_first();
};

// The fields of a pattern, all of them, as they are kept; those that it does not have are removed. The first day is
// the appointment's start.
Values rule_fields(const Rule& rule);
bool is_rule_field(CEPROPID id);

// What the occurrence on a day has of its own: its time, or what an exception put.
Values occurrence_fields(const Series& series, Day day, const Values& exception);

}  // namespace zr::platform::pim
