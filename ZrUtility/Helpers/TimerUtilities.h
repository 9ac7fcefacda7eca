#pragma once

#include "ZrUtility/Export.h"

// Calls that are made once, later, on the thread that asked for them.
//
// They come out of the thread's message loop: no call is made unless that thread pumps messages. There is one table of
// pending calls and no lock around it, so one thread of the process uses this class. A pending call cannot be taken
// back. When the library is unloaded the calls that are still pending are dropped; the thread that asked for them is
// the one to unload it then, because nobody else can end its timers.
class ZRUTILITY_API TimerUtilities {
public:
    // Has `function` called with `argument` in `delayMs` milliseconds or a little later; the shortest delay is one
    // millisecond, the longest 0x7FFFFFFF. The function may ask for further calls. A NULL function is not called.
    // False, with a record in the log, when there is no memory or no timer.
    static bool DelayedCall(void (*function)(void*), void* argument, unsigned int delayMs);

private:
    TimerUtilities() {}
};
