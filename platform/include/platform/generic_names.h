#pragma once

// Optional: the names as handheld sources write them that were made to be compiled for two kinds of text. CreateEvent
// is CreateEventW, _tcslen is wcslen, WNDCLASS is WNDCLASSW. Also the words that say nothing (FAR, IN, OUT) and the
// spellings of the handheld's compiler for what C++ has other words for.
//
// All of these are macros, which stand in the way of every other meaning of their names: include this last, and in
// sources rather than in headers that others include. GetProcAddress is no macro: it is there for both kinds of text.
//
// Not here: min and max (write std::min), __in and __out (the C++ library uses them), __declspec (what it says is said
// otherwise: see docs/porting.md).

#include "platform/platform.h"

// --- Words without meaning -------------------------------------------------------------------------------------------

#define CONST const
#define FAR
#define NEAR
#define IN
#define OUT
#define OPTIONAL
#define __int64 long long
#define __stdcall
#define __cdecl
#define __forceinline inline __attribute__((always_inline))

// --- Functions and structures ----------------------------------------------------------------------------------------

#define CREATESTRUCT CREATESTRUCTW
#define CallWindowProc CallWindowProcW
#define CharLower CharLowerW
#define CharLowerBuff CharLowerBuffW
#define CharUpper CharUpperW
#define CharUpperBuff CharUpperBuffW
#define CopyFile CopyFileW
#define CreateDC CreateDCW
#define CreateDirectory CreateDirectoryW
#define CreateEvent CreateEventW
#define CreateFile CreateFileW
#define CreateFileMapping CreateFileMappingW
#define CreateFontIndirect CreateFontIndirectW
#define CreateMutex CreateMutexW
#define CreateProcess CreateProcessW
#define CreateSemaphore CreateSemaphoreW
#define CreateWaitableTimer CreateWaitableTimerW
#define CreateWindow CreateWindowW
#define CreateWindowEx CreateWindowExW
#define DefWindowProc DefWindowProcW
#define DeleteFile DeleteFileW
#define DispatchMessage DispatchMessageW
#define DrawText DrawTextW
#define ExtTextOut ExtTextOutW
#define FindFirstChangeNotification FindFirstChangeNotificationW
#define FindFirstFile FindFirstFileW
#define FindFirstFileEx FindFirstFileExW
#define FindNextFile FindNextFileW
#define FindWindow FindWindowW
#define FormatMessage FormatMessageW
#define GetClassInfo GetClassInfoW
#define GetClassInfoEx GetClassInfoExW
#define GetClassName GetClassNameW
#define GetFileAttributes GetFileAttributesW
#define GetFileAttributesEx GetFileAttributesExW
#define GetFileVersionInfo GetFileVersionInfoW
#define GetFileVersionInfoSize GetFileVersionInfoSizeW
#define GetMessage GetMessageW
#define GetModuleFileName GetModuleFileNameW
#define GetModuleHandle GetModuleHandleW
#define GetObject GetObjectW
#define GetTempPath GetTempPathW
#define GetTextExtentExPoint GetTextExtentExPointW
#define GetTextExtentPoint32 GetTextExtentPoint32W
#define GetTextMetrics GetTextMetricsW
#define GetWindowLong GetWindowLongW
#define GetWindowLongPtr GetWindowLongPtrW
#define GetWindowText GetWindowTextW
#define GetWindowTextLength GetWindowTextLengthW
#define LPCREATESTRUCT LPCREATESTRUCTW
#define LPSTARTUPINFO LPSTARTUPINFOW
#define LPWIN32_FIND_DATA LPWIN32_FIND_DATAW
#define LPWNDCLASS LPWNDCLASSW
#define LPWNDCLASSEX LPWNDCLASSEXW
#define LoadCursor LoadCursorW
#define LoadLibrary LoadLibraryW
#define LoadLibraryEx LoadLibraryExW
#define MoveFile MoveFileW
#define OpenEvent OpenEventW
#define OpenFileMapping OpenFileMappingW
#define OpenMutex OpenMutexW
#define OpenSemaphore OpenSemaphoreW
#define OpenWaitableTimer OpenWaitableTimerW
#define OutputDebugString OutputDebugStringW
#define PWIN32_FIND_DATA PWIN32_FIND_DATAW
#define PWNDCLASS PWNDCLASSW
#define PWNDCLASSEX PWNDCLASSEXW
#define PeekMessage PeekMessageW
#define PostMessage PostMessageW
#define PostThreadMessage PostThreadMessageW
#define PropertySheet PropertySheetW
#define RegCreateKeyEx RegCreateKeyExW
#define RegDeleteKey RegDeleteKeyW
#define RegDeleteValue RegDeleteValueW
#define RegEnumKeyEx RegEnumKeyExW
#define RegEnumValue RegEnumValueW
#define RegOpenKeyEx RegOpenKeyExW
#define RegQueryInfoKey RegQueryInfoKeyW
#define RegQueryValueEx RegQueryValueExW
#define RegSetValueEx RegSetValueExW
#define RegisterClass RegisterClassW
#define RegisterClassEx RegisterClassExW
#define RegisterWindowMessage RegisterWindowMessageW
#define RemoveDirectory RemoveDirectoryW
#define STARTUPINFO STARTUPINFOW
#define SendMessage SendMessageW
#define SendMessageCallback SendMessageCallbackW
#define SendMessageTimeout SendMessageTimeoutW
#define SendNotifyMessage SendNotifyMessageW
#define SetFileAttributes SetFileAttributesW
#define SetWindowLong SetWindowLongW
#define SetWindowLongPtr SetWindowLongPtrW
#define SetWindowText SetWindowTextW
#define StringCbCat StringCbCatW
#define StringCbCatN StringCbCatNW
#define StringCbCopy StringCbCopyW
#define StringCbCopyN StringCbCopyNW
#define StringCbLength StringCbLengthW
#define StringCbPrintf StringCbPrintfW
#define StringCbVPrintf StringCbVPrintfW
#define StringCchCat StringCchCatW
#define StringCchCatN StringCchCatNW
#define StringCchCopy StringCchCopyW
#define StringCchCopyN StringCchCopyNW
#define StringCchLength StringCchLengthW
#define StringCchPrintf StringCchPrintfW
#define StringCchVPrintf StringCchVPrintfW
#define UnregisterClass UnregisterClassW
#define VerQueryValue VerQueryValueW
#define WIN32_FIND_DATA WIN32_FIND_DATAW
#define WNDCLASS WNDCLASSW
#define WNDCLASSEX WNDCLASSEXW
#define lstrcat lstrcatW
#define lstrcmp lstrcmpW
#define lstrcmpi lstrcmpiW
#define lstrcpy lstrcpyW
#define lstrcpyn lstrcpynW
#define lstrlen lstrlenW
#define wsprintf wsprintfW
#define wvsprintf wvsprintfW

