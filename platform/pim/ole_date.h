#pragma once

#include "platform/types.h"

namespace zr::platform::pim {

// Days since 30 December 1899, the time of day as the fraction, and its parts; to the nearest second. False outside the
// years 100 to 9999 or when the parts are no date.
bool date_to_parts(DATE date, SYSTEMTIME& parts);
bool parts_to_date(const SYSTEMTIME& parts, DATE& date);
DATE today();  // the local day, at midnight

}  // namespace zr::platform::pim
