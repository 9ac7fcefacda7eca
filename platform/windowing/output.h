#pragma once

// The output that a display server shows on.

#include "windowing/screen_facts.h"

namespace zr::platform {

// What WAYLAND_DISPLAY's server says of its output, else DISPLAY's. False where neither is set, or nobody answers
// within a second. Asked anew after some seconds; who asks meanwhile is told the same. Any thread.
bool find_output(ScreenFacts& facts) noexcept;

// Around a fork, and in its child, which asks for itself.
void lock_output() noexcept;
void unlock_output() noexcept;
void forget_output() noexcept;

}  // namespace zr::platform
