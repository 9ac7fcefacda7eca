#pragma once

// The user's named objects: a list for tools and for tests.

#include "platform/export.h"
#include "platform/types.h"

enum class ZrNamedObjectKind : int { Event, Mutex, FileMapping, Semaphore, Timer };

// One named object at one instant. The pointers are good until the visitor returns.
struct ZrNamedObject {
    LPCWSTR Name;  // terminated; NameLength counts the units in front, of which none is 0
    DWORD NameLength;
    ZrNamedObjectKind Kind;
    BOOL ManualReset;    // of an event or a timer
    BOOL Signalled;      // an event that is set; a mutex that is free; a semaphore that counts more than 0
    BOOL Abandoned;      // a free mutex whose last owner ended without releasing it
    DWORD OwnerProcess;  // who owns the mutex now: process and thread identifiers, 0 when it is free
    DWORD OwnerThread;
    ULONGLONG Size;    // of a mapping, in bytes as asked for; 0 for the others
    DWORD Protection;  // of a mapping: PAGE_...
    LONG Count;        // of a semaphore, and how much it may count; 0 for the others
    LONG MaximumCount;
    const DWORD* Processes;  // identifiers of the processes that have it open, ascending
    DWORD ProcessCount;
};

// FALSE ends the enumeration.
using ZrNamedObjectVisitor = BOOL (*)(const ZrNamedObject* object, LPVOID context);

// Calls the visitor for each of the user's named objects, in the order of their names (by unit), as they were at one
// instant. Objects that only killed processes had open are not there, and what they left behind is cleared away. No
// lock is held while the visitor runs: it may call the platform. Does not make the runtime directory's files when they
// are not there: then there is no object.
// FALSE on failure: ERROR_NOT_ENOUGH_MEMORY, ERROR_ACCESS_DENIED (the runtime directory is not the user's own).
// TRUE also when the visitor ended it.
ZRPLATFORM_API BOOL ZrEnumNamedObjects(ZrNamedObjectVisitor visitor, LPVOID context);
