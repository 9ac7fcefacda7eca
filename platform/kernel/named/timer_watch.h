#pragma once

namespace zr::platform::named {

// Sees to it that this process signals the named timers that it has open. False with the last error when no thread can
// be had for that.
bool watch_timers() noexcept;

}  // namespace zr::platform::named
