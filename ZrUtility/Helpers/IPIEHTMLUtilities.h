#pragma once

// A few properties of the elements of an HTML control's document, read and written by late binding: their identifiers
// are fixed here.
//
// Call these on the thread that owns the control. Objects stay the caller's. Results are those of the object,
// unchanged; nothing is logged.

#include "ZrUtility/Export.h"
#include "platform/com.h"
#include "platform/types.h"

class ZRUTILITY_API IPIEHTMLUtilities {
public:
    // *value becomes the property's string, the caller's to free with FreeString; NULL when the call fails, when the
    // string is a null one, and when the property is no string: what it holds then is released. E_POINTER, with nothing
    // set: no object or no place for the value.
    static LONG IDispatchEx__PROPERTYGET(IDispatchEx* object, LONG dispid, const WCHAR** value);
    // *value becomes the property's object, the caller's to release; NULL when the call fails or nothing came back. It
    // is the pointer in what came back whatever type that says to be, so this is for properties that are objects.
    // E_POINTER as above.
    static LONG IDispatchEx__PROPERTYGET(IDispatchEx* object, LONG dispid, IUnknown** value);
    // Hands the object the caller's string as it is: it is no BSTR unless the caller's is one, and ends with its
    // terminator. E_POINTER: no object; E_INVALIDARG: no string.
    static LONG IDispatchEx__PROPERTYPUT(IDispatchEx* object, LONG dispid, const WCHAR* value);

    // The gets and the put above with the property's identifier.
    static LONG IPIEHTMLElement__get_id(IDispatchEx* element, const WCHAR** value);
    static LONG IPIEHTMLAnchorElement__get_href(IDispatchEx* element, const WCHAR** value);
    static LONG IPIEHTMLControlElement__get_value(IDispatchEx* element, const WCHAR** value);
    // *style becomes the element's style, the caller's to release. It is left as it is when the get fails or succeeds
    // without an object; then it is asked of the object, and the result is the object's answer.
    static LONG IPIEHTMLElement__get_style(IDispatchEx* element, IDispatchEx** style);
    static LONG IPIEHTMLStyle__get_display(IDispatchEx* style, const WCHAR** value);
    static LONG IPIEHTMLStyle__put_display(IDispatchEx* style, const WCHAR* value);

    // Frees a string that a get handed out; NULL is let pass.
    static void FreeString(const WCHAR* string);

private:
    IPIEHTMLUtilities() {}
};
