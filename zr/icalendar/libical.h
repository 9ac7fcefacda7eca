#pragma once

// libical as the calendars' room uses it. For its sources only.

#include <libical/ical.h>

#include "zr/base/loaded_library.h"

// clang-format off
#define ZR_ICAL_CALLS(CALL)                                                                                           \
    CALL(icalcomponent_free) CALL(icalcomponent_get_first_component) CALL(icalcomponent_get_first_property)           \
    CALL(icalcomponent_get_next_component) CALL(icalcomponent_get_next_property) CALL(icalcomponent_isa)              \
    CALL(icaldurationtype_from_string) CALL(icaldurationtype_is_bad_duration)                                         \
    CALL(icalerror_set_errors_are_fatal) CALL(icalparser_parse_string) CALL(icalproperty_get_rrule)                   \
    CALL(icalrecur_iterator_free) CALL(icalrecur_iterator_new) CALL(icalrecur_iterator_next)                          \
    CALL(icalrecurrencetype_day_day_of_week) CALL(icalrecurrencetype_day_position)                                    \
    CALL(icalrecurrencetype_from_string) CALL(icaltime_from_string) CALL(icaltime_is_null_time)                       \
    CALL(icaltime_is_utc) CALL(icaltime_null_time) CALL(icaltimezone_free)                                            \
    CALL(icaltimezone_get_builtin_timezone) CALL(icaltimezone_get_builtin_timezone_from_tzid)                         \
    CALL(icaltimezone_get_utc_offset) CALL(icaltimezone_get_utc_offset_of_utc_time) CALL(icaltimezone_new)            \
    CALL(icaltimezone_set_component)
// clang-format on

namespace zr {

ZR_ICAL_CALLS(ZR_LOADED_CALL)

// To be called before anything else of libical's; any thread, any number of times. Throws Failure (StoreFailed) where
// the library is not there.
void start_libical();

}  // namespace zr
