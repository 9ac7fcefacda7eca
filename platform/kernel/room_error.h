#pragma once

#include <cerrno>

#include "base/host_error.h"
#include "platform/errors.h"

namespace zr::platform {

// What it is called that something could not be stored. A limit on the size of files leaves no more room than a full
// disk does.
inline DWORD room_error(int number) noexcept {
    return number == EFBIG ? ERROR_DISK_FULL : error_from_errno(number);
}

}  // namespace zr::platform
