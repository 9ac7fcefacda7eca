#pragma once

// Modules that are loaded at run time, their versions, and programs that are started.
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

// The address sanitizer of Clang would put what it watches behind it, which is no note.
#if defined(__clang__)
#define ZR_MODULE_NOTE_ALONE __attribute__((no_sanitize("address")))
#else
#define ZR_MODULE_NOTE_ALONE
#endif

// Gives the module that it stands in a version of four 16-bit numbers, and flags (VS_FF_DEBUG or 0). Once per module,
// at namespace scope.
#define ZR_MODULE_VERSION(major, minor, build, revision, flags)                                    \
    extern __attribute__((visibility("hidden"))) const ZrModuleVersionNote zr_module_version_note; \
    __attribute__((section(".note.zrutility.version"), used, aligned(4)))                          \
    ZR_MODULE_NOTE_ALONE const ZrModuleVersionNote zr_module_version_note =                        \
        zrModuleVersionNote((major), (minor), (build), (revision), (flags));

// Loads a module; the same file twice is one module, to be freed twice. A name without a separator that is no file at
// the root is looked for where the host looks for libraries. A path means the file that it names: what the host's
// loader would put in place of $ORIGIN, $LIB and $PLATFORM it does not. NULL: ERROR_MOD_NOT_FOUND, ERROR_BAD_EXE_FORMAT
// (no shared object of this machine, or one that lacks something), ERROR_FILENAME_EXCED_RANGE, ERROR_INVALID_PARAMETER.
ZRPLATFORM_API HMODULE LoadLibraryW(LPCWSTR path);

// LoadLibraryW. The path of LOAD_WITH_ALTERED_SEARCH_PATH says where the module is; what it is linked to is found as
// the module itself says. NULL as well: ERROR_INVALID_PARAMETER (a file, or unknown flags), ERROR_NOT_SUPPORTED for the
// two flags that would load a module without running its code, which the host cannot.
inline constexpr DWORD DONT_RESOLVE_DLL_REFERENCES = 0x00000001;
inline constexpr DWORD LOAD_LIBRARY_AS_DATAFILE = 0x00000002;
inline constexpr DWORD LOAD_WITH_ALTERED_SEARCH_PATH = 0x00000008;
ZRPLATFORM_API HMODULE LoadLibraryExW(LPCWSTR path, HANDLE file, DWORD flags);

// FALSE with ERROR_INVALID_HANDLE for what LoadLibraryW did not return, or what has been freed as often.
ZRPLATFORM_API BOOL FreeLibrary(HMODULE module);

// A function that the module itself exports, not one of the libraries that it is linked to; one of the program, which
// must have been linked to export it, for GetModuleHandleW(NULL). NULL: ERROR_PROC_NOT_FOUND, ERROR_INVALID_HANDLE.
ZRPLATFORM_API FARPROC GetProcAddressW(HMODULE module, LPCWSTR name);
// The same by a narrow name, and the wide one as other code spells it. A number below 0x10000 in the place of a name is
// an ordinal, of which a shared object has none: ERROR_PROC_NOT_FOUND.
ZRPLATFORM_API FARPROC GetProcAddressA(HMODULE module, LPCSTR name);
inline FARPROC GetProcAddress(HMODULE module, LPCSTR name) {
    return GetProcAddressA(module, name);
}
inline FARPROC GetProcAddress(HMODULE module, LPCWSTR name) {
    return GetProcAddressW(module, name);
}

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

// ---- Programs ----

struct PROCESS_INFORMATION {
    HANDLE hProcess;
    HANDLE hThread;
    DWORD dwProcessId;
    DWORD dwThreadId;
};
using PPROCESS_INFORMATION = PROCESS_INFORMATION*;
using LPPROCESS_INFORMATION = PROCESS_INFORMATION*;

struct STARTUPINFOW {
    DWORD cb;
    LPWSTR lpReserved;
    LPWSTR lpDesktop;
    LPWSTR lpTitle;
    DWORD dwX;
    DWORD dwY;
    DWORD dwXSize;
    DWORD dwYSize;
    DWORD dwXCountChars;
    DWORD dwYCountChars;
    DWORD dwFillAttribute;
    DWORD dwFlags;
    WORD wShowWindow;
    WORD cbReserved2;
    BYTE* lpReserved2;
    HANDLE hStdInput;
    HANDLE hStdOutput;
    HANDLE hStdError;
};
using LPSTARTUPINFOW = STARTUPINFOW*;

inline constexpr DWORD CREATE_NEW_CONSOLE = 0x00000010;  // accepted, without effect

// Starts a program: that of the path `image`, with the words of `command_line` as its arguments; or without `image`
// that of the first word of `command_line`, with the others. A program without a separator in its name that is no file
// at the root is looked for where the host looks for programs. Words are parted by spaces and tabs; quotes keep them
// together, and an odd number of backslashes in front of a quote makes it a character like any other. The program's own
// name is its argument 0.
//
// It has this process's environment, standard streams and folder, no other of its descriptors, and no signal blocked or
// ignored. The two handles are the caller's to close; that to its main thread is good for waits, GetExitCodeThread and
// GetThreadId. As on the handheld, attributes, environment and folder are NULL and `inherit` FALSE, else
// ERROR_INVALID_PARAMETER; `startup` is not looked at. FALSE, too: ERROR_INVALID_PARAMETER (no program named, nowhere
// to tell of it, unknown flags), ERROR_NOT_SUPPORTED (CREATE_SUSPENDED), ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND,
// ERROR_ACCESS_DENIED, ERROR_BAD_EXE_FORMAT, ERROR_FILENAME_EXCED_RANGE (too long a line), ERROR_TOO_MANY_OPEN_FILES,
// ERROR_NOT_ENOUGH_MEMORY.
ZRPLATFORM_API BOOL CreateProcessW(LPCWSTR image, LPCWSTR command_line, SECURITY_ATTRIBUTES* process_attributes,
                                   SECURITY_ATTRIBUTES* thread_attributes, BOOL inherit, DWORD flags,
                                   LPVOID environment, LPCWSTR folder, STARTUPINFOW* startup,
                                   PROCESS_INFORMATION* information);
