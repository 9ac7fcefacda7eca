#pragma once

// Device contexts, fonts, measured and drawn text, bitmaps.
//
// Fonts are the computer's (Pango over FreeType and fontconfig), loaded by the first call that needs one: without these
// libraries such calls fail with ERROR_MOD_NOT_FOUND, without descriptors for their files with
// ERROR_TOO_MANY_OPEN_FILES, and nothing else needs them. Text is shaped as its script asks, and what the font has not
// is taken from others; letters of the Latin, Greek and Cyrillic scripts keep their own widths and are not kerned, as
// on the handheld. Text runs from left to right as a whole; what is written from right to left is turned round within
// it. Widths are whole pixels, and what is drawn is as wide as what was measured.
//
// Drawing reaches a bitmap that is selected into a memory context. Contexts of the screen and of windows measure, and
// draw nowhere. Coordinates are pixels.
//
// Handles are of this process and are never reused soon; a stale one, or one of another kind, is ERROR_INVALID_HANDLE.
// An object is deleted by its maker, and not while it is selected. Any thread may call; the calls of all threads are
// made one after the other. Functions that fail say why through GetLastError.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

ZRPLATFORM_DECLARE_HANDLE(HDC);
ZRPLATFORM_DECLARE_HANDLE(HBITMAP);
ZRPLATFORM_DECLARE_HANDLE(HPEN);
using HGDIOBJ = void*;
using COLORREF = DWORD;  // 0x00BBGGRR

// Of a window class: GetDC gives each of its windows one context, which stays the window's, with what is selected into
// it, until the window goes.
inline constexpr UINT CS_OWNDC = 0x0020;

inline constexpr int LF_FACESIZE = 32;

struct LOGFONTW {
    LONG lfHeight;  // pixels: negative of the letters (the em), positive of a line, 0 for the usual
    LONG lfWidth;   // 0: what belongs to the height; others are taken for 0, as are the two angles
    LONG lfEscapement;
    LONG lfOrientation;
    LONG lfWeight;  // 100 to 1000; 0 is 400
    BYTE lfItalic;
    BYTE lfUnderline;
    BYTE lfStrikeOut;
    BYTE lfCharSet;
    BYTE lfOutPrecision;
    BYTE lfClipPrecision;
    BYTE lfQuality;
    BYTE lfPitchAndFamily;  // chooses a font where there is no name
    WCHAR lfFaceName[LF_FACESIZE];
};
using PLOGFONTW = LOGFONTW*;
using LPLOGFONTW = LOGFONTW*;

struct TEXTMETRICW {
    LONG tmHeight;
    LONG tmAscent;
    LONG tmDescent;
    LONG tmInternalLeading;
    LONG tmExternalLeading;
    LONG tmAveCharWidth;
    LONG tmMaxCharWidth;
    LONG tmWeight;
    LONG tmOverhang;
    LONG tmDigitizedAspectX;
    LONG tmDigitizedAspectY;
    WCHAR tmFirstChar;
    WCHAR tmLastChar;
    WCHAR tmDefaultChar;
    WCHAR tmBreakChar;
    BYTE tmItalic;
    BYTE tmUnderlined;
    BYTE tmStruckOut;
    BYTE tmPitchAndFamily;
    BYTE tmCharSet;
};
using LPTEXTMETRICW = TEXTMETRICW*;

struct BITMAP {
    LONG bmType;
    LONG bmWidth;
    LONG bmHeight;
    LONG bmWidthBytes;
    WORD bmPlanes;
    WORD bmBitsPixel;
    LPVOID bmBits;  // NULL
};

struct LOGBRUSH {
    UINT lbStyle;
    COLORREF lbColor;
    ULONG_PTR lbHatch;
};

struct LOGPEN {
    UINT lopnStyle;
    POINT lopnWidth;
    COLORREF lopnColor;
};

inline constexpr LONG FW_NORMAL = 400;
inline constexpr LONG FW_BOLD = 700;
inline constexpr BYTE DEFAULT_PITCH = 0;
inline constexpr BYTE FIXED_PITCH = 1;
inline constexpr BYTE VARIABLE_PITCH = 2;
inline constexpr BYTE FF_ROMAN = 1 << 4;
inline constexpr BYTE FF_SWISS = 2 << 4;
inline constexpr BYTE FF_MODERN = 3 << 4;

inline constexpr int WHITE_BRUSH = 0;
inline constexpr int LTGRAY_BRUSH = 1;
inline constexpr int GRAY_BRUSH = 2;
inline constexpr int DKGRAY_BRUSH = 3;
inline constexpr int BLACK_BRUSH = 4;
inline constexpr int NULL_BRUSH = 5;
inline constexpr int HOLLOW_BRUSH = NULL_BRUSH;
inline constexpr int WHITE_PEN = 6;
inline constexpr int BLACK_PEN = 7;
inline constexpr int NULL_PEN = 8;
inline constexpr int SYSTEM_FONT = 13;

