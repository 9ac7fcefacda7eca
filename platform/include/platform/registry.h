#pragma once

// The registry: trees of keys with typed values, shared by all of the user's programs and kept in ZR_HOME/registry.db.
//
//     HKEY key = nullptr;
//     if (RegCreateKeyExW(HKEY_CURRENT_USER, u"Software\\Example", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
//                         nullptr) == ERROR_SUCCESS) {
//         const DWORD port = 8080;
//         RegSetValueExW(key, u"Port", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&port), sizeof port);
//         RegFlushKey(key);   // from here on not even a power cut loses it
//         RegCloseKey(key);
//     }
//
// Names. Keys and values are found ignoring case (as _wcsicmp compares) and keep the spelling they were made with. A
// name is 1 to 255 UTF-16 units, any but NUL and, in a key's, the backslash; a value may also have the empty name (NULL
// means the same): the key's default value. A path is names joined by backslashes; empty parts of it (a backslash at
// its front or end, two in a row) are passed over. NULL and "" are the key itself. The roots are four trees of their
// own. A key lies at most 512 levels deep.
//
// Data is bytes, up to 16 MiB, and comes back exactly as it was given; the type is a number that the registry keeps and
// does not interpret. Texts are stored with the size that the caller states, terminator or not. Sizes of data are in
// bytes; sizes of names in characters.
//
// What a call does is done, and seen by every program, when it returns; a program killed in the middle leaves the
// registry as it was before or after the call. What a power cut leaves is the registry as it was at some moment after
// the last RegFlushKey of any program, or at it.
//
// Results. ERROR_SUCCESS unless stated.
//   ERROR_INVALID_HANDLE     the key's handle is not open
//   ERROR_INVALID_PARAMETER  an output pointer that must not be NULL is; a reserved argument is not 0; a name or
//                            data is too long; a path too deep
//   ERROR_FILE_NOT_FOUND     there is no such key or value
//   ERROR_MORE_DATA          a buffer is too small; the size needed is reported
//   ERROR_NO_MORE_ITEMS      the index is past the last one
//   ERROR_KEY_DELETED        the handle's key was deleted, by whomever; only RegCloseKey still works on it. A key made
//                            later under the same name is another one.
//   ERROR_ACCESS_DENIED      a root cannot be deleted; or the store's files may not be used
//   ERROR_DISK_FULL, ERROR_NOT_ENOUGH_MEMORY, ERROR_TOO_MANY_OPEN_FILES, ERROR_BUSY (another program kept the store
//   locked for more than five seconds), ERROR_REGISTRY_IO_FAILED, ERROR_REGISTRY_CORRUPT (the store is damaged; the
//   next call of any program sets it aside and begins anew), ERROR_REVISION_MISMATCH (a newer version wrote the store):
//   the registry is as it was before the call. ZrRegistryLastErrorText says more.
// The last error (GetLastError) is left alone but by the three functions of the change notifications.
//
// Access rights are taken and not looked at: a user's registry is the user's own.
//
// Threads: every call from any thread. Processes: any number. A child made by fork goes on with its parent's handles.
// The folder is looked for at a process's first call; a later change of ZR_HOME has no effect on it.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

#define HKEY_CLASSES_ROOT (reinterpret_cast<HKEY>(static_cast<LONG_PTR>(static_cast<LONG>(0x80000000u))))
#define HKEY_CURRENT_USER (reinterpret_cast<HKEY>(static_cast<LONG_PTR>(static_cast<LONG>(0x80000001u))))
#define HKEY_LOCAL_MACHINE (reinterpret_cast<HKEY>(static_cast<LONG_PTR>(static_cast<LONG>(0x80000002u))))
#define HKEY_USERS (reinterpret_cast<HKEY>(static_cast<LONG_PTR>(static_cast<LONG>(0x80000003u))))

using REGSAM = DWORD;

inline constexpr DWORD REG_NONE = 0;
inline constexpr DWORD REG_SZ = 1;
inline constexpr DWORD REG_EXPAND_SZ = 2;
inline constexpr DWORD REG_BINARY = 3;
inline constexpr DWORD REG_DWORD = 4;
inline constexpr DWORD REG_DWORD_LITTLE_ENDIAN = 4;
inline constexpr DWORD REG_DWORD_BIG_ENDIAN = 5;
inline constexpr DWORD REG_LINK = 6;
inline constexpr DWORD REG_MULTI_SZ = 7;
inline constexpr DWORD REG_RESOURCE_LIST = 8;
inline constexpr DWORD REG_FULL_RESOURCE_DESCRIPTOR = 9;
inline constexpr DWORD REG_RESOURCE_REQUIREMENTS_LIST = 10;
inline constexpr DWORD REG_QWORD = 11;
inline constexpr DWORD REG_QWORD_LITTLE_ENDIAN = 11;
inline constexpr DWORD REG_MUI_SZ = 21;

inline constexpr DWORD REG_OPTION_NON_VOLATILE = 0;
inline constexpr DWORD REG_OPTION_VOLATILE = 1;

