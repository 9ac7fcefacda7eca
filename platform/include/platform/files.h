#pragma once

// Files, folders, searches, attributes and system message texts.
//
// Paths. A path names a file below the folder that ZR_ROOT names (default "/"): "\My Documents\a.txt" is
// "My Documents/a.txt" there. There is no current folder, so a path without a leading separator starts at the root
// too. '\' and '/' both separate, repeated and trailing separators do not count, "." and ".." are worked out on the
// text and never lead above the root. Names match ignoring case; a name that matches exactly is preferred, else the
// first in byte order. A path has at most 259 characters (ERROR_FILENAME_EXCED_RANGE). Host names that are not valid
// UTF-8, or that hold a backslash, have a spelling of their own that the same functions understand.
// The characters < > : " | ? * and the control characters cannot be part of a new name (ERROR_INVALID_NAME), but a
// file of the host that has them can be used. A path that ends in a separator names a folder: where a file is, or is
// to be made, that is ERROR_INVALID_NAME. Symbolic links are followed; one that leads nowhere counts as a file, and so
// does one that leads back to a folder that holds it.
//
// Sharing. An open file is used for reading and writing as its handle's access says, and lets others use it as its
// share mode says. CopyFileW counts as a reader of its source and a writer of its target; DeleteFileW and MoveFileW
// need that each handle shares deletion (FILE_SHARE_DELETE). What is not shared is ERROR_SHARING_VIOLATION. That holds
// exactly among the handles of one process. Between processes a share of 0 keeps others out, and any other share keeps
// out those who ask for 0. A file that this process has mapped (an open mapping, or a view) is neither deleted nor
// renamed (ERROR_SHARING_VIOLATION), and not made shorter: SetEndOfFile, CREATE_ALWAYS, TRUNCATE_EXISTING and a copy
// over it are ERROR_USER_MAPPED_FILE. The mapping itself keeps no share mode once the file's handle is closed.
//
// Errors. A function that fails says so in its result and sets the last error: ERROR_PATH_NOT_FOUND when a folder on
// the way is missing, ERROR_FILE_NOT_FOUND when only the last name is, ERROR_ACCESS_DENIED when the host refuses,
// ERROR_INVALID_PARAMETER for a null path, ERROR_PATH_NOT_FOUND for an empty one. What succeeds leaves the last error
// alone unless it says otherwise.
//
// Threads. Every function may be called from any thread. One search or file handle is served to one call at a time.

#include <cstdarg>

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

inline constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x00000001;  // nobody may write (host mode)
inline constexpr DWORD FILE_ATTRIBUTE_HIDDEN = 0x00000002;    // kept in user.DOSATTRIB, or a leading dot
inline constexpr DWORD FILE_ATTRIBUTE_SYSTEM = 0x00000004;    // kept in user.DOSATTRIB
inline constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x00000010;
inline constexpr DWORD FILE_ATTRIBUTE_ARCHIVE = 0x00000020;  // kept in user.DOSATTRIB
inline constexpr DWORD FILE_ATTRIBUTE_INROM = 0x00000040;    // never set here
inline constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x00000080;   // alone: no other attribute
inline constexpr DWORD FILE_ATTRIBUTE_TEMPORARY = 0x00000100;
inline constexpr DWORD FILE_ATTRIBUTE_COMPRESSED = 0x00000800;
inline constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFF;

inline constexpr DWORD GENERIC_READ = 0x80000000;
inline constexpr DWORD GENERIC_WRITE = 0x40000000;
inline constexpr DWORD FILE_SHARE_READ = 0x00000001;
inline constexpr DWORD FILE_SHARE_WRITE = 0x00000002;
inline constexpr DWORD FILE_SHARE_DELETE = 0x00000004;
inline constexpr DWORD CREATE_NEW = 1;
inline constexpr DWORD CREATE_ALWAYS = 2;
inline constexpr DWORD OPEN_EXISTING = 3;
inline constexpr DWORD OPEN_ALWAYS = 4;
inline constexpr DWORD TRUNCATE_EXISTING = 5;
inline constexpr DWORD FILE_FLAG_SEQUENTIAL_SCAN = 0x08000000;
inline constexpr DWORD FILE_FLAG_RANDOM_ACCESS = 0x10000000;
inline constexpr DWORD FILE_FLAG_OVERLAPPED = 0x40000000;
inline constexpr DWORD FILE_FLAG_WRITE_THROUGH = 0x80000000;
inline constexpr DWORD FILE_BEGIN = 0;
inline constexpr DWORD FILE_CURRENT = 1;
inline constexpr DWORD FILE_END = 2;
inline constexpr DWORD INVALID_FILE_SIZE = 0xFFFFFFFF;
inline constexpr DWORD INVALID_SET_FILE_POINTER = 0xFFFFFFFF;

