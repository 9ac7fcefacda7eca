#pragma once

// Windows of the platform's own: tabs, and sheets of pages behind them.
//
// They answer their documented messages and draw nothing. As no font is at hand here, a tab is 20 pixels high and 12 +
// 6 for each unit of its text wide, unless TCM_SETITEMSIZE says otherwise.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"
#include "platform/windowing.h"

inline constexpr WCHAR WC_TABCONTROLW[] = u"SysTabControl32";
inline constexpr WCHAR WC_DIALOG[] = u"#32770";  // of sheets and of their pages

// ---- Tabs ----

inline constexpr DWORD TCS_BOTTOM = 0x0002;  // the tabs are at the lower edge

inline constexpr UINT TCIF_TEXT = 0x0001;
inline constexpr UINT TCIF_IMAGE = 0x0002;
inline constexpr UINT TCIF_PARAM = 0x0008;

struct TCITEMW {
    UINT mask;  // TCIF_
    DWORD dwState;
    DWORD dwStateMask;
    LPWSTR pszText;
    int cchTextMax;  // when it is asked for: the room at pszText
    int iImage;
    LPARAM lParam;
};
using LPTCITEMW = TCITEMW*;

inline constexpr UINT TCM_FIRST = 0x1300;
inline constexpr UINT TCM_GETITEMCOUNT = TCM_FIRST + 4;
// The tab wparam leaves; of those left the same one stays selected, none when it was the selected one. TRUE or FALSE.
inline constexpr UINT TCM_DELETEITEM = TCM_FIRST + 8;
inline constexpr UINT TCM_DELETEALLITEMS = TCM_FIRST + 9;
// lparam: a RECT for the tab's place in the control's client area. TRUE or FALSE.
inline constexpr UINT TCM_GETITEMRECT = TCM_FIRST + 10;
inline constexpr UINT TCM_GETCURSEL = TCM_FIRST + 11;  // -1: none
inline constexpr UINT TCM_SETCURSEL = TCM_FIRST + 12;  // returns the one before, -1 for none
// lparam: a RECT. With wparam from the page's to the whole control's, else from the control's to the page's.
inline constexpr UINT TCM_ADJUSTRECT = TCM_FIRST + 40;
// lparam: width and height of every tab; returns those before, 0 for a width that followed from the text.
inline constexpr UINT TCM_SETITEMSIZE = TCM_FIRST + 41;
inline constexpr UINT TCM_GETROWCOUNT = TCM_FIRST + 44;
// The tab wparam's TCITEMW at lparam. TRUE or FALSE.
inline constexpr UINT TCM_GETITEMW = TCM_FIRST + 60;
inline constexpr UINT TCM_SETITEMW = TCM_FIRST + 61;
// Puts it before the tab wparam, or last; returns where it is, or -1. The first one that there is becomes selected.
inline constexpr UINT TCM_INSERTITEMW = TCM_FIRST + 62;

// ---- Sheets ----

using DLGPROC = INT_PTR (*)(HWND dialog, UINT message, WPARAM wparam, LPARAM lparam);

inline constexpr DWORD PSP_DEFAULT = 0x0000;
inline constexpr DWORD PSP_USETITLE = 0x0008;
inline constexpr DWORD PSH_PROPSHEETPAGE = 0x0008;
inline constexpr DWORD PSH_MODELESS = 0x0400;

struct PROPSHEETPAGEW {
    DWORD dwSize;   // sizeof(PROPSHEETPAGEW)
    DWORD dwFlags;  // PSP_
    HINSTANCE hInstance;
    LPCWSTR pszTemplate;  // not looked at: a page begins empty
    HICON hIcon;
    LPCWSTR pszTitle;  // with PSP_USETITLE
    DLGPROC pfnDlgProc;
    LPARAM lParam;
};
using LPCPROPSHEETPAGEW = const PROPSHEETPAGEW*;

struct PROPSHEETHEADERW {
    DWORD dwSize;   // sizeof(PROPSHEETHEADERW)
    DWORD dwFlags;  // both of PSH_
    HWND hwndParent;
    HINSTANCE hInstance;
    HICON hIcon;
    LPCWSTR pszCaption;
    UINT nPages;
    UINT nStartPage;
    LPCPROPSHEETPAGEW ppsp;
};
using LPCPROPSHEETHEADERW = const PROPSHEETHEADERW*;

inline constexpr UINT PSM_SETCURSEL = WM_USER + 101;   // the page wparam; TRUE or FALSE
inline constexpr UINT PSM_REMOVEPAGE = WM_USER + 102;  // the page wparam, with its window and its tab
inline constexpr UINT PSM_GETTABCONTROL = WM_USER + 116;
inline constexpr UINT PSM_GETCURRENTPAGEHWND = WM_USER + 118;

// A sheet as large as the screen with a tab control and the pages; a page's window, a child of the sheet, is made when
// it is first selected. Its procedure gets WM_INITDIALOG with the page's PROPSHEETPAGEW, which is the sheet's own copy;
// what it returns 0 for is handled as by DefWindowProcW. Returns the sheet, which is destroyed with DestroyWindow; -1:
// ERROR_INVALID_PARAMETER, ERROR_NOT_SUPPORTED without both flags, and why CreateWindowExW failed.
ZRPLATFORM_API INT_PTR PropertySheetW(LPCPROPSHEETHEADERW header);