inline constexpr DWORD REG_CREATED_NEW_KEY = 1;
inline constexpr DWORD REG_OPENED_EXISTING_KEY = 2;

inline constexpr REGSAM KEY_QUERY_VALUE = 0x0001;
inline constexpr REGSAM KEY_SET_VALUE = 0x0002;
inline constexpr REGSAM KEY_CREATE_SUB_KEY = 0x0004;
inline constexpr REGSAM KEY_ENUMERATE_SUB_KEYS = 0x0008;
inline constexpr REGSAM KEY_NOTIFY = 0x0010;
inline constexpr REGSAM KEY_CREATE_LINK = 0x0020;
inline constexpr REGSAM KEY_READ = 0x20019;
inline constexpr REGSAM KEY_WRITE = 0x20006;
inline constexpr REGSAM KEY_EXECUTE = 0x20019;
inline constexpr REGSAM KEY_ALL_ACCESS = 0xF003F;

// ---- keys ----------------------------------------------------------------------------------------------------------

// A new handle to the key at `path` below `key`. `options` and `access` are not looked at. On failure *opened is NULL.
// Close the handle with RegCloseKey.
ZRPLATFORM_API LONG RegOpenKeyExW(HKEY key, LPCWSTR path, DWORD options, REGSAM access, HKEY* opened);

// The same, making every key of the path that is not there yet; on failure *opened is left alone. The last one gets the
// class when it is made now (NULL: none; up to 255 characters). `options`, `access` and `security` are not looked at:
// every key is kept. `disposition` may be NULL.
ZRPLATFORM_API LONG RegCreateKeyExW(HKEY key, LPCWSTR path, DWORD reserved, LPCWSTR key_class, DWORD options,
                                    REGSAM access, const SECURITY_ATTRIBUTES* security, HKEY* opened,
                                    DWORD* disposition);

// A root may be "closed" and stays open.
ZRPLATFORM_API LONG RegCloseKey(HKEY key);

// Deletes the key at `path` with everything below it, as one step; "" deletes `key` itself. ERROR_INVALID_PARAMETER for
// NULL. Open handles do not keep it from going.
ZRPLATFORM_API LONG RegDeleteKeyW(HKEY key, LPCWSTR path);

// Returns when everything that was done up to now, by any program, is on the disk.
ZRPLATFORM_API LONG RegFlushKey(HKEY key);

// The sub-key at position `index`; positions go by name and move when keys come and go. *name_chars is the buffer's
// size with room for the terminator, and then the name's length without it; with ERROR_MORE_DATA the size needed.
// Nothing beyond name and terminator is written, however large a size is stated. The class (both pointers, or NULL for
// both) likewise. `written` becomes 0, as the registry keeps no times.
ZRPLATFORM_API LONG RegEnumKeyExW(HKEY key, DWORD index, LPWSTR name, DWORD* name_chars, DWORD* reserved,
                                  LPWSTR key_class, DWORD* class_chars, FILETIME* written);

// Counts and sizes; every pointer may be NULL. Lengths are in characters without terminator, of data in bytes; the
// class as in RegEnumKeyExW, but that its length is told without terminator with ERROR_MORE_DATA too, and that all else
// is told then. `security_size` and `written` become 0.
ZRPLATFORM_API LONG RegQueryInfoKeyW(HKEY key, LPWSTR key_class, DWORD* class_chars, DWORD* reserved, DWORD* sub_keys,
                                     DWORD* longest_sub_key, DWORD* longest_class, DWORD* values,
                                     DWORD* longest_value_name, DWORD* largest_data, DWORD* security_size,
                                     FILETIME* written);

// ---- values --------------------------------------------------------------------------------------------------------

// `type`, and `data` with `size`, may be NULL. *size is the buffer's size in bytes, then the data's, also with
// ERROR_MORE_DATA: then nothing was written to the buffer. Without a buffer the size is reported.
ZRPLATFORM_API LONG RegQueryValueExW(HKEY key, LPCWSTR name, DWORD* reserved, DWORD* type, BYTE* data, DWORD* size);

// `data` may be NULL when `size` is 0. A value of that name is replaced, its spelling stays. One that has that type and
// data already is not changed, and nobody is notified.
ZRPLATFORM_API LONG RegSetValueExW(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size);

ZRPLATFORM_API LONG RegDeleteValueW(HKEY key, LPCWSTR name);

// The value at position `index`; positions go by name, the default value is the first. Name as in RegEnumKeyExW; type,
// data and size as in RegQueryValueExW. When only the data does not fit, the name is there.
ZRPLATFORM_API LONG RegEnumValueW(HKEY key, DWORD index, LPWSTR name, DWORD* name_chars, DWORD* reserved, DWORD* type,
                                  BYTE* data, DWORD* size);

// ---- change notifications ------------------------------------------------------------------------------------------

