#pragma once

// A parent with an HTML control, and what the control told it.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "html/engine_patience.h"
#include "platform/html.h"
#include "platform/platform.h"
#include "support/com_ptr.h"

namespace zr::test {

// A page of fifty megabytes takes a few seconds, and many times as long on a machine with other work.
inline constexpr DWORD kPageTime = 180'000;

struct Told {
    UINT code;
    std::u16string target;
    DWORD_PTR cookie;
};

class HtmlParent {
public:
    HtmlParent() {
        zr::platform::engine_patience() = {120'000, 120'000, 60'000};
        static const ATOM atom = [] {
            WNDCLASSW made{};
            made.lpfnWndProc = procedure;
            made.lpszClassName = u"HtmlParent";
            InitHTMLControl(nullptr);
            return RegisterClassW(&made);
        }();
        window_ = CreateWindowW(MAKEINTATOM(atom), u"", 0, 0, 0, 240, 320, nullptr, nullptr, nullptr, nullptr);
        SetWindowLongPtrW(window_, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
        control_ = CreateWindowW(WC_HTML, u"", WS_CHILD, 0, 0, 240, 320, window_, reinterpret_cast<HMENU>(77), nullptr,
                                 nullptr);
    }
    ~HtmlParent() { DestroyWindow(window_); }
    HtmlParent(const HtmlParent&) = delete;
    HtmlParent& operator=(const HtmlParent&) = delete;

    HWND control() const { return control_; }

    // S_OK, or why it was refused; for the messages that give TRUE or FALSE.
    template <class Text>
    HRESULT send(UINT message, WPARAM wparam, const Text* text) {
        const LRESULT sent = SendMessageW(control_, message, wparam, reinterpret_cast<LPARAM>(text));
        return sent ? S_OK : HRESULT_FROM_WIN32(GetLastError());
    }
    HRESULT begin(const WCHAR* source) { return send(WM_SETTEXT, 0, source); }
    // Shows it and waits until it is whole.
    HRESULT show(const WCHAR* source) {
        const HRESULT begun = begin(source);
        return FAILED(begun) ? begun : ZrHtmlWait(control_, kPageTime);
    }
    Ptr<IDispatchEx> document() {
        Ptr<IDispatch> found;
        SendMessageW(control_, DTM_DOCUMENTDISPATCH, 0, reinterpret_cast<LPARAM>(found.out()));
        Ptr<IDispatchEx> object;
        if (found) found->QueryInterface(IID_IDispatchEx, object.any());
        return object;
    }
    int count(UINT code) const {
        int found = 0;
        for (const Told& one : told) {
            found += one.code == code;
        }
        return found;
    }

    std::vector<Told> told;
    std::function<LRESULT(const Told&)> answer;  // to NM_INLINE_IMAGE

private:
    static LRESULT procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
        auto* const self = reinterpret_cast<HtmlParent*>(GetWindowLongPtrW(window, GWLP_USERDATA));
        if (message != WM_NOTIFY || self == nullptr) return DefWindowProcW(window, message, wparam, lparam);
        const auto& view = *reinterpret_cast<const NM_HTMLVIEWW*>(lparam);
        EXPECT_EQ(wparam, 77u);
        EXPECT_EQ(view.hdr.hwndFrom, self->control_);
        self->told.push_back({view.hdr.code, view.szTarget, view.dwCookie});
        const Told copy = self->told.back();
        return copy.code == NM_INLINE_IMAGE && self->answer ? self->answer(copy) : FALSE;
    }

    HWND window_ = nullptr;
    HWND control_ = nullptr;
};

// A VARIANT that frees what it holds.
struct Value : VARIANT {
    Value() { VariantInit(this); }
    ~Value() { VariantClear(this); }
    Value(const Value&) = delete;
    Value& operator=(const Value&) = delete;
    std::u16string text() const {
        return vt == VT_BSTR ? std::u16string(bstrVal, SysStringLen(bstrVal)) : std::u16string();
    }
};

// Of no object there are no members.
inline DISPID id_of(IDispatchEx* object, const WCHAR* name, DWORD flags = fdexNameEnsure) {
    if (object == nullptr) return DISPID_UNKNOWN;
    const BSTR text = SysAllocString(name);
    DISPID id = DISPID_UNKNOWN;
    EXPECT_EQ(object->GetDispID(text, flags, &id), S_OK);
    SysFreeString(text);
    return id;
}

inline HRESULT get(IDispatchEx* object, DISPID id, VARIANT* value) {
    if (object == nullptr) return E_POINTER;
    DISPPARAMS none{};
    return object->InvokeEx(id, 0, DISPATCH_PROPERTYGET, &none, value, nullptr, nullptr);
}

inline HRESULT put(IDispatchEx* object, DISPID id, const WCHAR* text) {
    if (object == nullptr) return E_POINTER;
    VARIANT value{};
    value.vt = VT_BSTR;
    value.bstrVal = const_cast<WCHAR*>(text);
    DISPID named = DISPID_PROPERTYPUT;
    DISPPARAMS params{&value, &named, 1, 1};
    return object->InvokeEx(id, 0, DISPATCH_PROPERTYPUT, &params, nullptr, nullptr, nullptr);
}

inline HRESULT call(IDispatchEx* object, DISPID id, const WCHAR* text, VARIANT* result) {
    if (object == nullptr) return E_POINTER;
    Value argument;
    argument.vt = VT_BSTR;
    argument.bstrVal = SysAllocString(text);
    DISPPARAMS params{&argument, nullptr, 1, 0};
    return object->InvokeEx(id, 0, DISPATCH_METHOD, &params, result, nullptr, nullptr);
}

inline Ptr<IDispatchEx> element(IDispatchEx* document, const WCHAR* id) {
    Value found;
    Ptr<IDispatchEx> object;
    if (SUCCEEDED(call(document, id_of(document, u"getElementById"), id, &found)) && found.vt == VT_DISPATCH) {
        found.pdispVal->QueryInterface(IID_IDispatchEx, object.any());
    }
    return object;
}

inline HRESULT eval(IDispatchEx* document, const WCHAR* script, VARIANT* result) {
    if (document == nullptr) return E_POINTER;
    Ptr<IScriptControl> scripts;
    const HRESULT found = document->QueryInterface(IID_IScriptControl, scripts.any());
    return FAILED(found) ? found : scripts->Eval(const_cast<WCHAR*>(script), result);
}

// Handles messages until it is so; false when it is not for too long.
inline bool pump_until(const std::function<bool()>& is_so) {
    const DWORD begin = GetTickCount();
    while (!is_so()) {
        if (GetTickCount() - begin > kPageTime) return false;
        MSG message;
        MsgWaitForMultipleObjectsEx(0, nullptr, 1000, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            DispatchMessageW(&message);
        }
    }
    return true;
}

inline std::string trouble() {
    WCHAR text[512]{};
    const int length = ZrHtmlTrouble(text, 512);
    return std::string(text, text + length);
}

// Whether this computer has what shows documents.
#define ZR_NEEDS_ENGINE(shown)                                                                   \
    if ((shown) == HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND)) GTEST_SKIP() << zr::test::trouble(); \
    ASSERT_EQ(shown, S_OK)

}  // namespace zr::test
