#pragma once

// Appointments and tasks as iCalendar, for any program to read: CR LF, lines folded at 75 bytes between characters,
// UTF-8. Times are the device's, with its zone.

#include <chrono>
#include <string>

#include "zr/icalendar/event.h"

namespace zr {

class CalendarWriter {
public:
    // `first_year`: from which on times will be written. `now`: when that is.
    CalendarWriter(int first_year, std::chrono::sys_seconds now);

    // Append to `out`: what begins and ends a calendar, and what stands between. Items without a uid need one.
    void begin(std::string& out) const;
    void write(const Event& event, std::string& out) const;
    void write(const Task& task, std::string& out) const;
    static void end(std::string& out);

private:
    class Component;

    bool utc_;
    std::string zone_;  // the parameter that names it, or nothing
    int first_year_;
    std::chrono::sys_seconds now_;
};

}  // namespace zr