inline constexpr UINT BS_SOLID = 0;
inline constexpr UINT BS_NULL = 1;
inline constexpr int PS_SOLID = 0;
inline constexpr int PS_NULL = 5;

inline constexpr int TECHNOLOGY = 2;
inline constexpr int HORZSIZE = 4;
inline constexpr int VERTSIZE = 6;
inline constexpr int HORZRES = 8;
inline constexpr int VERTRES = 10;
inline constexpr int BITSPIXEL = 12;
inline constexpr int PLANES = 14;
inline constexpr int NUMCOLORS = 24;
inline constexpr int LOGPIXELSX = 88;
inline constexpr int LOGPIXELSY = 90;
inline constexpr int COLORRES = 108;
inline constexpr int DT_RASDISPLAY = 1;

inline constexpr int TRANSPARENT = 1;
inline constexpr int OPAQUE = 2;
inline constexpr UINT ETO_OPAQUE = 0x0002;
inline constexpr UINT ETO_CLIPPED = 0x0004;

inline constexpr UINT DT_TOP = 0x0000;
inline constexpr UINT DT_LEFT = 0x0000;
inline constexpr UINT DT_CENTER = 0x0001;
inline constexpr UINT DT_RIGHT = 0x0002;
inline constexpr UINT DT_VCENTER = 0x0004;  // of a single line
inline constexpr UINT DT_BOTTOM = 0x0008;   // of a single line
inline constexpr UINT DT_WORDBREAK = 0x0010;
inline constexpr UINT DT_SINGLELINE = 0x0020;
inline constexpr UINT DT_EXPANDTABS = 0x0040;  // to multiples of eight average letters
inline constexpr UINT DT_NOCLIP = 0x0100;
inline constexpr UINT DT_CALCRECT = 0x0400;
inline constexpr UINT DT_NOPREFIX = 0x0800;
inline constexpr UINT DT_END_ELLIPSIS = 0x8000;
inline constexpr UINT DT_WORD_ELLIPSIS = 0x00040000;

inline constexpr COLORREF CLR_INVALID = 0xFFFFFFFF;

constexpr COLORREF RGB(unsigned red, unsigned green, unsigned blue) {
    return (red & 0xFF) | (green & 0xFF) << 8 | (blue & 0xFF) << 16;
}
constexpr BYTE GetRValue(COLORREF colour) {
    return static_cast<BYTE>(colour);
}
constexpr BYTE GetGValue(COLORREF colour) {
    return static_cast<BYTE>(colour >> 8);
}
constexpr BYTE GetBValue(COLORREF colour) {
    return static_cast<BYTE>(colour >> 16);
}

// number * numerator / denominator in 64 bits, halves rounded away from 0; -1 when it does not fit, or for no
// denominator.
ZRPLATFORM_API int MulDiv(int number, int numerator, int denominator);

// ---- Contexts ----

// The screen's; the driver is NULL or "DISPLAY", the rest is not looked at. NULL: ERROR_INVALID_PARAMETER.
ZRPLATFORM_API HDC CreateDCW(LPCWSTR driver, LPCWSTR device, LPCWSTR output, const void* data);
// A memory context, with a bitmap of one pixel; `like` may be NULL.
ZRPLATFORM_API HDC CreateCompatibleDC(HDC like);
// What the two functions above made.
ZRPLATFORM_API BOOL DeleteDC(HDC context);
// A window's context, NULL for the screen's, to be given back with ReleaseDC for the same window: 1, or 0.
ZRPLATFORM_API HDC GetDC(HWND window);
ZRPLATFORM_API int ReleaseDC(HWND window, HDC context);
// Of the screen (screen.h); 0 for what is not named above.
ZRPLATFORM_API int GetDeviceCaps(HDC context, int index);

// The object replaces the one of its kind, which is returned. A bitmap goes into memory contexts, into one at a time
// (ERROR_INVALID_PARAMETER).
ZRPLATFORM_API HGDIOBJ SelectObject(HDC context, HGDIOBJ object);
// FALSE with ERROR_BUSY while it is selected. Stock objects stay.
ZRPLATFORM_API BOOL DeleteObject(HGDIOBJ object);
// NULL with ERROR_INVALID_PARAMETER for what is not named above. The system font is sans serif, 9 points high.
ZRPLATFORM_API HGDIOBJ GetStockObject(int index);
// Fills the LOGFONTW, BITMAP, LOGBRUSH or LOGPEN, `size` bytes of it, and returns how many; without a buffer, how large
// it is.
ZRPLATFORM_API int GetObjectW(HGDIOBJ object, int size, void* buffer);

