#pragma once

// The device's time zone: TZ, else the system's zone file, as the C library reads them, with all that they know of the
// past and the future. The contact store keeps this zone's wall-clock time.

#include <chrono>
#include <string>
#include <vector>

#include "zr/icalendar/event.h"

namespace zr {

Moment device_time(std::chrono::sys_seconds utc);
// Of a time that a clock shows twice one of the two instants; of one that it skips an instant near it.
std::chrono::sys_seconds device_utc(Moment time);

// A name for the zone in calendars, such as "Europe/Berlin".
std::string device_zone_id();
// Whether the zone is UTC for ever.
bool device_is_utc();

// A change of the zone's offset from UTC.
struct ZoneChange {
    std::chrono::sys_seconds at;
    int before = 0;  // seconds east of UTC
    int after = 0;
    bool daylight = false;  // behind the change
    std::string name;       // behind it, such as "CEST"
};

// The changes from `from` on and before `to`.
std::vector<ZoneChange> zone_changes(std::chrono::sys_seconds from, std::chrono::sys_seconds to);

// Appends the zone as a VTIMEZONE that is right from `first_year` on. Where the zone follows no yearly rule its changes
// are listed one by one, up to the year 2100.
void append_device_vtimezone(std::string& out, int first_year);

}  // namespace zr
