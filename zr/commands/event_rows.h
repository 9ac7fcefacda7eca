#pragma once

// Fields for people, one in a row.

#include <string_view>

#include "zr/icalendar/event.h"

namespace zr {

void print_row(std::string_view label, std::string_view value);
// Lines that a contact or an item keeps, each in a row of its own; the beginning of long ones.
void print_kept(std::string_view label, std::string_view lines);

void print_fields(const EventFields& fields);

}  // namespace zr
