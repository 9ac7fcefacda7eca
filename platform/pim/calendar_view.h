#pragma once

#include "session.h"

namespace zr::platform::pim {

// The appointments and occurrences of series that meet a restriction, by their start. E_INVALIDARG: the restriction
// lets them start at any late time.
HRESULT make_calendar_view(const SessionRef& session, class Restriction restriction, IPOutlookItemCollection** items);

}  // namespace zr::platform::pim
