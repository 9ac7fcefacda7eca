#pragma once

// What is known of the screen.

#include "platform/export.h"

namespace zr::platform {

struct ScreenFacts {
    int width;  // pixels
    int height;
    int depth;        // bits of colour
    int dots_across;  // per inch
    int dots_down;
};

// What ZR_SCREEN says, or how it usually is. Any thread.
ZRPLATFORM_API ScreenFacts screen_facts() noexcept;

}  // namespace zr::platform
