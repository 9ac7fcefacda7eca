#pragma once

#include <atomic>

#include "platform/export.h"

namespace zr::platform {

// How many milliseconds a telephone service may take to say what it knows, and a session waits for its requests at its
// end. Tests on a busy computer have more of it.
ZRPLATFORM_API extern std::atomic<int> voice_patience;

}  // namespace zr::platform
