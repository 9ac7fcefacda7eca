#pragma once

// What the host's error numbers are called on the handheld.

#include <cerrno>

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

// 0 for 0; ERROR_GEN_FAILURE for a number that has no better name.
ZRPLATFORM_API DWORD error_from_errno(int number) noexcept;

// What it is called that something could not be stored. A limit on the size of files leaves no more room than a full
// disk does.
inline DWORD room_error(int number) noexcept {
    return number == EFBIG ? ERROR_DISK_FULL : error_from_errno(number);
}

// The number whose text describes a system error code; 0 when there is none.
int errno_for_error(DWORD error) noexcept;

}  // namespace zr::platform
