#pragma once

// How the file system monitor and its workers name themselves in the log. The lines of their records are fixed.

#include "ZrLog/ZrLog.h"

inline constexpr const char* FILE_CHANGE_SOURCE = ".\\Helpers\\FileSystemMonitor.cppzrwindowsmobile";
inline constexpr std::uint32_t FILE_CHANGE_FAILURE = zrLogCategory(0x18, kZrLogFailure);
inline constexpr std::uint32_t FILE_CHANGE_WARNING = zrLogCategory(0x18, kZrLogWarning);
inline constexpr std::uint32_t FILE_CHANGE_INFORMATION = zrLogCategory(0x18, kZrLogInformation);
inline constexpr std::uint32_t FILE_CHANGE_TRACE = zrLogCategory(0x18, kZrLogTrace);
inline constexpr std::uint32_t FILE_CHANGE_PATH = FILE_CHANGE_TRACE | kZrLogBuffer;
