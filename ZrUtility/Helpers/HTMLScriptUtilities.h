#pragma once

// Short scripts in the document that an HTML control shows.
//
// Call these on the thread that owns the control. Results are COM's, those of the control's interfaces unchanged;
// nothing is logged.

#include "ZrUtility/Export.h"
#include "platform/types.h"

class ZRUTILITY_API HTMLScriptUtilities {
public:
    // Runs the script, which is handed on as it is, in the caller's buffer; what it evaluates to is dropped.
    // E_INVALIDARG: no control or no script, looked at before the control is. E_FAIL: the control has no document, or
    // is none. E_UNEXPECTED: the document says that it runs scripts, and hands out nothing that does.
    static LONG ExecuteCommand(HWND control, const WCHAR* script);

    // Makes the control load the image with this id again.
    static LONG RefreshImageById(HWND control, const WCHAR* id);
    // Focuses each anchor with this address in turn: the last one keeps the focus.
    static LONG FocusByHref(HWND control, const WCHAR* href);
    // Of both: the text stands in the script as it is, so a quote in it breaks the script, and what comes from a
    // stranger may be a script itself. wsprintfW fills it in, which stores 1023 characters at the most: of a longer
    // script the rest is cut off. E_INVALIDARG: no control or no text, looked at before the control is. E_OUTOFMEMORY.

private:
    HTMLScriptUtilities() {}

    static LONG ExecuteTemplate(HWND control, const WCHAR* format, std::size_t formatLength, const WCHAR* text);
};
