#pragma once

// The window through which a session's thread is told to look for messages.

#include "platform/tapi.h"
#include "platform/windowing.h"

namespace zr::platform {

inline constexpr UINT kLookMessage = WM_USER + 1;  // wparam: the session

// Of the calling thread; NULL with the last error.
HWND make_session_window();
// Of any thread.
void end_session_window(HWND window, DWORD thread);

}  // namespace zr::platform