inline constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x00000100;
inline constexpr DWORD FORMAT_MESSAGE_IGNORE_INSERTS = 0x00000200;
inline constexpr DWORD FORMAT_MESSAGE_FROM_STRING = 0x00000400;
inline constexpr DWORD FORMAT_MESSAGE_FROM_HMODULE = 0x00000800;
inline constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x00001000;
inline constexpr DWORD FORMAT_MESSAGE_ARGUMENT_ARRAY = 0x00002000;
inline constexpr DWORD FORMAT_MESSAGE_MAX_WIDTH_MASK = 0x000000FF;

// One entry of a search. Creation is the host's birth time where it keeps one, else the last write.
struct WIN32_FIND_DATAW {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    DWORD dwOID;  // the handheld's object store is absent: always 0
    WCHAR cFileName[MAX_PATH];
};
using PWIN32_FIND_DATAW = WIN32_FIND_DATAW*;
using LPWIN32_FIND_DATAW = WIN32_FIND_DATAW*;

struct WIN32_FILE_ATTRIBUTE_DATA {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
};

enum GET_FILEEX_INFO_LEVELS { GetFileExInfoStandard, GetFileExMaxInfoLevel };

struct OVERLAPPED;  // reads and writes take none: pass nullptr
using LPOVERLAPPED = OVERLAPPED*;

// Starts a search for the names in a folder that match the last part of `path`, in which '*' stands for any run of
// characters and '?' for any one; "*.*" matches every name. "." and ".." are never among them. Fills `*data` with the
// first entry and returns a handle for FindNextFileW, to be closed with FindClose. INVALID_HANDLE_VALUE:
// ERROR_PATH_NOT_FOUND (no such folder), ERROR_NO_MORE_FILES (nothing matches), ERROR_ACCESS_DENIED, ...
// The search goes by the folder that was found at the start, even when it is renamed meanwhile. An entry that comes or
// goes during the search may or may not be seen; every other one is seen exactly once.
ZRPLATFORM_API HANDLE FindFirstFileW(LPCWSTR path, WIN32_FIND_DATAW* data);

// How much a search tells of each entry.
enum FINDEX_INFO_LEVELS {
    FindExInfoStandard,
    FindExInfoBasic,  // the same: there are no short names to leave out
    // Ours: the name, and in dwFileAttributes FILE_ATTRIBUTE_DIRECTORY or FILE_ATTRIBUTE_NORMAL as GetFileAttributesW
    // would find the one bit, INVALID_FILE_ATTRIBUTES where it would fail; the other members are 0. Such a search need
    // not look at each file, only at the folder, which makes it many times as fast.
    ZrFindExInfoKind = 0x5A01,
};
enum FINDEX_SEARCH_OPS { FindExSearchNameMatch, FindExSearchLimitToDirectories, FindExSearchLimitToDevices };

// FindFirstFileW with a level for this and every further entry. The limit to folders is advice that is not taken, the
// limit to devices ERROR_NOT_SUPPORTED; `filter` must be null and `flags` are ignored.
ZRPLATFORM_API HANDLE FindFirstFileExW(LPCWSTR path, FINDEX_INFO_LEVELS level, LPVOID data, FINDEX_SEARCH_OPS operation,
                                       LPVOID filter, DWORD flags);
// The next entry. FALSE: ERROR_NO_MORE_FILES at the end, ERROR_INVALID_HANDLE for what is no open search.
ZRPLATFORM_API BOOL FindNextFileW(HANDLE search, WIN32_FIND_DATAW* data);
ZRPLATFORM_API BOOL FindClose(HANDLE search);

