#pragma once

// The platform's own window classes, which every program may make windows of.

#include "desktop.h"

namespace zr::platform {

// Enters them, once. Without the desktop's lock. May throw std::bad_alloc.
void add_system_classes(Desktop& desktop);

// Their procedures.
LRESULT tab_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam);
LRESULT dialog_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam);

}  // namespace zr::platform
