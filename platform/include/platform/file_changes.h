#pragma once

// Notifications of changes in a folder.
//
//     HANDLE changes = FindFirstChangeNotificationW(u"\\My Documents", FALSE,
//                                                   FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_CEGETINFO);
//     while (WaitForSingleObject(changes, INFINITE) == WAIT_OBJECT_0) {
//         DWORD available = 0;
//         CeGetFileNotificationInfo(changes, 0, nullptr, 0, nullptr, &available);
//         ... read `available` bytes of records with a second call ...
//         if (!FindNextChangeNotification(changes)) break;   // the folder is no longer there
//     }
//     FindCloseChangeNotification(changes);
//
// The handle is signalled when something has changed and stays so until FindNextChangeNotification. Nothing is lost
// between the calls, nor when the host drops notifications because too many came at once: the folder is then read
// again and compared with what was known, and the difference comes out as records. Replaying all records over the
// names that were there at the start gives the names that are there. A file may be reported as changed once more than
// it was.
//
// What the host does not tell is not reported: reads, changes made from another computer on a shared file system, and
// that a folder below changed because its content did. A link counts as a file and is not followed.
//
// Threads: every call from any thread. Each process has one descriptor and one thread for all its watched folders.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

inline constexpr DWORD FILE_NOTIFY_CHANGE_FILE_NAME = 0x00000001;    // files come, go, are renamed
inline constexpr DWORD FILE_NOTIFY_CHANGE_DIR_NAME = 0x00000002;     // folders do
inline constexpr DWORD FILE_NOTIFY_CHANGE_ATTRIBUTES = 0x00000004;   // of files and folders
inline constexpr DWORD FILE_NOTIFY_CHANGE_SIZE = 0x00000008;         // reported when a file is written
inline constexpr DWORD FILE_NOTIFY_CHANGE_LAST_WRITE = 0x00000010;   // written, or given another time
inline constexpr DWORD FILE_NOTIFY_CHANGE_LAST_ACCESS = 0x00000020;  // given another time
inline constexpr DWORD FILE_NOTIFY_CHANGE_CREATION = 0x00000040;     // never reported: the host does not let it change
inline constexpr DWORD FILE_NOTIFY_CHANGE_SECURITY = 0x00000100;     // the host's permissions and owner
inline constexpr DWORD FILE_NOTIFY_CHANGE_CEGETINFO = 0x80000000;    // keep records for CeGetFileNotificationInfo

inline constexpr DWORD FILE_ACTION_ADDED = 1;
inline constexpr DWORD FILE_ACTION_REMOVED = 2;
inline constexpr DWORD FILE_ACTION_MODIFIED = 3;
inline constexpr DWORD FILE_ACTION_RENAMED_OLD_NAME = 4;  // the record with the new name follows at once
inline constexpr DWORD FILE_ACTION_RENAMED_NEW_NAME = 5;

// One change. A rename out of the watched folder is a removal, one into it an addition.
struct FILE_NOTIFY_INFORMATION {
    DWORD NextEntryOffset;  // bytes from this record to the next; 0 in the last
    DWORD Action;
    DWORD FileNameLength;  // bytes, without the NUL that follows the name
    WCHAR FileName[1];     // relative to the watched folder
};

// Watches a folder, with `subtree` all folders below it as well. `filter` has one or more FILE_NOTIFY_CHANGE_ bits.
// Close the handle with FindCloseChangeNotification. INVALID_HANDLE_VALUE on failure: ERROR_PATH_NOT_FOUND,
// ERROR_DIRECTORY (not a folder), ERROR_ACCESS_DENIED, ERROR_INVALID_PARAMETER (filter), ERROR_TOO_MANY_OPEN_FILES and
// ERROR_NO_SYSTEM_RESOURCES (the host's limits of watches).
ZRPLATFORM_API HANDLE FindFirstChangeNotificationW(LPCWSTR path, BOOL subtree, DWORD filter);

// Arms the handle again: it is signalled at once if there was a change since it was signalled (with CEGETINFO: if there
// are records that have not been read). FALSE when there is nothing left to tell and nothing more to come, and the
// handle is not signalled any more: ERROR_PATH_NOT_FOUND when the folder was deleted, renamed or unmounted,
// ERROR_ACCESS_DENIED when it cannot be read any more, ERROR_NO_SYSTEM_RESOURCES when a new folder below it could not
// be watched. These ends are signalled like a change.
ZRPLATFORM_API BOOL FindNextChangeNotification(HANDLE changes);

ZRPLATFORM_API BOOL FindCloseChangeNotification(HANDLE changes);

// Takes records, as many whole ones as fit into `size` bytes; the two records of a rename stay together. `*returned`
// is their size and `*available` the size of those that are left; both may be null. With a null `buffer` and size 0
// nothing is taken. FALSE: ERROR_INSUFFICIENT_BUFFER when there are records and not even the first fits,
// ERROR_INVALID_PARAMETER for flags other than 0, or when the handle was made without FILE_NOTIFY_CHANGE_CEGETINFO.
// `buffer` is aligned for a DWORD.
ZRPLATFORM_API BOOL CeGetFileNotificationInfo(HANDLE changes, DWORD flags, LPVOID buffer, DWORD size, LPDWORD returned,
                                              LPDWORD available);
