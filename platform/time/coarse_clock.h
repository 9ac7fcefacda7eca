#pragma once

// Clocks that cost next to nothing and may be some milliseconds late.

#include <cstdint>

namespace zr::platform {

std::uint64_t coarse_utc_now() noexcept;  // as utc_now()
// A number that stays the same for some milliseconds, never for more than kZoneFreshMilliseconds.
std::int64_t coarse_tick() noexcept;

}  // namespace zr::platform
