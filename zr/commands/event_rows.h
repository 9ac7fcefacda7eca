#pragma once

// Fields for people, one in a row.

#include <string_view>

#include "zr/icalendar/event.h"

namespace zr {

void print_row(std::string_view label, std::string_view value);
// What a contact or an item keeps without a field for it.
void print_extras(std::string_view extras);

void print_fields(const EventFields& fields);

}  // namespace zr
