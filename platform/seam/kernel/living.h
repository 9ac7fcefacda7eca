#pragma once

// Which process is meant, for as long as it lives.
//
// What a process notes down for others, and what means nothing once the process has ended (that it owns a call, that it
// still has to read a change), carries the process's mark. A mark is good among the processes that share the runtime
// directory, until the machine is switched off; a process identifier is neither: it is given out again.

#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

struct ProcessMark {
    ULONGLONG region = 0;  // among which processes
    ULONGLONG birth = 0;   // which one of them; 0: none

    friend bool operator==(const ProcessMark&, const ProcessMark&) = default;
};

// The calling process's. It takes a place among those that use named objects if it has none yet; false with the last
// error when it gets none (the errors of creating a named object). A forked child has another mark than its parent.
ZRPLATFORM_API bool mark_of_process(ProcessMark& mark) noexcept;

// Whether that process still lives. No, too, for a mark of processes that had nothing to do with those of now. Needs a
// place, like mark_of_process; without one everybody is taken to live, since nobody's facts may be swept away in error.
// A few loads.
ZRPLATFORM_API bool process_lives(const ProcessMark& mark) noexcept;

}  // namespace zr::platform
