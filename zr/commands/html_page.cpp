#include "zr/commands/html_page.h"

#include <platform/base.h>
#include <platform/com.h>
#include <platform/errors.h>
#include <platform/html.h>
#include <platform/windowing.h>

#include <algorithm>
#include <cmath>
#include <memory>

#include "zr/base/failure.h"
#include "zr/base/output_file.h"
#include "zr/base/text.h"
#include "zr/stores/com_ptr.h"

namespace zr {
namespace {

constexpr DWORD kPatience = 60'000;  // milliseconds: what a page names may have to be fetched
constexpr WCHAR kOwnerClass[] = u"zr.html.page";

// Stand behind a link's address and behind its text; what a page has of them is taken out.
constexpr char kAddressEnd = '\x1F';
constexpr char kLinkEnd = '\x1E';
constexpr const char* kLinksScript =
    "(function () {"
    "  function bare(text) { return String(text).replace(/[\\x1e\\x1f]/g, ''); }"
    "  var out = '';"
    "  for (var i = 0; i < document.links.length; i += 1) {"
    "    var link = document.links[i];"
    "    var text = bare(link.innerText || link.textContent).replace(/\\s+/g, ' ').trim();"
    "    out += bare(link.href) + '\\x1f' + text + '\\x1e';"
    "  }"
    "  return out;"
    "})()";
constexpr const char* kTextScript = "document.body ? document.body.innerText : ''";

[[noreturn]] void fail(HRESULT result) {
    WCHAR trouble[512];
    std::string text = "the page cannot be shown";
    if (result == HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND) && ZrHtmlTrouble(trouble, 512) > 0) {
        text = to_utf8(trouble);
    } else if (result == HRESULT_FROM_WIN32(ERROR_TIMEOUT)) {
        text = "the page does not answer";
    } else if (result == HRESULT_FROM_WIN32(ERROR_PROCESS_ABORTED) || result == RPC_E_DISCONNECTED) {
        text = "the engine ended over the page";
    } else if (result == DISP_E_EXCEPTION) {
        text = "the script failed";
    } else if (result == E_OUTOFMEMORY || result == HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY)) {
        text = "there is no memory for the page";
    }
    throw Failure{Exit::PageFailed, text};
}

HRESULT last_result() {
    const DWORD error = GetLastError();
    return error != ERROR_SUCCESS ? HRESULT_FROM_WIN32(error) : E_FAIL;
}

void check(HRESULT result) {
    if (FAILED(result)) fail(result);
}

// What a script evaluated to.
class Value {
public:
    Value() { VariantInit(&variant_); }
    ~Value() { VariantClear(&variant_); }
    Value(const Value&) = delete;
    Value& operator=(const Value&) = delete;

    VARIANT* out() { return &variant_; }

    ScriptValue value() const {
        switch (variant_.vt) {
            case VT_BSTR:
                return text_value(to_utf8({variant_.bstrVal, SysStringLen(variant_.bstrVal)}));
            case VT_I4:
                return {std::to_string(variant_.lVal), variant_.lVal};
            case VT_R8:
                return number(variant_.dblVal);
            case VT_BOOL:
                return truth(variant_.boolVal != VARIANT_FALSE);
            case VT_NULL:
                return {"null", nullptr};
            default:
                return {"undefined", nullptr};
        }
    }

private:
    static ScriptValue text_value(const std::string& text) { return {text, text}; }
    static ScriptValue truth(bool value) { return {value ? "true" : "false", value}; }
    static ScriptValue number(double value) {
        if (std::isnan(value)) return {"NaN", nullptr};
        if (std::isinf(value)) return {value < 0 ? "-Infinity" : "Infinity", nullptr};
        return {Json(value).text(true), value};
    }

    VARIANT variant_;
};

ScriptValue evaluated(HWND control, const std::string& script) {
    ComPtr<IDispatch> document;
    if (!SendMessageW(control, DTM_DOCUMENTDISPATCH, 0, reinterpret_cast<LPARAM>(document.out())) || !document)
        fail(last_result());
    ComPtr<IScriptControl> runner;
    check(document->QueryInterface(IID_IScriptControl, runner.out<void>()));
    Value value;
    std::u16string wide = to_utf16(script);
    check(runner->Eval(wide.data(), value.out()));
    return value.value();
}

}  // namespace

HtmlPage::HtmlPage(LONG width, LONG height, bool remote) : width_(width), height_(height) {
    WNDCLASSW description{};
    description.lpfnWndProc = DefWindowProcW;
    description.lpszClassName = kOwnerClass;
    RegisterClassW(&description);
    if (!InitHTMLControl(nullptr)) fail(last_result());
    owner_ = make_window(kOwnerClass, nullptr);
    control_ = make_window(WC_HTML, owner_);
    check(ZrHtmlAllowRemote(control_, remote));
}

HtmlPage::~HtmlPage() {
    if (owner_) DestroyWindow(owner_);
}

HWND HtmlPage::make_window(const WCHAR* class_name, HWND parent) const {
    const HWND window = CreateWindowExW(0, class_name, nullptr, parent ? WS_CHILD : 0, 0, 0, width_, height_, parent,
                                        nullptr, nullptr, nullptr);
    if (!window) fail(last_result());
    return window;
}

void HtmlPage::show(std::string_view html) {
    std::string source(html);
    std::size_t nul = 0;
    while ((nul = source.find('\0', nul)) != std::string::npos) {
        source[nul] = ' ';  // the source ends at one
    }
    SendMessageW(control_, DTM_CLEAR, 0, 0);
    if (!SendMessageW(control_, DTM_ADDTEXT, FALSE, reinterpret_cast<LPARAM>(source.c_str())) ||
        !SendMessageW(control_, DTM_ENDOFSOURCE, 0, 0))
        fail(last_result());
    // What is late is left out.
    const HRESULT result = ZrHtmlWait(control_, kPatience);
    if (result != HRESULT_FROM_WIN32(ERROR_TIMEOUT)) check(result);
}

std::string HtmlPage::title() const {
    return evaluated(control_, "document.title").text;
}

std::string HtmlPage::text() const {
    return evaluated(control_, kTextScript).text;
}

std::vector<HtmlLink> HtmlPage::links() const {
    const std::string all = evaluated(control_, kLinksScript).text;
    std::vector<HtmlLink> links;
    for (std::string_view rest = all; !rest.empty();) {
        const std::size_t end = std::min(rest.find(kLinkEnd), rest.size() - 1);
        const std::string_view link = rest.substr(0, end);
        const std::size_t part = std::min(link.find(kAddressEnd), link.size());
        links.push_back({std::string(link.substr(0, part)), std::string(link.substr(std::min(part + 1, link.size())))});
        rest.remove_prefix(end + 1);
    }
    return links;
}

ScriptValue HtmlPage::value_of(const std::string& script) const {
    return evaluated(control_, script);
}

void HtmlPage::draw(const std::string& file) const {
    BYTE* bytes = nullptr;
    SIZE_T size = 0;
    check(ZrHtmlDraw(control_, width_, height_, &bytes, &size));
    const std::unique_ptr<BYTE, decltype(&CoTaskMemFree)> png(bytes, CoTaskMemFree);
    OutputFile out(file);
    out.write({reinterpret_cast<const char*>(bytes), size});
    out.finish();
}

}  // namespace zr
