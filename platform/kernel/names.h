#pragma once

#include "platform/base.h"

namespace zr::platform {

// Whether an object can be made under this name; sets the last error when not. Success leaves it ERROR_SUCCESS, by
// which a caller learns that it made the object and did not open one that was there.
inline bool may_be_named(LPCWSTR name) {
    const bool unnamed = !name || name[0] == u'\0';
    SetLastError(unnamed ? ERROR_SUCCESS : ERROR_NOT_SUPPORTED);
    return unnamed;
}

}  // namespace zr::platform
