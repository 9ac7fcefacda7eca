#pragma once

// Numbers that times are made of.

#include <chrono>
#include <cstdint>

#include "platform/types.h"

namespace zr::platform {

inline constexpr std::int64_t kUnitsPerMillisecond = 10'000;
inline constexpr std::int64_t kUnitsPerSecond = 10'000'000;
inline constexpr std::int64_t kSecondsPerDay = 86'400;
inline constexpr std::int64_t kMillisecondsPerDay = kSecondsPerDay * 1000;

// 1 January 1601, where file times begin, and 30 December 1899, where OLE dates do.
inline constexpr std::chrono::sys_days kFileTimeDay = std::chrono::year(1601) / 1 / 1;
inline constexpr std::chrono::sys_days kOleDay = std::chrono::year(1899) / 12 / 30;

// Seconds from 1601 to 1970.
inline constexpr std::int64_t kEpochSeconds = -kFileTimeDay.time_since_epoch().count() * kSecondsPerDay;

constexpr std::uint64_t units_of(const FILETIME& time) noexcept {
    return std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

constexpr FILETIME file_time_of(std::uint64_t units) noexcept {
    return {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
}

// The greatest units that file times are converted of.
inline constexpr std::uint64_t kLastUnits = INT64_MAX;

}  // namespace zr::platform
