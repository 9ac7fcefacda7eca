#pragma once

#include <atomic>

#include "platform/export.h"

namespace zr::platform {

// How many milliseconds the desktop's on-screen keyboard may take to answer. Tests make it longer, or shorter.
ZRPLATFORM_API extern std::atomic<int> keyboard_patience;

}  // namespace zr::platform
