#pragma once

// The time zones of a calendar: its own VTIMEZONE components, else the zones of the system by their names, or by those
// that Windows gives them ("W. Europe Standard Time").

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zr/icalendar/event.h"
#include "zr/icalendar/splitter.h"

struct _icaltimezone;

namespace zr {

// Where a time of a calendar belongs. Floating times, and those of the device's own zone, are the device's time as they
// stand.
struct Zone {
    enum class Kind { Floating, Utc, Other };
    Kind kind = Kind::Floating;
    _icaltimezone* rules = nullptr;  // of Other; belongs to CalendarZones

    bool operator==(const Zone&) const = default;
};

// A time as a calendar states it.
struct ZonedTime {
    Moment wall{};
    Zone zone;
    bool is_day = false;  // no time of day

    bool operator==(const ZonedTime&) const = default;
};

class CalendarZones {
public:
    CalendarZones();
    ~CalendarZones();
    CalendarZones(const CalendarZones&) = delete;
    CalendarZones& operator=(const CalendarZones&) = delete;

    // Takes a VTIMEZONE component.
    void add(const RawComponent& component, std::vector<Problem>& problems);
    // Forgets the zones of a calendar that is over.
    void clear();

    // Whether the zone is defined by now. One that is not may still come.
    bool has(const std::string& id) const;
    // The zone, else the system's of that name. False when there is none; `zone` is then floating.
    bool find(const std::string& id, Zone& zone);

private:
    bool is_clock_of_device_or_utc(const std::string& id, Zone& zone) const;

    struct Free {
        void operator()(_icaltimezone* zone) const;
    };

    std::string device_id_;
    std::map<std::string, std::unique_ptr<_icaltimezone, Free>> zones_;
};

std::chrono::sys_seconds utc_of(Moment wall, Zone zone);
Moment wall_of(std::chrono::sys_seconds utc, Zone zone);
// The device's time at that instant.
Moment device_time(const ZonedTime& time);

// Reads 20260131, 20260131T090000 or 20260131T090000Z. False: it is none of them, or out of the store's years.
bool parse_time(const std::string& value, ZonedTime& time);

}  // namespace zr
