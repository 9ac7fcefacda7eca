#pragma once

// What the host's error numbers are called on the handheld.

#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

// 0 for 0; ERROR_GEN_FAILURE for a number that has no better name.
ZRPLATFORM_API DWORD error_from_errno(int number) noexcept;

// The number whose text describes a system error code; 0 when there is none.
int errno_for_error(DWORD error) noexcept;

}  // namespace zr::platform
