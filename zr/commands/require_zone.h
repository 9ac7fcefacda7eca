#pragma once

// The device's time zone, for commands that would be wrong by hours without one: a TZ that names no zone is taken for
// UTC by the C library.

#include <platform/platform.h>

#include <string>

namespace zr {

std::string zone_name();

// What GetTimeZoneInformation says; throws Failure when there is no zone.
DWORD require_zone(TIME_ZONE_INFORMATION& information);
void require_zone();

}  // namespace zr
