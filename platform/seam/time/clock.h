#pragma once

// The realtime clock, as the whole platform reads it.

#include <cstdint>

#include "platform/export.h"

namespace zr::platform {

// 100-nanosecond units since 1601, UTC.
ZRPLATFORM_API std::uint64_t utc_now() noexcept;

// Puts another clock in the place of the realtime clock, for tests that need another day; null puts the real one back.
using UtcClock = std::uint64_t (*)() noexcept;
ZRPLATFORM_API void use_clock(UtcClock clock) noexcept;

}  // namespace zr::platform
