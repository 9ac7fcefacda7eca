#include "object.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <new>

#include "names.h"

namespace zr::platform {
namespace {

// What only objects of ours have.
constexpr IID kOwnObject = {0x5E1B0B6A, 0x3B7C, 0x4C55, {0x9A, 0x0D, 0x7C, 0x51, 0x6E, 0x20, 0x8F, 0x13}};

std::u16string_view text_of(BSTR text) {
    return text != nullptr ? std::u16string_view(text, SysStringLen(text)) : std::u16string_view();
}

// What a caller writes may as well be a plain wide string, which has no length in front.
std::u16string_view plain_text_of(const WCHAR* text) {
    return text != nullptr ? std::u16string_view(text) : std::u16string_view();
}

void append_number(std::string& script, double value) {
    if (std::isnan(value)) {
        script += "NaN";
    } else if (std::isinf(value)) {
        script += value < 0 ? "-Infinity" : "Infinity";
    } else {
        std::array<char, 40> digits{};
        std::snprintf(digits.data(), digits.size(), "%.17g", value);
        for (char& c : digits) {
            if (c == ',') c = '.';  // of the program's locale
        }
        script += digits.data();
    }
}

// What a VT_BYREF variant refers to.
VARIANT looked_through(const VARIANT& value) {
    if ((value.vt & VT_BYREF) == 0) return value;
    const auto type = static_cast<VARTYPE>(value.vt & ~VT_BYREF);
    if (value.byref == nullptr) return {};
    if (type == VT_VARIANT) return *static_cast<const VARIANT*>(value.byref);
    VARIANT found{};
    found.vt = type;
    switch (type) {
        case VT_I1:
        case VT_UI1:
            found.bVal = *static_cast<const BYTE*>(value.byref);
            break;
        case VT_I2:
        case VT_UI2:
        case VT_BOOL:
            found.iVal = *static_cast<const SHORT*>(value.byref);
            break;
        case VT_BSTR:
        case VT_DISPATCH:
        case VT_UNKNOWN:
            found.byref = *static_cast<void* const*>(value.byref);
            break;
        case VT_I8:
        case VT_UI8:
        case VT_R8:
            found.llVal = *static_cast<const LONGLONG*>(value.byref);
            break;
        case VT_I4:
        case VT_UI4:
        case VT_INT:
        case VT_UINT:
        case VT_R4:
        case VT_ERROR:
            found.lVal = *static_cast<const LONG*>(value.byref);
            break;
        default:
            break;
    }
    return found;
}

// False: it is no number.
bool append_scalar(std::string& script, const VARIANT& value) {
    switch (value.vt) {
        case VT_I1:
            script += std::to_string(static_cast<signed char>(value.bVal));
            return true;
        case VT_UI1:
            script += std::to_string(value.bVal);
            return true;
        case VT_I2:
            script += std::to_string(value.iVal);
            return true;
        case VT_UI2:
            script += std::to_string(value.uiVal);
            return true;
        case VT_I4:
        case VT_INT:
            script += std::to_string(value.lVal);
            return true;
        case VT_UI4:
        case VT_UINT:
            script += std::to_string(value.ulVal);
            return true;
        case VT_I8:
            script += std::to_string(value.llVal);
            return true;
        case VT_UI8:
            script += std::to_string(value.ullVal);
            return true;
        case VT_R4:
            append_number(script, static_cast<double>(value.fltVal));
            return true;
        case VT_R8:
            append_number(script, value.dblVal);
            return true;
        default:
            return false;
    }
}

// Freed with the scope, however that is left.
struct OwnedVariant : VARIANT {
    OwnedVariant() : VARIANT{} {}
    ~OwnedVariant() { VariantClear(this); }
    OwnedVariant(const OwnedVariant&) = delete;
    OwnedVariant& operator=(const OwnedVariant&) = delete;
};

// What no other process's allocation failures may turn into an exception of a caller.
template <class Action>
HRESULT guarded(Action action) noexcept {
    try {
        return action();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

std::string script_call(const char* function, std::uint32_t id, std::u16string_view name) {
    std::string script = std::string("zr.") + function + "(" + std::to_string(id) + ",";
    append_literal(script, name);
    return script;
}

}  // namespace

HRESULT HtmlObject::QueryInterface(REFIID riid, void** object) {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (riid == IID_IUnknown || riid == IID_IDispatch || riid == IID_IDispatchEx) {
        *object = static_cast<IDispatchEx*>(this);
    } else if (riid == IID_IScriptControl && id_ == kRootObject) {
        *object = static_cast<IScriptControl*>(&script_);
    } else if (riid == kOwnObject) {
        *object = this;
    } else {
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}

ULONG HtmlObject::Release() {
    const std::shared_ptr<Document> document = document_;
    const ULONG left = document->release(this);
    if (left == 0) delete this;
    return left;
}

HRESULT HtmlObject::GetTypeInfoCount(UINT* count) {
    if (count == nullptr) return E_POINTER;
    *count = 0;
    return S_OK;
}

HRESULT HtmlObject::GetTypeInfo(UINT, LCID, ITypeInfo** info) {
    if (info != nullptr) *info = nullptr;
    return E_NOTIMPL;
}

HRESULT HtmlObject::find(std::u16string_view name, DWORD flags, DISPID* id) {
    std::string what;
    std::string script = script_call("name", id_, name);
    script += (flags & fdexNameCaseInsensitive) != 0 ? ",true)" : ",false)";
    if (const HRESULT result = document_->call(script, what); FAILED(result)) return result;
    OwnedVariant found;
    HRESULT result = document_->take_as(VT_BSTR, what, &found);
    if (SUCCEEDED(result)) {
        *id = id_of_name(text_of(found.vt == VT_BSTR ? found.bstrVal : nullptr));
    } else if (result == DISP_E_MEMBERNOTFOUND) {
        if ((flags & fdexNameEnsure) == 0) return DISP_E_UNKNOWNNAME;
        *id = id_of_name(name);
        result = S_OK;
    }
    if (FAILED(result)) return result;
    return *id == DISPID_UNKNOWN ? E_OUTOFMEMORY : S_OK;
}

HRESULT HtmlObject::GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID, DISPID* ids) {
    if (riid != IID_NULL) return DISP_E_UNKNOWNINTERFACE;
    if (names == nullptr || ids == nullptr || count == 0) return E_INVALIDARG;
    // Arguments have no names.
    for (UINT i = 0; i < count; ++i) {
        ids[i] = DISPID_UNKNOWN;
    }
    const HRESULT result = guarded([&] { return find(plain_text_of(names[0]), fdexNameCaseInsensitive, &ids[0]); });
    return SUCCEEDED(result) && count > 1 ? DISP_E_UNKNOWNNAME : result;
}

HRESULT HtmlObject::GetDispID(BSTR name, DWORD flags, DISPID* id) {
    if (id == nullptr) return E_POINTER;
    *id = DISPID_UNKNOWN;
    if (name == nullptr) return E_INVALIDARG;
    return guarded([&] { return find(plain_text_of(name), flags, id); });
}

HRESULT HtmlObject::append_value(std::string& script, const VARIANT& given, bool is_put) const {
    const VARIANT value = looked_through(given);
    if (append_scalar(script, value)) return S_OK;
    switch (value.vt) {
        case VT_EMPTY:
            script += "undefined";
            return S_OK;
        case VT_NULL:
            script += "null";
            return S_OK;
        case VT_BOOL:
            script += value.boolVal != VARIANT_FALSE ? "true" : "false";
            return S_OK;
        case VT_BSTR:
            append_literal(script, is_put ? plain_text_of(value.bstrVal) : text_of(value.bstrVal));
            return S_OK;
        case VT_ERROR:
            script += "undefined";
            return value.scode == DISP_E_PARAMNOTFOUND ? S_OK : DISP_E_TYPEMISMATCH;
        case VT_DISPATCH:
        case VT_UNKNOWN: {
            if (value.punkVal == nullptr) {
                script += "null";
                return S_OK;
            }
            // Only ours are known to be objects of this document.
            void* known = nullptr;
            if (FAILED(value.punkVal->QueryInterface(kOwnObject, &known)) || known == nullptr) {
                return DISP_E_TYPEMISMATCH;
            }
            auto* const ours = static_cast<HtmlObject*>(known);
            const bool is_here = ours->document_ == document_;
            if (is_here) script += "zr.value(" + std::to_string(ours->id_) + ")";
            ours->Release();
            return is_here ? S_OK : DISP_E_TYPEMISMATCH;
        }
        default:
            return DISP_E_TYPEMISMATCH;
    }
}

// The last one comes first.
HRESULT HtmlObject::append_arguments(std::string& script, const DISPPARAMS& params, UINT* argument_error) const {
    script += ",[";
    for (UINT i = params.cArgs; i > 0; --i) {
        if (const HRESULT result = append_value(script, params.rgvarg[i - 1], false); FAILED(result)) {
            if (argument_error != nullptr) *argument_error = i - 1;
            return result;
        }
        script += ",";
    }
    script += "]";
    return S_OK;
}

HRESULT HtmlObject::invoke(DISPID id, WORD flags, const DISPPARAMS& params, VARIANT* result, EXCEPINFO* exception,
                           UINT* argument_error) {
    std::u16string name;
    if (!name_of_id(id, name)) return DISP_E_MEMBERNOTFOUND;
    if (params.cArgs != 0 && params.rgvarg == nullptr) return E_INVALIDARG;
    std::string script;
    HRESULT checked = S_OK;
    if ((flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF)) != 0) {
        if (params.cArgs != 1) return DISP_E_BADPARAMCOUNT;
        script = script_call("put", id_, name) + ",";
        checked = append_value(script, params.rgvarg[0], true);
        if (FAILED(checked) && argument_error != nullptr) *argument_error = 0;
        script += ")";
        result = nullptr;
    } else if (params.cNamedArgs != 0) {
        return DISP_E_NONAMEDARGS;
    } else if ((flags & DISPATCH_METHOD) != 0 || params.cArgs != 0) {
        script = script_call("call", id_, name);
        checked = append_arguments(script, params, argument_error);
        script += (flags & DISPATCH_PROPERTYGET) != 0 ? ",true)" : ",false)";
    } else if ((flags & DISPATCH_PROPERTYGET) != 0) {
        script = script_call("get", id_, name) + ")";
    } else {
        return E_INVALIDARG;
    }
    if (FAILED(checked)) return checked;
    std::string what;
    if (const HRESULT called = document_->call(script, what, exception); FAILED(called)) return called;
    const HRESULT taken = document_->take(what, result, exception);
    // Who asks for a style takes its pointer without a look at the type.
    if (id == ZR_DISPID_HTML_STYLE && SUCCEEDED(taken) && result && result->vt != VT_DISPATCH) VariantClear(result);
    return taken;
}

HRESULT HtmlObject::Invoke(DISPID member, REFIID riid, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                           EXCEPINFO* exception, UINT* argument_error) {
    if (riid != IID_NULL) return DISP_E_UNKNOWNINTERFACE;
    const DISPPARAMS none{};
    return guarded([&] { return invoke(member, flags, params ? *params : none, result, exception, argument_error); });
}

HRESULT HtmlObject::InvokeEx(DISPID id, LCID, WORD flags, DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                             IServiceProvider*) {
    const DISPPARAMS none{};
    return guarded([&] { return invoke(id, flags, params ? *params : none, result, exception, nullptr); });
}

HRESULT HtmlObject::DeleteMemberByName(BSTR name, DWORD flags) {
    DISPID id = DISPID_UNKNOWN;
    const HRESULT result = GetDispID(name, flags & ~fdexNameEnsure, &id);
    if (result == DISP_E_UNKNOWNNAME) return S_OK;  // it is not there any more
    return SUCCEEDED(result) ? DeleteMemberByDispID(id) : result;
}

HRESULT HtmlObject::DeleteMemberByDispID(DISPID id) {
    return guarded([&] {
        std::u16string name;
        if (!name_of_id(id, name)) return DISP_E_MEMBERNOTFOUND;
        std::string what;
        VARIANT gone{};
        HRESULT result = document_->call(script_call("remove", id_, name) + ")", what);
        if (SUCCEEDED(result)) result = document_->take_as(VT_BOOL, what, &gone);
        if (FAILED(result)) return result;
        return gone.boolVal != VARIANT_FALSE ? S_OK : S_FALSE;
    });
}

HRESULT HtmlObject::GetMemberProperties(DISPID, DWORD, DWORD* properties) {
    if (properties != nullptr) *properties = 0;
    return E_NOTIMPL;
}

HRESULT HtmlObject::GetMemberName(DISPID id, BSTR* name) {
    if (name == nullptr) return E_POINTER;
    *name = nullptr;
    return guarded([&] {
        std::u16string known;
        if (!name_of_id(id, known)) return DISP_E_MEMBERNOTFOUND;
        *name = SysAllocStringLen(known.data(), static_cast<UINT>(known.size()));
        return *name != nullptr ? S_OK : E_OUTOFMEMORY;
    });
}

HRESULT HtmlObject::GetNextDispID(DWORD, DISPID id, DISPID* next) {
    if (next == nullptr) return E_POINTER;
    *next = DISPID_UNKNOWN;
    return guarded([&] {
        std::u16string name;
        if (id != DISPID_STARTENUM && !name_of_id(id, name)) return DISP_E_MEMBERNOTFOUND;
        std::string what;
        OwnedVariant found;
        HRESULT result = document_->call(script_call("next", id_, name) + ")", what);
        if (SUCCEEDED(result)) result = document_->take_as(VT_BSTR, what, &found);
        if (result == DISP_E_MEMBERNOTFOUND) return S_FALSE;
        if (FAILED(result)) return result;
        *next = id_of_name(text_of(found.bstrVal));
        return *next == DISPID_UNKNOWN ? E_OUTOFMEMORY : S_OK;
    });
}

HRESULT HtmlObject::GetNameSpaceParent(IUnknown** parent) {
    if (parent == nullptr) return E_POINTER;
    *parent = nullptr;
    return S_OK;
}

// ---- Scripts ----

HRESULT HtmlObject::Script::get_Language(BSTR* language) {
    if (language == nullptr) return E_POINTER;
    *language = SysAllocString(u"JScript");
    return *language != nullptr ? S_OK : E_OUTOFMEMORY;
}

HRESULT HtmlObject::Script::get_Timeout(LONG* milliseconds) {
    if (milliseconds == nullptr) return E_POINTER;
    *milliseconds = static_cast<LONG>(engine_patience().call);
    return S_OK;
}

HRESULT HtmlObject::Script::get_AllowUI(VARIANT_BOOL* allow) {
    if (allow == nullptr) return E_POINTER;
    *allow = VARIANT_FALSE;
    return S_OK;
}

HRESULT HtmlObject::Script::Eval(BSTR expression, VARIANT* result) {
    if (expression == nullptr) return E_INVALIDARG;
    return guarded([&] {
        std::string what;
        const std::string script = utf8_of(plain_text_of(expression), LoneSurrogate::Escaped);
        if (const HRESULT run = owner_.document().run(script, what); FAILED(run)) return run;
        return owner_.document().take(what, result, nullptr);
    });
}

}  // namespace zr::platform
