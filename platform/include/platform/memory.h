#pragma once

// Pages of memory: reserving addresses, and giving them memory.
//
// A page of a region is reserved (its addresses are taken, touching it is an access violation) or committed (there is
// memory behind it, zeroed at first). Pages are the host's; regions begin at multiples of 64 KiB, or of a page where
// that is more. All functions may be called from any thread, and are points at which TerminateThread ends a thread,
// except VirtualFree and those that only report.

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
inline constexpr DWORD MEM_FREE = 0x10000;
inline constexpr DWORD MEM_PRIVATE = 0x20000;
inline constexpr DWORD MEM_MAPPED = 0x40000;
inline constexpr DWORD MEM_TOP_DOWN = 0x100000;
inline constexpr DWORD MEM_IMAGE = 0x1000000;

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
//                            the region's end
//   ERROR_INVALID_ADDRESS    no region is there; MEM_RELEASE, or MEM_DECOMMIT with no size, elsewhere than at its base
//   ERROR_NOT_ENOUGH_MEMORY  the host could not keep account of the pages
ZRPLATFORM_API BOOL VirtualFree(LPVOID address, SIZE_T size, DWORD type);

// Changes what may be done with every page that holds one of `size` bytes at `address`, and writes to `*before` what
// the first of them allowed. All of them are committed and lie in one region, or one view of a file mapping, or one
// module; or else in one piece of memory that the host gave to somebody else in this process.
//
// FALSE on failure, and nothing has changed:
//   ERROR_NOACCESS           no `before`
//   ERROR_INVALID_PARAMETER  no size, no such protection; PAGE_WRITECOPY elsewhere than in a view
//   ERROR_INVALID_ADDRESS    not all of the pages are committed, or not in one piece
//   ERROR_ACCESS_DENIED      the file behind a view was not opened for that
//   ERROR_NOT_ENOUGH_MEMORY  the host could not keep account of the pages
//   ERROR_NOT_SUPPORTED      PAGE_GUARD
ZRPLATFORM_API BOOL VirtualProtect(LPVOID address, SIZE_T size, DWORD protection, PDWORD before);

struct MEMORY_BASIC_INFORMATION {
    PVOID BaseAddress;        // of the page
    PVOID AllocationBase;     // of the region, view or module; NULL where nothing is
    DWORD AllocationProtect;  // what the region was reserved with; 0 where nothing is
    SIZE_T RegionSize;        // bytes from BaseAddress on that are alike
    DWORD State;              // MEM_COMMIT, MEM_RESERVE, MEM_FREE
    DWORD Protect;            // PAGE_...; 0 for reserved pages, PAGE_NOACCESS where nothing is
    DWORD Type;               // MEM_PRIVATE, MEM_MAPPED (a view), MEM_IMAGE (a module); 0 where nothing is
};
using PMEMORY_BASIC_INFORMATION = MEMORY_BASIC_INFORMATION*;

// What is at an address, of whatever origin, and how far. Returns the size of what was written. 0 on failure:
// ERROR_BAD_LENGTH (`size` is too small), ERROR_NOACCESS (no place to write to), ERROR_INVALID_PARAMETER (no address of
// programs), or why the host's own list could not be read.
ZRPLATFORM_API SIZE_T VirtualQuery(LPCVOID address, PMEMORY_BASIC_INFORMATION information, SIZE_T size);

// --- The machine -----------------------------------------------------------------------------------------------------

inline constexpr WORD PROCESSOR_ARCHITECTURE_INTEL = 0;
inline constexpr WORD PROCESSOR_ARCHITECTURE_ARM = 5;
inline constexpr WORD PROCESSOR_ARCHITECTURE_AMD64 = 9;
inline constexpr WORD PROCESSOR_ARCHITECTURE_ARM64 = 12;
inline constexpr WORD PROCESSOR_ARCHITECTURE_UNKNOWN = 0xFFFF;
inline constexpr DWORD PROCESSOR_INTEL_PENTIUM = 586;
inline constexpr DWORD PROCESSOR_AMD_X8664 = 8664;

struct SYSTEM_INFO {
    WORD wProcessorArchitecture;
    WORD wReserved;
    DWORD dwPageSize;
    LPVOID lpMinimumApplicationAddress;
    LPVOID lpMaximumApplicationAddress;  // the last byte
    DWORD_PTR dwActiveProcessorMask;
    DWORD dwNumberOfProcessors;  // that are switched on
    DWORD dwProcessorType;       // 0 where there is no number for it
    DWORD dwAllocationGranularity;
    WORD wProcessorLevel;     // the family of an x86 processor, else 0
    WORD wProcessorRevision;  // its model and stepping, a byte each
};
using LPSYSTEM_INFO = SYSTEM_INFO*;

ZRPLATFORM_API void GetSystemInfo(LPSYSTEM_INFO information);
