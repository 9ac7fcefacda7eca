#pragma once

#include <string_view>

#include "platform/types.h"

namespace zr::platform {

// The room that the platform's structures have for the name of a zone's time.
inline constexpr std::size_t kZoneNameRoom = 32;

// Cut if need be; filled up with NULs.
void copy_zone_name(std::string_view name, WCHAR (&out)[kZoneNameRoom]) noexcept;

}  // namespace zr::platform
