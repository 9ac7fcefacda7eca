#pragma once

// Components of calendars to appointments and tasks of the contact store.

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "zr/base/problem.h"
#include "zr/icalendar/event.h"
#include "zr/icalendar/expansion.h"
#include "zr/icalendar/splitter.h"
#include "zr/icalendar/zones.h"

namespace zr {

// An appointment as one component states it.
struct ReadEvent {
    Event event;
    // For an override of one occurrence: which one. The series is another component with the same uid.
    std::optional<ZonedTime> recurrence_id;
    long line = 0;  // of the component
    // Of a recurrence set that no pattern holds: when it occurs within the days that were asked for.
    std::optional<std::vector<OccurrenceTime>> occurrences;

    // How the series counts its days: in DTSTART's zone, `shift` days before the device's.
    Zone zone;
    int shift = 0;
    // The device's day of the occurrence that begins at this time.
    CalendarDay day_of(const ZonedTime& occurrence) const;
    // An occurrence as an event of its own.
    Event event_at(const OccurrenceTime& occurrence) const;
    std::chrono::seconds length{};
    bool length_by_clock = false;  // whole days, which may have 23 or 25 hours
};

// The line that says which occurrence an event of its own is.
std::string recurrence_line(const ZonedTime& occurrence);

// Makes `read` from a whole VEVENT. Adds what is wrong to `problems`; false when nothing of it can be imported. With a
// span, what no pattern holds is expanded within it.
bool read_event(const RawComponent& raw, CalendarZones& zones, ReadEvent& read, std::vector<Problem>& problems,
                const std::optional<DaySpan>& span = {});

// The same for a VTODO.
bool read_task(const RawComponent& raw, CalendarZones& zones, Task& task, std::vector<Problem>& problems);

}  // namespace zr
