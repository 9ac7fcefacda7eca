#pragma once

// Rectangles of windows. The arithmetic stays within 32 bits at the ends of their range.

#include <algorithm>
#include <cstdint>
#include <limits>

#include "platform/types.h"

namespace zr::platform {

inline LONG to_coordinate(std::int64_t value) {
    using Limits = std::numeric_limits<LONG>;
    return static_cast<LONG>(std::clamp<std::int64_t>(value, Limits::min(), Limits::max()));
}

inline RECT make_place(int x, int y, int width, int height) {
    return {x, y, to_coordinate(std::int64_t{x} + std::max(width, 0)),
            to_coordinate(std::int64_t{y} + std::max(height, 0))};
}

inline LONG extent(LONG from, LONG to) {
    return to_coordinate(std::int64_t{to} - from);
}

// Sends WM_MOVE and WM_SIZE with the window's place.
void tell_place(HWND window, bool moved, bool sized);

}  // namespace zr::platform
