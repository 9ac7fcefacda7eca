#pragma once

// The shell's special folders.

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
