#pragma once

// The handheld's screen.

#include "platform/export.h"
#include "platform/types.h"

inline constexpr int SM_CXSCREEN = 0;
inline constexpr int SM_CYSCREEN = 1;

// The screen's width or height in pixels; 0 for any other index. ZR_SCREEN gives the size as WIDTHxHEIGHT, each 1 to
// 32767; without it, or when it is something else, the screen is 240 wide and 320 high. Any thread.
ZRPLATFORM_API int GetSystemMetrics(int index);
