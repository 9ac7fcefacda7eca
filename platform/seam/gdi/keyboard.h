#pragma once

#include <atomic>

#include "platform/export.h"

namespace zr::platform {

// How many milliseconds the desktop's on-screen keyboard may take to answer, and how long one that did not is left
// alone. Tests make them longer, or shorter.
ZRPLATFORM_API extern std::atomic<int> keyboard_patience;
ZRPLATFORM_API extern std::atomic<int> keyboard_rest;

}  // namespace zr::platform
