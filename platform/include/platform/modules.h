#pragma once

// Modules that are loaded at run time, and their versions.
//
// A module is a shared object. One line gives it a version, which is read from its file without loading it:
//
//     #include <platform/modules.h>
//     ZR_MODULE_VERSION(2, 1, 0, 417, 0)
//
// The version stands in an ELF note of the name "ZrUtility"; `readelf -n` shows it.
//
// Paths are handheld paths (platform/files.h). Threads: every call from any thread. Loading and unloading run the
// module's own code on the calling thread.

#include <cstddef>

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

using FARPROC = void (*)();

// The fixed part of a version.
struct VS_FIXEDFILEINFO {
    DWORD dwSignature;      // VS_FFI_SIGNATURE
    DWORD dwStrucVersion;   // VS_FFI_STRUCVERSION
    DWORD dwFileVersionMS;  // first and second number, 16 bits each
    DWORD dwFileVersionLS;  // third and fourth
    DWORD dwProductVersionMS;
    DWORD dwProductVersionLS;
    DWORD dwFileFlagsMask;
    DWORD dwFileFlags;  // VS_FF_
    DWORD dwFileOS;
    DWORD dwFileType;
    DWORD dwFileSubtype;
    DWORD dwFileDateMS;
    DWORD dwFileDateLS;
};
static_assert(sizeof(VS_FIXEDFILEINFO) == 52);

inline constexpr DWORD VS_FFI_SIGNATURE = 0xFEEF04BD;
inline constexpr DWORD VS_FFI_STRUCVERSION = 0x00010000;
inline constexpr DWORD VS_FFI_FILEFLAGSMASK = 0x0000003F;
inline constexpr DWORD VS_FF_DEBUG = 0x00000001;
inline constexpr DWORD VFT_DLL = 0x00000002;

// The note as it stands in a module.
struct ZrModuleVersionNote {
    DWORD nameSize;
    DWORD infoSize;
    DWORD type;  // kZrModuleVersionNote
    char name[12];
    VS_FIXEDFILEINFO info;
};
inline constexpr DWORD kZrModuleVersionNote = 1;

constexpr ZrModuleVersionNote zrModuleVersionNote(DWORD major, DWORD minor, DWORD build, DWORD revision, DWORD flags) {
    const DWORD high = (major << 16) | (minor & 0xFFFF);
    const DWORD low = (build << 16) | (revision & 0xFFFF);
    return {10,
            sizeof(VS_FIXEDFILEINFO),
            kZrModuleVersionNote,
            "ZrUtility",
            {VS_FFI_SIGNATURE, VS_FFI_STRUCVERSION, high, low, high, low, VS_FFI_FILEFLAGSMASK, flags, 0, VFT_DLL, 0, 0,
             0}};
}

// Gives the module that it stands in a version of four 16-bit numbers, and flags (VS_FF_DEBUG or 0). Once per module,
// at namespace scope.
#define ZR_MODULE_VERSION(major, minor, build, revision, flags)                                    \
    extern __attribute__((visibility("hidden"))) const ZrModuleVersionNote zr_module_version_note; \
    __attribute__((section(".note.zrutility.version"), used, aligned(4)))                          \
    const ZrModuleVersionNote zr_module_version_note =                                             \
        zrModuleVersionNote((major), (minor), (build), (revision), (flags));

// Loads a module; the same file twice is one module, to be freed twice. A name without a separator that is no file at
// the root is looked for where the host looks for libraries. NULL: ERROR_MOD_NOT_FOUND, ERROR_BAD_EXE_FORMAT (no
// shared object of this machine, or one that lacks something), ERROR_FILENAME_EXCED_RANGE, ERROR_INVALID_PARAMETER.
ZRPLATFORM_API HMODULE LoadLibraryW(LPCWSTR path);

// FALSE with ERROR_INVALID_HANDLE for what LoadLibraryW did not return, or what has been freed as often.
ZRPLATFORM_API BOOL FreeLibrary(HMODULE module);

// An exported function; the program's own for GetModuleHandleW(NULL). NULL: ERROR_PROC_NOT_FOUND, ERROR_INVALID_HANDLE.
ZRPLATFORM_API FARPROC GetProcAddressW(HMODULE module, LPCWSTR name);

// Writes the path of a module, of the program for NULL, and returns its length. A path that does not fit `size`
// characters with its NUL is cut: `size` is returned, with ERROR_INSUFFICIENT_BUFFER. 0: ERROR_INVALID_HANDLE, or
// ERROR_PATH_NOT_FOUND when the file lies outside the root.
ZRPLATFORM_API DWORD GetModuleFileNameW(HMODULE module, LPWSTR path, DWORD size);

// The size of the block that GetFileVersionInfoW writes; `*handle` becomes 0. 0: ERROR_RESOURCE_DATA_NOT_FOUND when the
// file has no version, ERROR_BAD_EXE_FORMAT when it is no ELF file or a damaged one, or why it cannot be read.
ZRPLATFORM_API DWORD GetFileVersionInfoSizeW(LPCWSTR path, LPDWORD handle);
// `handle` is ignored. FALSE: as above, or ERROR_INSUFFICIENT_BUFFER when `size` is smaller than the block.
ZRPLATFORM_API BOOL GetFileVersionInfoW(LPCWSTR path, DWORD handle, DWORD size, LPVOID block);
// Finds the fixed part, a VS_FIXEDFILEINFO, with the name "\"; it lies in the block. FALSE:
// ERROR_RESOURCE_TYPE_NOT_FOUND for other names, ERROR_INVALID_PARAMETER for what is no such block.
ZRPLATFORM_API BOOL VerQueryValueW(LPCVOID block, LPCWSTR name, LPVOID* value, UINT* size);
