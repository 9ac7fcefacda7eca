#pragma once

// The threads that wait for changes in one folder each and send them to a window as the shell would.

#include "platform/types.h"

// Starts one on a copy of the folder's path, which holds less than MAX_PATH characters. Its identifier, or 0 with the
// last error set. It runs until its wait fails with no WM_QUIT in its queue; one that is still there when the library
// is unloaded is ended then.
DWORD StartFileChangeWorker(const WCHAR* directory, HWND window);
