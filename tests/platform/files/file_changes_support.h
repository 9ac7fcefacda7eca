#pragma once

// What the tests of change notifications watch for, and how long they wait for what must come.

#include "platform/file_changes.h"

namespace zr::test {

inline constexpr DWORD kNames = FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME;
inline constexpr DWORD kSoon = 10000;

}  // namespace zr::test
