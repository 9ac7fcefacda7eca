#pragma once

#include "platform/types.h"

namespace zr::platform {

// The byte of Windows-1252 that stands for a character which the code page does not have: a letter without its marks,
// the plain form of a sign. -1 when there is none.
int best_fit_1252(WCHAR character) noexcept;

}  // namespace zr::platform
