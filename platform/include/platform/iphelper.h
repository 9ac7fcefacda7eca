#pragma once

// Changes of this computer's addresses.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/files.h"
#include "platform/types.h"

// Gives a handle that is signalled when an IPv4 or IPv6 address of this computer comes or goes, from this call on, and
// is reset by the wait that it ends: so it can be waited for again and again, and what happens between two waits ends
// the next one. Changes close together may be told once. Nothing is missed: when more happens than the kernel keeps,
// the addresses are read again and compared. An address counts once it can be used. What is watched is the network
// namespace of the process's first call. Close the handle with CloseHandle. A forked child is told of its parent's
// handles from its first wait on.
//
// Without a handle the call itself returns when there is a change. NO_ERROR; ERROR_INVALID_PARAMETER: `overlapped` is
// not NULL; ERROR_NOT_ENOUGH_MEMORY, ERROR_TOO_MANY_OPEN_FILES or what else kept it from watching, with *handle NULL.
// Any thread.
ZRPLATFORM_API DWORD NotifyAddrChange(HANDLE* handle, OVERLAPPED* overlapped);
