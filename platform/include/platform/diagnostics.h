#pragma once

// Counts of what is alive in this process, for tests and for programs that look for their own leaks.

#include "platform/export.h"
#include "platform/types.h"

enum class ZrLiveKind : int {
    Interfaces,  // COM objects that the platform made and that have references left
    Strings,     // BSTRs
    Windows,
    Handles,      // open kernel handles: events, mutexes, threads, searches
    HeapBlocks,   // HeapAlloc and LocalAlloc
    MapiBuffers,  // MAPIAllocateBuffer, and what messaging calls hand out in buffers
    DeviceContexts,
    GdiObjects,  // fonts, bitmaps, brushes, pens
};

// How many objects of a kind are alive now. Any thread; exact once other threads are quiet.
ZRPLATFORM_API LONGLONG ZrLiveObjects(ZrLiveKind kind);

// How often the host had no room for another notification of a changed file (fs.inotify.max_queued_events), so that the
// watched folders were read again instead: then what changed is still told, but not every step of it. Any thread.
ZRPLATFORM_API LONGLONG ZrFileChangeLosses();

// Fault injection for tests: the next `successes` allocations of HeapAlloc, HeapReAlloc, LocalAlloc and LocalReAlloc in
// this process succeed and every later one fails, until this is called with a negative number.
ZRPLATFORM_API void ZrFailHeapAfter(LONGLONG successes);

// For tests: from now on this process takes itself to run after another start of the computer, so that what the stores
// held in the host's memory counts as lost.
ZRPLATFORM_API void ZrPretendLaterBoot();
