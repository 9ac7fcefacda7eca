#pragma once

// The shell's special folders, and its notifications of changed files.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

inline constexpr int CSIDL_DESKTOP = 0x0000;
inline constexpr int CSIDL_PROGRAMS = 0x0002;
inline constexpr int CSIDL_PERSONAL = 0x0005;  // the user's documents
inline constexpr int CSIDL_FAVORITES = 0x0006;
inline constexpr int CSIDL_STARTUP = 0x0007;
inline constexpr int CSIDL_RECENT = 0x0008;
inline constexpr int CSIDL_STARTMENU = 0x000B;
inline constexpr int CSIDL_MYMUSIC = 0x000D;
inline constexpr int CSIDL_MYVIDEO = 0x000E;
inline constexpr int CSIDL_DESKTOPDIRECTORY = 0x0010;
inline constexpr int CSIDL_FONTS = 0x0014;
inline constexpr int CSIDL_TEMPLATES = 0x0015;
inline constexpr int CSIDL_APPDATA = 0x001A;
inline constexpr int CSIDL_INTERNET_CACHE = 0x0020;
inline constexpr int CSIDL_WINDOWS = 0x0024;
inline constexpr int CSIDL_PROGRAM_FILES = 0x0026;
inline constexpr int CSIDL_MYPICTURES = 0x0027;
inline constexpr int CSIDL_PROFILE = 0x0028;
inline constexpr int CSIDL_FLAG_CREATE = 0x8000;  // may be added to a number: as if `create` were TRUE

// Writes the handheld path of a special folder, without a trailing separator, to `path`, which holds MAX_PATH
// characters. The folders are the user's own: documents, desktop, music, pictures, videos and templates as
// user-dirs.dirs says, the others below the XDG data, configuration and cache folders. One that the user does not have,
// or that lies outside ZR_ROOT, is the handheld's own below the root (documents: "\My Documents"). With `create` a
// missing folder is made; without, its path is given whether it is there or not. FALSE: ERROR_INVALID_PARAMETER (null
// path, a number without a folder), ERROR_FILENAME_EXCED_RANGE, or the reason why the folder could not be made; `path`
// is then empty. `owner` is not used. Any thread.
ZRPLATFORM_API BOOL SHGetSpecialFolderPath(HWND owner, LPWSTR path, int folder, BOOL create);

// ---- Notifications of changed files ----

// What happened.
inline constexpr LONG SHCNE_RENAMEITEM = 0x00000001;  // a file; both items
inline constexpr LONG SHCNE_CREATE = 0x00000002;
inline constexpr LONG SHCNE_DELETE = 0x00000004;
inline constexpr LONG SHCNE_MKDIR = 0x00000008;
inline constexpr LONG SHCNE_RMDIR = 0x00000010;
inline constexpr LONG SHCNE_UPDATEDIR = 0x00001000;
inline constexpr LONG SHCNE_UPDATEITEM = 0x00002000;
inline constexpr LONG SHCNE_RENAMEFOLDER = 0x00020000;

inline constexpr ULONG SHCNF_PATH = 0x0001;  // the items are paths

// The message that carries a change; its LPARAM points to a FILECHANGENOTIFY.
inline constexpr UINT WM_FILECHANGEINFO = 0x8101;

struct FILECHANGEINFO {
    DWORD cbSize;
    LONG wEventId;      // SHCNE_
    ULONG uFlags;       // SHCNF_
    DWORD_PTR dwItem1;  // the path; the old one of a rename
    DWORD_PTR dwItem2;  // the new path of a rename
    DWORD dwAttributes;
    FILETIME ftModified;
    ULONG nFileSize;
};

struct FILECHANGENOTIFY {
    DWORD dwRefCount;
    FILECHANGEINFO fci;
};

struct SHCHANGENOTIFYENTRY {
    DWORD dwEventMask;   // SHCNE_ bits
    LPWSTR pszWatchDir;  // NULL: the root
    BOOL fRecursive;
};

// Posts WM_FILECHANGEINFO to the window for each change in a folder that the mask names, until the window is
// deregistered or destroyed. A window has one registration; a further one replaces it. Each message carries a
// notification of its own, which whoever takes the message gives back with SHChangeNotifyFree. A message for which the
// window's queue has no room waits. FALSE: ERROR_INVALID_PARAMETER (no entry, no event that can be told),
// ERROR_INVALID_WINDOW_HANDLE, or why the folder cannot be watched. What cannot be told: that a folder changed because
// its content did. Changes of files come in their order, and so do changes of folders. Any thread.
ZRPLATFORM_API BOOL SHChangeNotifyRegister(HWND window, SHCHANGENOTIFYENTRY* entry);
// Returns when no more will be posted. FALSE when the window has no registration.
ZRPLATFORM_API BOOL SHChangeNotifyDeregister(HWND window);
// What no message of SHChangeNotifyRegister carried is left alone.
ZRPLATFORM_API void SHChangeNotifyFree(FILECHANGENOTIFY* notify);
