#pragma once

// What is known of the screen.

#include <atomic>

#include "platform/export.h"

namespace zr::platform {

struct ScreenFacts {
    int width;  // pixels
    int height;
    int depth;        // bits of colour
    int dots_across;  // per inch
    int dots_down;
};

// What ZR_SCREEN says; else what the display server says of its real output (WAYLAND_DISPLAY, DISPLAY), for which it
// has a second; else how it usually is. Any thread.
ZRPLATFORM_API ScreenFacts screen_facts() noexcept;

// How long it is told what a display server said before it is asked anew. Tests make it short.
ZRPLATFORM_API extern std::atomic<int> output_kept_milliseconds;

}  // namespace zr::platform
