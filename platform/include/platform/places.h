#pragma once

// Where windows are: their rectangles, their order, and points seen from one window or another.
//
// Nothing is shown, but every window has a place: a rectangle in the client area of its parent, or on the screen when
// it has none. Its client area is that rectangle, less one pixel on each side when it has WS_BORDER. Coordinates that
// would not fit 32 bits stay at the end of their range. What is said of the screen is screen.h's.
//
// Any thread may ask and move any window; a window is told of its new place on its own thread. Functions that fail say
// why through GetLastError: ERROR_INVALID_WINDOW_HANDLE for what is no window, ERROR_NOACCESS for no structure to fill.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

inline constexpr WPARAM SIZE_RESTORED = 0;

inline constexpr UINT SWP_NOSIZE = 0x0001;
inline constexpr UINT SWP_NOMOVE = 0x0002;
inline constexpr UINT SWP_NOZORDER = 0x0004;
inline constexpr UINT SWP_NOREDRAW = 0x0008;  // accepted, without effect, like the others without a word here
inline constexpr UINT SWP_NOACTIVATE = 0x0010;
inline constexpr UINT SWP_FRAMECHANGED = 0x0020;  // WM_SIZE is sent in any case
inline constexpr UINT SWP_SHOWWINDOW = 0x0040;
inline constexpr UINT SWP_HIDEWINDOW = 0x0080;

inline const HWND HWND_TOP = nullptr;
inline const HWND HWND_BOTTOM = reinterpret_cast<HWND>(static_cast<LONG_PTR>(1));
inline const HWND HWND_TOPMOST = reinterpret_cast<HWND>(static_cast<LONG_PTR>(-1));    // as HWND_TOP
inline const HWND HWND_NOTOPMOST = reinterpret_cast<HWND>(static_cast<LONG_PTR>(-2));  // as HWND_TOP

// The window's rectangle on the screen; the desktop's is the screen.
ZRPLATFORM_API BOOL GetWindowRect(HWND window, RECT* rectangle);
// The client area, whose left and top are 0.
ZRPLATFORM_API BOOL GetClientRect(HWND window, RECT* rectangle);

ZRPLATFORM_API BOOL ClientToScreen(HWND window, POINT* point);
ZRPLATFORM_API BOOL ScreenToClient(HWND window, POINT* point);
// From one client area to another; NULL and the desktop are the screen. Returns how far the points were moved, across
// in the low half and down in the high one; 0 also on failure, and then the points stay as they were.
ZRPLATFORM_API int MapWindowPoints(HWND from, HWND to, POINT* points, UINT count);

// Moves and sizes; a negative extent is 0. A window that came to another place, or size, gets WM_MOVE and WM_SIZE
// before the call returns: WM_MOVE with where its client area begins (in its parent's, or on the screen), WM_SIZE with
// SIZE_RESTORED and the extents of its client area.
ZRPLATFORM_API BOOL MoveWindow(HWND window, int x, int y, int width, int height, BOOL repaint);
// The same, without what the SWP_NO flags keep as it is; and puts the window behind the sibling `after`, before all of
// them (HWND_TOP) or behind all (HWND_BOTTOM). SWP_SHOWWINDOW and SWP_HIDEWINDOW set and take WS_VISIBLE, with
// WM_SHOWWINDOW. ERROR_INVALID_PARAMETER for an `after` that is no sibling.
ZRPLATFORM_API BOOL SetWindowPos(HWND window, HWND after, int x, int y, int width, int height, UINT flags);

// The first child with that identifier. NULL: ERROR_CONTROL_ID_NOT_FOUND.
ZRPLATFORM_API HWND GetDlgItem(HWND parent, int id);
// A window's identifier (GWL_ID). 0 may be one: on failure the last error is set.
ZRPLATFORM_API int GetDlgCtrlID(HWND window);
