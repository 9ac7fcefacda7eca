#pragma once

// How most of the platform's functions fail: with the thread's last error, and a result that says so.

#include "platform/base.h"

namespace zr::platform {

// Sets the last error and returns `result`.
template <class Result>
Result fail(DWORD error, Result result) noexcept {
    SetLastError(error);
    return result;
}

}  // namespace zr::platform
