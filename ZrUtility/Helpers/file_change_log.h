#pragma once

// How the file system monitor and its workers name themselves in the log.

#include "ZrLog/ZrLog.h"

inline constexpr const char* FILE_CHANGE_SOURCE = ".\\Helpers\\FileSystemMonitor.cppzrwindowsmobile";
inline constexpr std::uint32_t FILE_CHANGE_FAILURE = zrLogCategory(0x18, kZrLogFailure);
inline constexpr std::uint32_t FILE_CHANGE_WARNING = zrLogCategory(0x18, kZrLogWarning);
inline constexpr std::uint32_t FILE_CHANGE_INFORMATION = zrLogCategory(0x18, kZrLogInformation);
inline constexpr std::uint32_t FILE_CHANGE_TRACE = zrLogCategory(0x18, kZrLogTrace);
inline constexpr std::uint32_t FILE_CHANGE_PATH = FILE_CHANGE_TRACE | kZrLogBuffer;

// The lines by which readers of the log know these records.
inline constexpr int LINE_MONITOR_ENDED = 37;
inline constexpr int LINE_CLASS_IN_USE = 70;
inline constexpr int LINE_WORKER_BEGINS = 105;
inline constexpr int LINE_NOT_WATCHED = 110;
inline constexpr int LINE_WORKER_WOKEN = 133;
inline constexpr int LINE_CHANGES = 139;
inline constexpr int LINE_CHANGE = 160;
inline constexpr int LINE_ADDED = 172;
inline constexpr int LINE_REMOVED = 175;
inline constexpr int LINE_MODIFIED = 178;
inline constexpr int LINE_NO_OLD_NAME = 204;
inline constexpr int LINE_RENAMED = 212;
inline constexpr int LINE_WORKER_ENDS = 243;
inline constexpr int LINE_NO_LISTENER = 254;
inline constexpr int LINE_TOO_MANY_FOLDERS = 258;
inline constexpr int LINE_NO_CHILD_WINDOW = 303;
inline constexpr int LINE_NO_WINDOW = 309;
inline constexpr int LINE_CREATED_TOLD = 627;
inline constexpr int LINE_CHANGED_TOLD = 640;
inline constexpr int LINE_DELETED_TOLD = 653;
inline constexpr int LINE_FOLDER_DELETED_TOLD = 659;
inline constexpr int LINE_RENAMED_TOLD = 672;
inline constexpr int LINES_TO_PATH = 2;  // from the line of an event to that of its path
inline constexpr int LINE_COMMIT = 736;
inline constexpr int LINE_WINDOW_ENDED = 753;
