#pragma once

// Names of members and their identifiers, the same for all objects of the process. Any thread.

#include <mutex>
#include <string>
#include <string_view>

#include "platform/com.h"

namespace zr::platform {

// Nobody is in the middle of a call while it is held.
extern std::mutex names_lock;

// DISPID_UNKNOWN when there are too many. The empty name is DISPID_VALUE. May throw std::bad_alloc.
DISPID id_of_name(std::u16string_view name);
// False: no name has that identifier.
bool name_of_id(DISPID id, std::u16string& name);

}  // namespace zr::platform
