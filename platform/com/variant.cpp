#include "platform/com.h"

void VariantInit(VARIANT* variant) {
    *variant = {};
}

HRESULT VariantClear(VARIANT* variant) {
    if (variant == nullptr) return E_INVALIDARG;
    switch (variant->vt) {
        case VT_BSTR:
            SysFreeString(variant->bstrVal);
            break;
        case VT_DISPATCH:
            if (variant->pdispVal != nullptr) variant->pdispVal->Release();
            break;
        case VT_UNKNOWN:
            if (variant->punkVal != nullptr) variant->punkVal->Release();
            break;
        case VT_EMPTY:
        case VT_NULL:
        case VT_I2:
        case VT_I4:
        case VT_R4:
        case VT_R8:
        case VT_DATE:
        case VT_ERROR:
        case VT_BOOL:
        case VT_CY:
        case VT_DECIMAL:
        case VT_I1:
        case VT_UI1:
        case VT_UI2:
        case VT_UI4:
        case VT_I8:
        case VT_UI8:
        case VT_INT:
        case VT_UINT:
            break;
        default:
            if ((variant->vt & VT_BYREF) == 0) return DISP_E_BADVARTYPE;
    }
    *variant = {};
    return S_OK;
}
