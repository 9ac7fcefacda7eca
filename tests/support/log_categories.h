#pragma once

// Categories of log records: which part of the library writes them, and how much they matter.

#include <cstdint>

namespace zr::test {

inline constexpr std::uint32_t kPhoneFailure = 0x680004;
inline constexpr std::uint32_t kPhoneWarning = 0x680008;
inline constexpr std::uint32_t kContactsFailure = 0x730004;
inline constexpr std::uint32_t kTimersFailure = 0x780004;
inline constexpr std::uint32_t kOutlookFailure = 0x840004;
inline constexpr std::uint32_t kTimeFailure = 0x880004;
inline constexpr std::uint32_t kTimeInformation = 0x880010;
inline constexpr std::uint32_t kConnectionsFailure = 0x940004;
inline constexpr std::uint32_t kConnectionsInformation = 0x940010;
inline constexpr std::uint32_t kConnectionsTrace = 0x940020;
inline constexpr std::uint32_t kContainersFailure = 0xA80004;
inline constexpr std::uint32_t kContainersInformation = 0xA80010;

}  // namespace zr::test
