#pragma once

// File mappings: memory that several processes of the user see, or a file's contents as memory.
//
// Names are those of platform/kernel.h and share their name space. A named mapping over INVALID_HANDLE_VALUE lives as
// long as some process has a handle to it; when the last one is closed, by whatever end of its process, the name is
// free and the next creator finds fresh zeroes. A view lives on its own: it stays readable and writable, and shared
// with the other views of the same mapping, after every handle is closed, until it is unmapped or the process ends.
//
// All functions may be called from any thread, and are points at which TerminateThread ends a thread, except
// UnmapViewOfFile and FlushViewOfFile.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/memory.h"
#include "platform/types.h"

// With a page protection: how the memory is set aside. Pages are always committed when the mapping is made, so that a
// full disk shows then and not at a later access; SEC_RESERVE and SEC_NOCACHE are accepted and make no difference.
// SEC_RESERVE and SEC_COMMIT exclude each other, and SEC_NOCACHE needs one of them.
inline constexpr DWORD SEC_RESERVE = 0x04000000;
inline constexpr DWORD SEC_COMMIT = 0x08000000;
inline constexpr DWORD SEC_NOCACHE = 0x10000000;

inline constexpr DWORD FILE_MAP_COPY = 0x0001;
inline constexpr DWORD FILE_MAP_WRITE = 0x0002;
inline constexpr DWORD FILE_MAP_READ = 0x0004;
inline constexpr DWORD FILE_MAP_EXECUTE = 0x0020;
inline constexpr DWORD FILE_MAP_ALL_ACCESS = 0x000F001F;

// A new mapping of `size_high:size_low` bytes, over a file or, for INVALID_HANDLE_VALUE, over memory of its own that
// holds zeroes. With a name that exists already: the mapping of that name as it is, whatever size and protection are
// asked for (what this handle may map is bounded by both protections), and the last error is ERROR_ALREADY_EXISTS; a
// new mapping leaves ERROR_SUCCESS.
//
// `protection` is PAGE_READONLY, PAGE_READWRITE, PAGE_WRITECOPY or their PAGE_EXECUTE_ forms, with SEC_ flags. Over a
// file, size 0 is the file's size, and a larger one makes the file grow; the mapping and its views keep the file open,
// without any share mode once the file's handle is closed, and from being made shorter, renamed or deleted by this
// process (platform/files.h). Another process can still cut it short; touching what is gone is a fault then.
//
// NULL on failure:
//   ERROR_INVALID_PARAMETER  another protection, flag or combination of flags; no size without a file
//   ERROR_INVALID_HANDLE     the name is that of an event or a mutex; `file` is no open file
//   ERROR_ACCESS_DENIED      the file was not opened for what the protection allows
//   ERROR_FILE_INVALID       no size, and the file is empty
//   ERROR_NOT_ENOUGH_MEMORY  no memory; more than a file that may only be read holds; more than this machine can map
//   ERROR_DISK_FULL          no room for the contents; nothing is left behind
ZRPLATFORM_API HANDLE CreateFileMappingW(HANDLE file, SECURITY_ATTRIBUTES* attributes, DWORD protection,
                                         DWORD size_high, DWORD size_low, LPCWSTR name);

// A handle to the mapping of that name, for mapping it with `access`. NULL with ERROR_FILE_NOT_FOUND when there is
// none, ERROR_INVALID_HANDLE when the name is that of an event or a mutex, ERROR_INVALID_PARAMETER without a name.
ZRPLATFORM_API HANDLE OpenFileMappingW(DWORD access, BOOL inherit, LPCWSTR name);

// The address of a view of `size` bytes from `offset_high:offset_low` on; size 0 is everything to the end. The offset
// is a multiple of 64 KiB. The view may reach into the mapping's last page beyond its size, as far as that page goes.
// FILE_MAP_WRITE (FILE_MAP_ALL_ACCESS has it) lets read and write, FILE_MAP_READ read, FILE_MAP_COPY alone gives pages
// that are the process's own once they are written; FILE_MAP_EXECUTE lets run and read. Touching a page otherwise than
// the view allows is a fault.
//
// NULL on failure:
//   ERROR_INVALID_HANDLE    not an open mapping
//   ERROR_INVALID_PARAMETER no access asked for
//   ERROR_ACCESS_DENIED     the protection does not allow that access; not all of the view lies in the mapping
//   ERROR_MAPPED_ALIGNMENT  the offset is not a multiple of 64 KiB
//   ERROR_NOT_ENOUGH_MEMORY no room among the process's addresses
ZRPLATFORM_API LPVOID MapViewOfFile(HANDLE mapping, DWORD access, DWORD offset_high, DWORD offset_low, SIZE_T size);

// Ends the view that begins at `base`. FALSE with ERROR_INVALID_ADDRESS when none does.
ZRPLATFORM_API BOOL UnmapViewOfFile(LPCVOID base);

// Writes what was changed in `size` bytes (0: to the end of the view) from `base` on to the file behind the view.
// FALSE with ERROR_INVALID_ADDRESS when they are not in a view.
ZRPLATFORM_API BOOL FlushViewOfFile(LPCVOID base, SIZE_T size);
