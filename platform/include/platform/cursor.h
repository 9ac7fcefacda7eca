#pragma once

// The pointing device's cursor. Nothing is drawn: what is kept is which one the program wants to be shown.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

#define IDC_ARROW (reinterpret_cast<LPCWSTR>(static_cast<UINT_PTR>(32512)))
#define IDC_IBEAM (reinterpret_cast<LPCWSTR>(static_cast<UINT_PTR>(32513)))
#define IDC_WAIT (reinterpret_cast<LPCWSTR>(static_cast<UINT_PTR>(32514)))
#define IDC_CROSS (reinterpret_cast<LPCWSTR>(static_cast<UINT_PTR>(32515)))
#define IDC_UPARROW (reinterpret_cast<LPCWSTR>(static_cast<UINT_PTR>(32516)))
#define IDC_SIZENWSE (reinterpret_cast<LPCWSTR>(static_cast<UINT_PTR>(32642)))
#define IDC_SIZENESW (reinterpret_cast<LPCWSTR>(static_cast<UINT_PTR>(32643)))
#define IDC_SIZEWE (reinterpret_cast<LPCWSTR>(static_cast<UINT_PTR>(32644)))
#define IDC_SIZENS (reinterpret_cast<LPCWSTR>(static_cast<UINT_PTR>(32645)))
#define IDC_SIZEALL (reinterpret_cast<LPCWSTR>(static_cast<UINT_PTR>(32646)))
#define IDC_NO (reinterpret_cast<LPCWSTR>(static_cast<UINT_PTR>(32648)))
#define IDC_HAND (reinterpret_cast<LPCWSTR>(static_cast<UINT_PTR>(32649)))
#define IDC_APPSTARTING (reinterpret_cast<LPCWSTR>(static_cast<UINT_PTR>(32650)))
#define IDC_HELP (reinterpret_cast<LPCWSTR>(static_cast<UINT_PTR>(32651)))

// One of the system's cursors (IDC_), always the same handle; it is never destroyed. NULL for any other name, and with
// an instance, as modules carry no cursors: ERROR_RESOURCE_NAME_NOT_FOUND. Any thread.
ZRPLATFORM_API HCURSOR LoadCursorW(HINSTANCE instance, LPCWSTR name);

// Sets the process's cursor, NULL for none, and returns the one before; a process starts without one. For what is no
// cursor nothing is done: NULL, with ERROR_INVALID_CURSOR_HANDLE. Any thread.
ZRPLATFORM_API HCURSOR SetCursor(HCURSOR cursor);
ZRPLATFORM_API HCURSOR GetCursor();