// The attributes, or INVALID_FILE_ATTRIBUTES.
ZRPLATFORM_API DWORD GetFileAttributesW(LPCWSTR path);
// Attributes, times and size; `data` is a WIN32_FILE_ATTRIBUTE_DATA and `level` GetFileExInfoStandard.
ZRPLATFORM_API BOOL GetFileAttributesExW(LPCWSTR path, GET_FILEEX_INFO_LEVELS level, LPVOID data);
// Sets READONLY, HIDDEN, SYSTEM and ARCHIVE as given; other bits are ignored. A leading dot hides a file whatever is
// set. ERROR_NOT_SUPPORTED when the host's file system cannot keep an attribute.
ZRPLATFORM_API BOOL SetFileAttributesW(LPCWSTR path, DWORD attributes);

// ERROR_ALREADY_EXISTS when the name is taken. `attributes` is ignored: the host's umask rules.
ZRPLATFORM_API BOOL CreateDirectoryW(LPCWSTR path, SECURITY_ATTRIBUTES* attributes);
// Removes an empty folder, or a link to a folder (the link only). ERROR_DIR_NOT_EMPTY, ERROR_DIRECTORY (is a file),
// ERROR_ACCESS_DENIED (the root).
ZRPLATFORM_API BOOL RemoveDirectoryW(LPCWSTR path);
// Removes a file, or a link that counts as one (then only the link goes, whatever is open behind it). The name is gone
// at once, also while handles that share deletion are open; they work on. ERROR_ACCESS_DENIED for a folder and for a
// read-only file, ERROR_SHARING_VIOLATION.
ZRPLATFORM_API BOOL DeleteFileW(LPCWSTR path);
// Renames a file or folder; a file also across file systems. ERROR_ALREADY_EXISTS when the new name is taken, unless
// it is the old one in another case. ERROR_SHARING_VIOLATION for a file; what is open in a folder is not looked at.
ZRPLATFORM_API BOOL MoveFileW(LPCWSTR from, LPCWSTR to);
// Copies a file's content, permissions and stored attributes. ERROR_FILE_EXISTS when `failIfExists` and the target is
// there, ERROR_SHARING_VIOLATION, ERROR_USER_MAPPED_FILE: then the target is as it was. One that cannot be completed
// (ERROR_DISK_FULL) is removed again if it was new.
ZRPLATFORM_API BOOL CopyFileW(LPCWSTR from, LPCWSTR to, BOOL failIfExists);
// The folder for temporary files, with a trailing backslash: the host's, or "\Temp\" when that lies outside the root;
// whether it exists is not looked at. Returns the length without the NUL; when `size` is too small, the size needed
// with it, and nothing is written.
ZRPLATFORM_API DWORD GetTempPathW(DWORD size, LPWSTR buffer);

// Opens or creates a file; close it with CloseHandle. INVALID_HANDLE_VALUE on failure: ERROR_FILE_EXISTS (CREATE_NEW),
// ERROR_ACCESS_DENIED (a folder, also with CREATE_NEW, or writing to a read-only file), ERROR_SHARING_VIOLATION, ...
// CREATE_ALWAYS and OPEN_ALWAYS set the last error to ERROR_ALREADY_EXISTS when the file was there and to 0 when not.
// Who asks for neither GENERIC_READ nor GENERIC_WRITE is in nobody's way. The attributes in `flagsAndAttributes` are
// set on a new file, as far as the host's file system can keep them. `security` and `templateFile` are ignored.
ZRPLATFORM_API HANDLE CreateFileW(LPCWSTR path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                                  DWORD creation, DWORD flagsAndAttributes, HANDLE templateFile);
// Reads at the file pointer and moves it. TRUE with `*read` 0 at the end of the file.
ZRPLATFORM_API BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD size, LPDWORD read, OVERLAPPED* overlapped);
// Writes at the file pointer and moves it. FALSE with ERROR_DISK_FULL when not all could be written; `*written` tells
// how much was.
ZRPLATFORM_API BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD size, LPDWORD written, OVERLAPPED* overlapped);
// Moves the file pointer and returns its low half; the high half goes to `*high` if given. INVALID_SET_FILE_POINTER is
// an error unless the last error is 0: ERROR_NEGATIVE_SEEK, ERROR_INVALID_PARAMETER (over 2 GB without `high`).
ZRPLATFORM_API DWORD SetFilePointer(HANDLE file, LONG distance, LONG* high, DWORD method);
// The file ends where the file pointer stands. A file that this process has mapped can become longer, not shorter
// (ERROR_USER_MAPPED_FILE): all its views are unmapped and its mappings closed first.
ZRPLATFORM_API BOOL SetEndOfFile(HANDLE file);
// The low half of the size; the high half goes to `*high` if given. INVALID_FILE_SIZE as for SetFilePointer.
ZRPLATFORM_API DWORD GetFileSize(HANDLE file, LPDWORD high);
// Returns when what was written has reached the disk.
ZRPLATFORM_API BOOL FlushFileBuffers(HANDLE file);
// Any of the three may be null. SetFileTime ignores the creation time, which the host does not let anyone set.
ZRPLATFORM_API BOOL GetFileTime(HANDLE file, FILETIME* creation, FILETIME* access, FILETIME* write);
ZRPLATFORM_API BOOL SetFileTime(HANDLE file, const FILETIME* creation, const FILETIME* access, const FILETIME* write);

