#include "ZrUtility/Helpers/HTMLScriptUtilities.h"

#include <memory>
#include <new>

#include "platform/base.h"
#include "platform/com.h"
#include "platform/html.h"
#include "platform/windowing.h"

namespace {

constexpr const WCHAR* kRefreshImage = u"var elem = document.all['%s'];elem.src = elem.src;";
constexpr const WCHAR* kFocusLink =
    u"for (var i = 0; i < document.anchors.length; i += 1)"
    u"{if (document.anchors[i].href == '%s'){document.anchors[i].focus();}}";

}  // namespace

LONG HTMLScriptUtilities::ExecuteCommand(HWND control, const WCHAR* script) {
    if (!control || !script) return E_INVALIDARG;
    IDispatch* document = nullptr;
    SendMessageW(control, DTM_DOCUMENTDISPATCH, 0, reinterpret_cast<LPARAM>(&document));
    if (!document) return E_FAIL;
    IScriptControl* runner = nullptr;
    const HRESULT found = document->QueryInterface(IID_IScriptControl, reinterpret_cast<void**>(&runner));
    document->Release();
    if (FAILED(found)) return found;
    if (!runner) return E_UNEXPECTED;
    VARIANT value;
    VariantInit(&value);
    const HRESULT result = runner->Eval(const_cast<BSTR>(script), &value);
    runner->Release();
    if (SUCCEEDED(result)) VariantClear(&value);
    return result;
}

LONG HTMLScriptUtilities::ExecuteTemplate(HWND control, const WCHAR* format, std::size_t formatLength,
                                          const WCHAR* text) {
    const std::unique_ptr<WCHAR[]> script(new (std::nothrow) WCHAR[wcslen(text) + formatLength + 1]);
    if (!script) return E_OUTOFMEMORY;
    wsprintfW(script.get(), format, text);
    return ExecuteCommand(control, script.get());
}

LONG HTMLScriptUtilities::RefreshImageById(HWND control, const WCHAR* id) {
    if (!id || !control) return E_INVALIDARG;
    static const std::size_t length = wcslen(kRefreshImage);
    return ExecuteTemplate(control, kRefreshImage, length, id);
}

LONG HTMLScriptUtilities::FocusByHref(HWND control, const WCHAR* href) {
    if (!href || !control) return E_INVALIDARG;
    static const std::size_t length = wcslen(kFocusLink);
    return ExecuteTemplate(control, kFocusLink, length, href);
}
