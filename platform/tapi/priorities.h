#pragma once

#include <string>
#include <vector>

#include "platform/tapi.h"

namespace zr::platform {

// The applications in the order in which calls of a media mode are handed to them; those that are not named come
// behind. They may throw std::bad_alloc.
std::vector<std::u16string> priority_order(DWORD media_mode);
// Puts one in front, or takes it out. 0 or a LINEERR_...
LONG set_priority(const std::u16string& name, DWORD media_mode, bool first);

}  // namespace zr::platform