// Return what was set before; CLR_INVALID, and 0.
ZRPLATFORM_API COLORREF SetTextColor(HDC context, COLORREF colour);
ZRPLATFORM_API COLORREF SetBkColor(HDC context, COLORREF colour);
ZRPLATFORM_API COLORREF GetTextColor(HDC context);
ZRPLATFORM_API COLORREF GetBkColor(HDC context);
ZRPLATFORM_API int SetBkMode(HDC context, int mode);

// ---- Fonts and measures ----

// The font that comes nearest to the description is found when it is first used. Heights over 32,767 are that.
ZRPLATFORM_API HFONT CreateFontIndirectW(const LOGFONTW* description);
ZRPLATFORM_API BOOL GetTextMetricsW(HDC context, TEXTMETRICW* metrics);
// The text's width on one line, and the font's height.
ZRPLATFORM_API BOOL GetTextExtentPoint32W(HDC context, LPCWSTR text, int count, SIZE* size);
// The same; and in *fit, unless it is NULL, how many units fit into `room`, never a part of what belongs together (a
// pair of surrogates, a letter with its marks); in extents, unless it is NULL, how far the text goes behind each of the
// units (behind all of them when `fit` is NULL). What belongs together has one extent.
ZRPLATFORM_API BOOL GetTextExtentExPointW(HDC context, LPCWSTR text, int count, int room, int* fit, int* extents,
                                          SIZE* size);

// Ours: how wide each unit is at least in every text that consists of a stretch of this one and `mark` before or behind
// it, so that who tries many such texts need not measure those that are too wide anyway. For letters that are the same
// in every text, and for all of a text of plain letters, it is what they take; for others, whose form or font depends
// on what is beside them, 0.
ZRPLATFORM_API BOOL ZrGetLeastTextWidths(HDC context, LPCWSTR text, int count, WCHAR mark, int* widths);

// ---- Drawing ----

// Draws one line with its upper left corner at (x, y): in the text's colour, on the background's unless it is
// transparent. ETO_OPAQUE fills the rectangle first, ETO_CLIPPED keeps to it. With `spacing` each unit takes that many
// pixels.
ZRPLATFORM_API BOOL ExtTextOutW(HDC context, int x, int y, UINT options, const RECT* rectangle, LPCWSTR text,
                                UINT count, const int* spacing);
// Draws lines into a rectangle; `count` may be -1. A line ends at CR, LF or both, and with DT_WORDBREAK where the next
// word would be over the edge: before a word behind spaces, and in scripts without spaces where these allow it. A word
// that is wider than the rectangle stays whole. An & underlines the next letter and && is one, unless DT_NOPREFIX is
// given. With DT_CALCRECT nothing is drawn: the rectangle gets the text's width (of its widest line) and height.
// DT_END_ELLIPSIS ends a last line that is too wide in "...", DT_WORD_ELLIPSIS each. Returns the height; of a single
// line at the middle or the bottom from the rectangle's top on. 0: an error.
ZRPLATFORM_API int DrawTextW(HDC context, LPCWSTR text, int count, RECT* rectangle, UINT format);

// A bitmap of 32 bits a pixel, black; of one pixel when an extent is 0. NULL: ERROR_INVALID_PARAMETER for negative
// extents and those over 32,767, ERROR_NOT_ENOUGH_MEMORY.
ZRPLATFORM_API HBITMAP CreateCompatibleBitmap(HDC context, int width, int height);
ZRPLATFORM_API HBRUSH CreateSolidBrush(COLORREF colour);
ZRPLATFORM_API HPEN CreatePen(int style, int width, COLORREF colour);  // PS_SOLID or PS_NULL; as wide as 1 pixel
// Without its right and lower edge. 1, or 0.
ZRPLATFORM_API int FillRect(HDC context, const RECT* rectangle, HBRUSH brush);
// Its edge with the pen, right and lower edge excluded, and its inside with the brush.
ZRPLATFORM_API BOOL Rectangle(HDC context, int left, int top, int right, int bottom);
ZRPLATFORM_API COLORREF GetPixel(HDC context, int x, int y);  // CLR_INVALID outside
ZRPLATFORM_API COLORREF SetPixel(HDC context, int x, int y, COLORREF colour);

// Ours: writes the bitmap as a PNG file, which is replaced when it exists. The path is the handheld's (files.h).
ZRPLATFORM_API BOOL ZrWriteBitmapPng(HBITMAP bitmap, LPCWSTR path);
