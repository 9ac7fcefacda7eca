#include "zr/icalendar/libical.h"

namespace zr {
namespace {

bool load() {
    const LoadedLibrary library(ZR_ICAL_LIBRARY, "reading calendars needs the package libical3");
    ZR_ICAL_CALLS(ZR_FIND_LOADED_CALL)
    icalerror_set_errors_are_fatal(0);
    return true;
}

}  // namespace

ZR_ICAL_CALLS(ZR_LOADED_CALL_HERE)

void start_libical() {
    static const bool started = load();
    static_cast<void>(started);
}

}  // namespace zr