inline constexpr DWORD REG_NOTIFY_CHANGE_NAME = 0x1;        // sub-keys come and go
inline constexpr DWORD REG_NOTIFY_CHANGE_ATTRIBUTES = 0x2;  // never reported: keys have none
inline constexpr DWORD REG_NOTIFY_CHANGE_LAST_SET = 0x4;    // values are set or deleted
inline constexpr DWORD REG_NOTIFY_CHANGE_SECURITY = 0x8;    // never reported

// A handle to wait for that is signalled when the key, with `subtree` anything below it as well, changes in one of the
// ways of `filter`, by whichever program. INVALID_HANDLE_VALUE on failure, with the last error.
ZRPLATFORM_API HANDLE CeFindFirstRegChange(HKEY key, BOOL subtree, DWORD filter);
// Arms the handle again; it is signalled at once if there was a change since it was signalled. FALSE on failure, with
// the last error.
ZRPLATFORM_API BOOL CeFindNextRegChange(HANDLE changes);
ZRPLATFORM_API BOOL CeFindCloseRegChange(HANDLE changes);

// ---- this system's additions ---------------------------------------------------------------------------------------

enum class ZrRegistryStep : int {
    CreateKey,    // the key and what is missing above it; one that exists is left as it is
    DeleteKey,    // with everything below it; not there: nothing to do
    SetValue,     // creates the key as well
    DeleteValue,  // not there, or not the key: nothing to do
};

struct ZrRegistryChange {
    ZrRegistryStep Step;
    HKEY Root;     // a root, or any open key
    LPCWSTR Path;  // below it
    LPCWSTR Name;  // of the value; NULL or "": the default value
    DWORD Type;
    const BYTE* Data;
    DWORD Size;
};

// Makes the changes in their order, all of them or, on failure, none; no program sees some of them without the others.
// On failure *failed (may be NULL) is how many changes had been made before: the index of the one that could not be, if
// it was one's fault. Call RegFlushKey to have them on the disk.
ZRPLATFORM_API LONG ZrRegistryApply(const ZrRegistryChange* changes, DWORD count, DWORD* failed);

// The same for any number of changes, which need not be in memory together: `next` is called for one after the other,
// on the caller's thread, until it returns less than 1. It fills *change in and returns 1; the pointers in it must stay
// valid until it is called again. With 0 there are no more changes; with -1 none at all are made, and the result is
// ERROR_CANCELLED. Other programs that write wait meanwhile, so what `next` reads should be at hand. It must not call
// this header's functions.
using ZrRegistryNextChange = int (*)(ZrRegistryChange* change, LPVOID context);
ZRPLATFORM_API LONG ZrRegistryApplyEach(ZrRegistryNextChange next, LPVOID context, DWORD* failed);

// Sets every value of `from` in `to`, with its type and data, as one change: all of them or, on failure, none. Values
// of `to` that have other names stay. ERROR_MORE_DATA, and none is set, when one of them has more than `most` bytes of
// data.
ZRPLATFORM_API LONG ZrRegistryCopyValues(HKEY from, HKEY to, DWORD most);

// From here to ZrRegistryEndBatch the calling thread's changes are one: no other thread and no other program sees some
// of them without the others, and who is killed in between leaves none. Each call still succeeds or fails by itself, as
// it would alone, and this thread sees what it has changed; other threads may use the same handles, and find a key that
// the batch has made once it is kept (ERROR_KEY_DELETED until then). Everybody who wants to change the registry waits
// meanwhile, up to five seconds (ERROR_BUSY), so a batch should not wait for anything. RegFlushKey in between is done
// at the end. Batches within batches are counted, and the outermost one counts. ERROR_BUSY when the registry is kept
// locked, and in a function that ZrRegistryApplyEach calls. A thread that ends in a batch gives it up.
ZRPLATFORM_API LONG ZrRegistryBeginBatch();

// Keeps the changes; FALSE, also in a batch within another one: takes all of them back. When it fails none was kept,
// and handles to keys that were made in the batch tell ERROR_KEY_DELETED; but where RegFlushKey was called in between
// it may be that only the disk was not reached. Once the store has failed in a batch (as with ERROR_DISK_FULL), every
// further call in it does, and so does this one; the same calls without a batch then do what they can. It has failed
// (ERROR_NOT_ENOUGH_MEMORY), too, when a call fails in a batch that has changed more than memory holds, some megabytes:
// SQLite before 3.41 cannot take back a part of that.
// ERROR_INVALID_PARAMETER when there is no batch. A child made by fork has no part in its parent's batch: its calls
// fail with ERROR_BUSY.
ZRPLATFORM_API LONG ZrRegistryEndBatch(BOOL keep);

// What went wrong in the calling thread's last call of this header that failed because of the store or its files, in a
// sentence for people that names the file. Empty when none did. Valid until the thread's next call of this header.
ZRPLATFORM_API LPCWSTR ZrRegistryLastErrorText();

// When this process found the store damaged and set it aside: a sentence that names the file it is kept as. Empty
// otherwise. The registry then began anew, and is empty. The log has the sentence too. Valid until the process ends.
ZRPLATFORM_API LPCWSTR ZrRegistrySetAsideText();
