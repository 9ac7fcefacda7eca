#pragma once

#include "platform/types.h"

namespace zr::platform {

// NULL and the empty text are no name.
inline bool is_name(LPCWSTR name) noexcept {
    return name && name[0] != u'\0';
}

}  // namespace zr::platform
