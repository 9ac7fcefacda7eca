#pragma once

#include "kernel/waitable.h"

namespace zr::platform {

// The object behind GetCurrentProcess: a wait for it lasts as long as the process, which is for ever.
Waitable& this_process() noexcept;

}  // namespace zr::platform
