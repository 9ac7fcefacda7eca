#pragma once

// Pages of memory: reserving addresses, and giving them memory.
//
// A page of a region is reserved (its addresses are taken, touching it is an access violation) or committed (there is
// memory behind it, zeroed at first). Pages are the host's; regions begin at multiples of 64 KiB, or of a page where
// that is more. All functions may be called from any thread, and are points at which TerminateThread ends a thread,
// except VirtualFree.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

// What may be done with committed pages, and with the views of a file mapping. One of these ...
inline constexpr DWORD PAGE_NOACCESS = 0x01;
inline constexpr DWORD PAGE_READONLY = 0x02;
inline constexpr DWORD PAGE_READWRITE = 0x04;
inline constexpr DWORD PAGE_WRITECOPY = 0x08;
inline constexpr DWORD PAGE_EXECUTE = 0x10;
inline constexpr DWORD PAGE_EXECUTE_READ = 0x20;
inline constexpr DWORD PAGE_EXECUTE_READWRITE = 0x40;
inline constexpr DWORD PAGE_EXECUTE_WRITECOPY = 0x80;
// ... with any of these.
inline constexpr DWORD PAGE_GUARD = 0x100;
inline constexpr DWORD PAGE_NOCACHE = 0x200;
inline constexpr DWORD PAGE_WRITECOMBINE = 0x400;

inline constexpr DWORD MEM_COMMIT = 0x1000;
inline constexpr DWORD MEM_RESERVE = 0x2000;
inline constexpr DWORD MEM_DECOMMIT = 0x4000;
inline constexpr DWORD MEM_RELEASE = 0x8000;
inline constexpr DWORD MEM_TOP_DOWN = 0x100000;

// MEM_RESERVE takes a new region, of `size` rounded up to whole pages: anywhere for a NULL address, else at `address`
// rounded down to where a region may begin. MEM_COMMIT gives memory to the pages of `size` bytes at `address`, which
// lie in one region; those that have it already keep their contents and take the new protection. Both together, or
// MEM_COMMIT with a NULL address, do both. MEM_TOP_DOWN is accepted and makes no difference.
//
// `protection` is PAGE_NOACCESS, READONLY, READWRITE, EXECUTE, EXECUTE_READ or EXECUTE_READWRITE; pages that are only
// reserved cannot be touched whatever it says. PAGE_NOCACHE and PAGE_WRITECOMBINE are accepted, one of them and not
// with PAGE_NOACCESS, and make no difference.
//
// Returns the region's base, or the first byte's page when only committing. NULL on failure, and nothing has changed:
//   ERROR_INVALID_PARAMETER  no size, more than the addresses after `address`, unknown flags, no such protection
//   ERROR_INVALID_ADDRESS    the addresses are taken (reserving), or are not all in one region (committing)
//   ERROR_NOT_ENOUGH_MEMORY  no room, or no memory
//   ERROR_NOT_SUPPORTED      PAGE_GUARD
ZRPLATFORM_API LPVOID VirtualAlloc(LPVOID address, SIZE_T size, DWORD type, DWORD protection);

// MEM_DECOMMIT takes the memory from every page that holds one of `size` bytes at `address`, all in one region, and
// leaves the addresses reserved; pages that had none are no error. A `size` of 0 at the region's base is the whole
// region. MEM_RELEASE gives back a whole region: `address` is its base and `size` is 0.
//
// FALSE on failure, and nothing has changed:
//   ERROR_INVALID_PARAMETER  neither or both of the two types, or others; MEM_RELEASE with a size; MEM_DECOMMIT beyond
//                            the region's end, or with no size elsewhere than at its base
//   ERROR_INVALID_ADDRESS    no region is there; MEM_RELEASE elsewhere than at its base
//   ERROR_NOT_ENOUGH_MEMORY  the host could not keep account of the pages
ZRPLATFORM_API BOOL VirtualFree(LPVOID address, SIZE_T size, DWORD type);
