#pragma once

// What the sources of WindowsUtilities write to the log.

#include "ZrLog/ZrLog.h"

inline constexpr const char* WINDOWS_UTILITIES_LOG_SOURCE = ".\\Helpers\\WindowsUtilities.cppzrwindowsmobile";
inline constexpr std::uint32_t WINDOWS_UTILITIES_LOG_FAILURE = zrLogCategory(0x88, kZrLogFailure);
inline constexpr std::uint32_t WINDOWS_UTILITIES_LOG_INFORMATION = zrLogCategory(0x88, kZrLogInformation);