// Writes a message text and returns its length without the NUL.
//
// FORMAT_MESSAGE_FROM_SYSTEM: the C library's text for the host error that the code `messageId` stands for, ended with
// CR LF; `languageId` is not looked at. FORMAT_MESSAGE_FROM_STRING: the NUL-ended text that `source` points to, in
// which
//   %1 to %99       are replaced by the arguments, which are texts
//   %1!format!      the same in a printf format. Each * of it is a width or precision that is an argument as well: the
//                   first one of this number, the next one of the next; the value comes behind them. Of an array it
//                   has the number behind theirs; in a list it has none, so %2 is then what comes behind the value
//   %n %r %t        CR LF, CR, a tab
//   %0              ends the text
//   % and another   that character. A % at the end is ERROR_INVALID_PARAMETER
// FORMAT_MESSAGE_IGNORE_INSERTS leaves the inserts as they are, and `arguments` is not looked at. `arguments` points to
// a va_list, or with FORMAT_MESSAGE_ARGUMENT_ARRAY to an array of DWORD_PTR.
//
// A width in the low byte: the text's own line breaks become spaces, and lines are broken at white space so that each
// has at most so many characters; a longer word stays whole. FORMAT_MESSAGE_MAX_WIDTH_MASK: the former only. Breaks
// that %n and %r make, and those in inserted texts, always stay.
//
// With FORMAT_MESSAGE_ALLOCATE_BUFFER `buffer` is really a LPWSTR* that receives a block of at least `size` characters
// which the caller frees with LocalFree; null when the call fails or the text is empty. Otherwise it holds `size`
// characters. 0 on failure: ERROR_MR_MID_NOT_FOUND (no text), ERROR_RESOURCE_TYPE_NOT_FOUND (from a module: none has
// messages), ERROR_INSUFFICIENT_BUFFER, ERROR_MORE_DATA (a block of more than 128 KiB), ERROR_INVALID_PARAMETER. 0 for
// an empty text too, with the last error left alone.
ZRPLATFORM_API DWORD FormatMessageW(DWORD flags, LPCVOID source, DWORD messageId, DWORD languageId, LPWSTR buffer,
                                    DWORD size, va_list* arguments);

// Ours: a path of the host and the handheld path of the same file, for programs that talk to people in the host's
// terms. Both write the result with its NUL when `size` has room for it and return the length without the NUL; when
// `size` is too small, the size needed with it, and nothing is written. The file system is not looked at: names come
// out as they are written. 0: ERROR_PATH_NOT_FOUND (not absolute, or outside the root), ERROR_FILENAME_EXCED_RANGE,
// ERROR_INVALID_PARAMETER, ERROR_NOT_ENOUGH_MEMORY.
ZRPLATFORM_API DWORD ZrHandheldPath(const char* hostPath, LPWSTR path, DWORD size);
ZRPLATFORM_API DWORD ZrHostPath(LPCWSTR path, char* hostPath, DWORD size);
