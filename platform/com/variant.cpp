#include "platform/com.h"

namespace {

bool is_type(VARTYPE type) {
    switch (type) {
        case VT_EMPTY:
        case VT_NULL:
        case VT_I2:
        case VT_I4:
        case VT_R4:
        case VT_R8:
        case VT_CY:
        case VT_DATE:
        case VT_BSTR:
        case VT_DISPATCH:
        case VT_ERROR:
        case VT_BOOL:
        case VT_UNKNOWN:
        case VT_DECIMAL:
        case VT_I1:
        case VT_UI1:
        case VT_UI2:
        case VT_UI4:
        case VT_I8:
        case VT_UI8:
        case VT_INT:
        case VT_UINT:
            return true;
        default:
            return false;
    }
}

// What a variant may refer to: a value of a type that has values, or another variant.
bool is_reference(VARTYPE type) {
    const VARTYPE target = type & static_cast<VARTYPE>(~VT_BYREF);
    if (type == target || target == VT_EMPTY || target == VT_NULL) return false;
    return target == VT_VARIANT || is_type(target);
}

}  // namespace

void VariantInit(VARIANT* variant) {
    *variant = {};
}

HRESULT VariantClear(VARIANT* variant) {
    if (variant == nullptr) return E_INVALIDARG;
    if (!is_type(variant->vt) && !is_reference(variant->vt)) return DISP_E_BADVARTYPE;
    if (variant->vt == VT_BSTR) SysFreeString(variant->bstrVal);
    if (variant->vt == VT_DISPATCH && variant->pdispVal != nullptr) variant->pdispVal->Release();
    if (variant->vt == VT_UNKNOWN && variant->punkVal != nullptr) variant->punkVal->Release();
    *variant = {};
    return S_OK;
}
