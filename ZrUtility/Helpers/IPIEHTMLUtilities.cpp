#include "ZrUtility/Helpers/IPIEHTMLUtilities.h"

namespace {

constexpr DISPID kElementId = 0x60030001;
constexpr DISPID kElementStyle = 0x60030009;
constexpr DISPID kAnchorHref = 0x60040000;
constexpr DISPID kControlValue = 0x60040001;
constexpr DISPID kStyleDisplay = 1021;

HRESULT GetProperty(IDispatchEx* object, DISPID dispid, VARIANT* result) {
    DISPPARAMS none{};
    return object->InvokeEx(dispid, 0, DISPATCH_PROPERTYGET, &none, result, nullptr, nullptr);
}

}  // namespace

LONG IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(IDispatchEx* object, LONG dispid, const WCHAR** value) {
    if (!object || !value) return E_POINTER;
    *value = nullptr;
    VARIANT property;
    VariantInit(&property);
    const HRESULT result = GetProperty(object, dispid, &property);
    if (FAILED(result)) return result;
    if (property.vt == VT_BSTR) {
        *value = property.bstrVal;
    } else {
        VariantClear(&property);
    }
    return result;
}

LONG IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(IDispatchEx* object, LONG dispid, IUnknown** value) {
    if (!object || !value) return E_POINTER;
    *value = nullptr;
    VARIANT property;
    VariantInit(&property);
    property.vt = VT_UNKNOWN;
    property.punkVal = nullptr;
    const HRESULT result = GetProperty(object, dispid, &property);
    if (SUCCEEDED(result)) *value = property.punkVal;
    return result;
}

LONG IPIEHTMLUtilities::IDispatchEx__PROPERTYPUT(IDispatchEx* object, LONG dispid, const WCHAR* value) {
    if (!object) return E_POINTER;
    if (!value) return E_INVALIDARG;
    VARIANT argument;
    VariantInit(&argument);
    argument.vt = VT_BSTR;
    argument.bstrVal = const_cast<BSTR>(value);
    DISPID name = DISPID_PROPERTYPUT;
    DISPPARAMS one{&argument, &name, 1, 1};
    return object->InvokeEx(dispid, 0, DISPATCH_PROPERTYPUT, &one, nullptr, nullptr, nullptr);
}

LONG IPIEHTMLUtilities::IPIEHTMLElement__get_id(IDispatchEx* element, const WCHAR** value) {
    return IDispatchEx__PROPERTYGET(element, kElementId, value);
}

LONG IPIEHTMLUtilities::IPIEHTMLAnchorElement__get_href(IDispatchEx* element, const WCHAR** value) {
    return IDispatchEx__PROPERTYGET(element, kAnchorHref, value);
}

LONG IPIEHTMLUtilities::IPIEHTMLControlElement__get_value(IDispatchEx* element, const WCHAR** value) {
    return IDispatchEx__PROPERTYGET(element, kControlValue, value);
}

LONG IPIEHTMLUtilities::IPIEHTMLElement__get_style(IDispatchEx* element, IDispatchEx** style) {
    IUnknown* object = nullptr;
    LONG result = IDispatchEx__PROPERTYGET(element, kElementStyle, &object);
    if (FAILED(result) || !object) return result;
    result = object->QueryInterface(IID_IDispatchEx, reinterpret_cast<void**>(style));
    object->Release();
    return result;
}

LONG IPIEHTMLUtilities::IPIEHTMLStyle__get_display(IDispatchEx* style, const WCHAR** value) {
    return IDispatchEx__PROPERTYGET(style, kStyleDisplay, value);
}

LONG IPIEHTMLUtilities::IPIEHTMLStyle__put_display(IDispatchEx* style, const WCHAR* value) {
    return IDispatchEx__PROPERTYPUT(style, kStyleDisplay, value);
}

void IPIEHTMLUtilities::FreeString(const WCHAR* string) {
    SysFreeString(const_cast<BSTR>(string));
}
