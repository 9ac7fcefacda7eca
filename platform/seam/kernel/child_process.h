#pragma once

// Processes that this one has started.

#include <sys/types.h>

#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

struct ChildHandles {
    HANDLE process = nullptr;
    HANDLE thread = nullptr;  // its main one's
};

// Handles to a child that was started just now, which from here on is waited for, and reaped, here. An error code; then
// the child runs on and is nobody's but the program's.
ZRPLATFORM_API DWORD adopt_child(pid_t child, ChildHandles& handles) noexcept;

}  // namespace zr::platform
