#pragma once

// The screen, its input panel, text that is to fit a place, windows that are to fit their parent.
//
// Call these on the thread that owns the windows concerned. Nothing is logged; a call that cannot measure (there is no
// such window, no font) leaves texts and rectangles as they are.

#include "ZrUtility/Export.h"
#include "platform/gdi.h"
#include "platform/types.h"

class ZRUTILITY_API GraphicalUtilities {
public:
    // Bits of colour; pixels per metre, truncated; pixels. 0 when the screen cannot be asked.
    static int GetColourDepth();
    static int GetHorizontalResolution();
    static int GetVerticalResolution();
    static int GetScreenHeight();
    static int GetScreenWidth();
    // 1 with more than 96 dots per inch across, else 0.
    static int IsHighRes();

    // 1 while the input panel is up, else 0; how high it is, up or not.
    static int IsSipUp();
    static int GetSipHeight();

    // The font of the window's parent, or the system's where there is no window, parent or font; bold (700) and of
    // pointSize points unless that is 0. The caller deletes it. NULL: there is none.
    static HFONT CreateDefaultFont(HWND window, int bold, int pointSize);

    // The place, at (0, 0), that the text takes in lines as wide as bounds.
    static RECT CalTextRect(HWND window, WCHAR* text, RECT bounds);
    // The window's rectangle in its parent's client area; left as it is without a parent.
    static void GetRectInClient(HWND window, RECT* rect);

    // The next three shorten a text in place. Its place is rect, or the window's client area for NULL, less one pixel
    // on each side; it is measured in the font of the window's device context. They cut by units: half a surrogate pair
    // may be left. E_UNEXPECTED for no window or no text.

    // On one line: cuts from the end (atEnd) or from the start until the rest fits together with an ellipsis character
    // in place of its last or first one, or one character is left. 0. Cut from the start down to one character the text
    // is not moved: it keeps its length, its first character, and ellipses behind it.
    static LONG TrimWithEllipsisToRect(HWND window, RECT* rect, WCHAR* text, int atEnd);
    // Keeps what begins at splitAt whole and cuts what is before it; where there is no room for the former it cuts the
    // whole text at its end. E_FAIL unless splitAt is within the text; E_OUTOFMEMORY.
    static LONG TrimWithEllipsisToRectEx(HWND window, RECT* rect, WCHAR* text, int splitAt);
    // In lines: with addEllipsis the text ends in an ellipsis character where it no longer fits the height. Without, it
    // is left as it is. 0.
    static LONG TrimWithEllipsisToRectMultiLine(HWND window, RECT* rect, WCHAR* text, int addEllipsis);

    // Makes the window as wide as leaves the same margin on both sides, when the parent's client area begins at the
    // screen's left edge; tells `notify` (if any) with message 1129 and the window. The width; 0 without a parent.
    static int StretchToFit(HWND window, HWND notify);
    // Sizes a page to its property sheet. Not 0 when it was moved.
    static int SizePageToFitSheet(HWND page);

private:
    GraphicalUtilities() {}

    static int ZrGetDeviceCaps(int index, float multiplier, float divisor);
};