// --- The wide runtime ------------------------------------------------------------------------------------------------

using _TCHAR = TCHAR;
#define _tcslen wcslen
#define _tcsnlen wcsnlen
#define _tcscpy wcscpy
#define _tcsncpy wcsncpy
#define _tcscat wcscat
#define _tcsncat wcsncat
#define _tcscmp wcscmp
#define _tcsncmp wcsncmp
#define _tcsicmp _wcsicmp
#define _tcsnicmp _wcsnicmp
#define _tcschr wcschr
#define _tcsrchr wcsrchr
#define _tcsstr wcsstr
#define _tcspbrk wcspbrk
#define _tcscspn wcscspn
#define _tcsspn wcsspn
#define _tcstok wcstok
#define _tcsdup _wcsdup
#define _tcslwr _wcslwr
#define _tcsupr _wcsupr
#define _totlower towlower
#define _totupper towupper
#define _istspace iswspace
#define _istdigit iswdigit
#define _istxdigit iswxdigit
#define _istalpha iswalpha
#define _istalnum iswalnum
#define _istupper iswupper
#define _istlower iswlower
#define _istpunct iswpunct
#define _istcntrl iswcntrl
#define _istprint iswprint
#define _ttol _wtol
#define _ttoi _wtoi
#define _ttoi64 _wtoi64
#define _tcstol wcstol
#define _tcstoul wcstoul
#define _itot _itow
#define _ltot _ltow
#define _ultot _ultow
#define _i64tot _i64tow
#define _ui64tot _ui64tow
#define _sntprintf _snwprintf
#define _vsntprintf _vsnwprintf
#define _stprintf swprintf
#define _vstprintf vswprintf
