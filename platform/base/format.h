#pragma once

// The formatter behind every wide printf of the platform. What it understands is written in platform/base.h.

#include <cstdarg>

#include "platform/types.h"

namespace zr::platform {

struct Formatted {
    std::size_t length = 0;  // characters stored
    bool complete = true;    // false when the capacity ended the output
};

// Stores at most `capacity` characters and no terminator. Never allocates.
Formatted format_wide(WCHAR* buffer, std::size_t capacity, const WCHAR* format, va_list arguments);

}  // namespace zr::platform
