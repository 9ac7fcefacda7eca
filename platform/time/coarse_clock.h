#pragma once

// A clock that costs next to nothing and may be some milliseconds late.

#include <cstdint>

namespace zr::platform {

struct CoarseTime {
    std::uint64_t utc;  // as utc_now()
    // A number that stays the same for some milliseconds, never for more than kZoneFreshMilliseconds.
    std::uint64_t tick;
};
CoarseTime coarse_now() noexcept;

}  // namespace zr::platform
