#pragma once

// A zone as a TIME_ZONE_INFORMATION says it: one rule of two dates, made of the year that it is now.

#include <cstdint>

#include "platform/time.h"
#include "time/zone.h"

namespace zr::platform {

struct ZoneNow {
    TIME_ZONE_INFORMATION information{};
    DWORD id = TIME_ZONE_ID_UNKNOWN;
    LONG bias = 0;          // in force, in minutes
    std::int64_t from = 0;  // from this second until before that one all of this holds
    std::int64_t until = 0;
};

ZoneNow zone_now(const Zone& zone, std::int64_t second);

}  // namespace zr::platform
