#pragma once

// What the thread of a process that sees to named objects (session.h) does for named timers.

#include "kernel/waitable.h"

namespace zr::platform::named {

class Session;

// Signals those that are due of the timers that this process has open; when the next one is by the clock that nobody
// sets. For those by the other clock the alarm is set.
Deadline expire_named_timers(Session& session) noexcept;

// Has that thread look at them again: one may be due by the other clock.
void look_at_timers() noexcept;

}  // namespace zr::platform::named
