#pragma once

// The device's zone now. Any thread.

#include <cstdint>
#include <functional>

#include "platform/types.h"
#include "zone_source.h"
#include "zone_year.h"

namespace zr::platform {

// A change of the zone's file is noticed within this time, and a change of the environment at once.
inline constexpr int kZoneFreshMilliseconds = 20;

struct CurrentZone {
    DWORD error = 0;  // why there is no zone
    ZoneNow now{};
};

// Good until the calling thread's next call.
const CurrentZone& current_zone() noexcept;

// Calls `use` with the zone's data while nobody changes them. An error code, or 0. What `use` throws passes through.
DWORD with_zone(const std::function<void(const Zone&)>& use);

// At a fork.
void lock_zone() noexcept;
void unlock_zone() noexcept;

}  // namespace zr::platform
