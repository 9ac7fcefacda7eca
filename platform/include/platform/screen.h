#pragma once

// The handheld's screen, and sizes of what is on it.

#include "platform/export.h"
#include "platform/types.h"

inline constexpr int SM_CXSCREEN = 0;
inline constexpr int SM_CYSCREEN = 1;
inline constexpr int SM_CXVSCROLL = 2;
inline constexpr int SM_CYHSCROLL = 3;
inline constexpr int SM_CXBORDER = 5;
inline constexpr int SM_CYBORDER = 6;
inline constexpr int SM_CXICON = 11;
inline constexpr int SM_CYICON = 12;
inline constexpr int SM_CXFULLSCREEN = 16;  // nothing is taken off the screen
inline constexpr int SM_CYFULLSCREEN = 17;
inline constexpr int SM_CXSMICON = 49;
inline constexpr int SM_CYSMICON = 50;

// A width or height in pixels; 0 for an index that is not here. ZR_SCREEN gives the screen as WIDTHxHEIGHT, each 1 to
// 32767, with its dots per inch, 1 to 9600, as WIDTHxHEIGHT@DOTS. Without it, or when it is something else, the screen
// is the output of the display server that WAYLAND_DISPLAY or DISPLAY names (its primary or first one; 96 dots per inch
// where it does not know its size), looked at again every five seconds. Where there is none, or it says nothing within
// a second, the screen is 240 wide and 320 high at 96 dots per inch. Any thread.
ZRPLATFORM_API int GetSystemMetrics(int index);
