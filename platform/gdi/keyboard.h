#pragma once

// The desktop's on-screen keyboard, behind its D-Bus interface sm.puri.OSK0 on the session bus.

#include "gdi/keyboard.h"

namespace zr::platform {

// Whether it is up. False when none runs, or it does not answer: one that was silent is not asked again for a while.
bool read_keyboard(bool& up) noexcept;

// Has it come up or go. False as above.
bool show_keyboard(bool up) noexcept;

// From now on `told` is called when it comes up or goes, on the bus's thread; tries again where that could not be had.
void watch_keyboard(void (*told)(bool up) noexcept) noexcept;

// In a child made by fork, which watches for itself.
void forget_keyboard() noexcept;

}  // namespace zr::platform
