// The window class, and the calls of ours.

#include <algorithm>
#include <cstring>
#include <map>
#include <new>

#include "base/utf.h"
#include "control.h"
#include "platform/base.h"
#include "platform/kernel.h"

namespace zr::platform {
namespace {

// Those of one thread: it takes them along, as its windows go without a word then.
thread_local std::map<HWND, std::shared_ptr<HtmlControl>> controls;

LRESULT said(DWORD error) {
    if (error != ERROR_SUCCESS) SetLastError(error);
    return error == ERROR_SUCCESS ? TRUE : FALSE;
}

template <class Text>
std::basic_string_view<Text> text_at(LPARAM lparam) {
    const auto* const text = reinterpret_cast<const Text*>(lparam);
    return text != nullptr ? std::basic_string_view<Text>(text) : std::basic_string_view<Text>();
}

LRESULT set_text(HtmlControl& control, LPARAM lparam) {
    control.forget_source();
    DWORD error = control.add_text(text_at<WCHAR>(lparam), false);
    if (error == ERROR_SUCCESS) error = control.end_source();
    if (error != ERROR_SUCCESS) control.clear();
    return said(error);
}

LRESULT give_document(HtmlControl& control, LPARAM lparam) {
    if (lparam == 0) return said(ERROR_INVALID_PARAMETER);
    auto** const document = reinterpret_cast<IDispatch**>(lparam);
    *document = nullptr;
    return said(control.give_document(document));
}

LRESULT handle_message(HtmlControl& control, HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    switch (message) {
        case WM_SETTEXT:
            return set_text(control, lparam);
        case WM_GETTEXT:
        case WM_GETTEXTLENGTH:
            return 0;
        case DTM_ADDTEXT:
            return said(control.add_text(text_at<char>(lparam), wparam != 0));
        case DTM_ADDTEXTW:
            return said(control.add_text(text_at<WCHAR>(lparam), wparam != 0));
        case DTM_ENDOFSOURCE:
            return said(control.end_source());
        case DTM_CLEAR:
            control.clear();
            return TRUE;
        case DTM_NAVIGATE:
            return said(control.navigate(text_at<WCHAR>(lparam)));
        case DTM_ANCHOR:
            return said(control.scroll_to(host_to_wide(text_at<char>(lparam))));
        case DTM_ANCHORW:
            return said(control.scroll_to(text_at<WCHAR>(lparam)));
        case DTM_ENABLESCRIPTING:
            control.enable_scripting(lparam != 0);
            return TRUE;
        case DTM_SETIMAGE:
            if (lparam == 0) return said(ERROR_INVALID_PARAMETER);
            return said(control.set_bitmap(*reinterpret_cast<const INLINEIMAGEINFO*>(lparam)));
        case DTM_IMAGEFAIL:
            return said(control.fail_image(wparam));
        case DTM_LAYOUTWIDTH:
            return control.layout("zr.width()");
        case DTM_LAYOUTHEIGHT:
            return control.layout("zr.height()");
        case DTM_DOCUMENTDISPATCH:
            return give_document(control, lparam);
        case kEngineSpoke:
            control.serve();
            return 0;
        default:
            return DefWindowProcW(window, message, wparam, lparam);
    }
}

void forget(HWND window) {
    const auto found = controls.find(window);
    if (found == controls.end()) return;
    const std::shared_ptr<HtmlControl> held = std::move(found->second);
    controls.erase(found);
    held->leave();
}

LRESULT html_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    try {
        if (message == WM_CREATE) {
            controls[window] = std::make_shared<HtmlControl>(window);
            return 0;
        }
        if (message == WM_NCDESTROY) forget(window);
        const std::shared_ptr<HtmlControl> control = html_control(window);
        if (!control) return DefWindowProcW(window, message, wparam, lparam);
        return handle_message(*control, window, message, wparam, lparam);
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return message == WM_CREATE ? -1 : 0;
    }
}

// Calls use(HtmlControl&) on the control's own thread.
template <class Use>
HRESULT with_control(HWND window, Use use) {
    try {
        if (const std::shared_ptr<HtmlControl> control = html_control(window)) return use(*control);
        WCHAR name[32]{};
        const bool is_one = GetClassNameW(window, name, 32) > 0 && std::u16string_view(name) == WC_HTML;
        return is_one ? RPC_E_WRONG_THREAD : E_HANDLE;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

}  // namespace

std::shared_ptr<HtmlControl> html_control(HWND window) {
    const auto found = controls.find(window);
    return found != controls.end() ? found->second : nullptr;
}

}  // namespace zr::platform

using namespace zr::platform;

BOOL InitHTMLControl(HINSTANCE instance) {
    WNDCLASSW known{};
    if (GetClassInfoW(instance, WC_HTML, &known)) return TRUE;
    WNDCLASSW made{};
    made.lpfnWndProc = html_procedure;
    made.hInstance = instance;
    made.lpszClassName = WC_HTML;
    return RegisterClassW(&made) != 0 || GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
}

HRESULT ZrHtmlAllowRemote(HWND control, BOOL allow) {
    return with_control(control, [&](HtmlControl& found) {
        found.allow_remote(allow != FALSE);
        return S_OK;
    });
}

HRESULT ZrHtmlWait(HWND control, DWORD milliseconds) {
    return with_control(control, [&](HtmlControl& found) { return found.wait(milliseconds); });
}

HRESULT ZrHtmlSetImage(HWND control, DWORD_PTR cookie, const void* bytes, SIZE_T size, LPCWSTR type) {
    return with_control(control, [&](HtmlControl& found) {
        if (bytes == nullptr && size != 0) return E_POINTER;
        const std::string media = type != nullptr ? utf8_of(type, LoneSurrogate::Replaced) : std::string();
        const DWORD error = found.set_image(cookie, std::string_view(static_cast<const char*>(bytes), size), media);
        return error == ERROR_INVALID_PARAMETER ? E_INVALIDARG : result_of(error);
    });
}

HRESULT ZrHtmlDraw(HWND control, int width, int height, BYTE** png, SIZE_T* size) {
    if (png == nullptr || size == nullptr) return E_POINTER;
    *png = nullptr;
    *size = 0;
    return with_control(control, [&](HtmlControl& found) {
        std::string picture;
        if (const HRESULT result = found.draw(width, height, picture); FAILED(result)) return result;
        auto* const copy = static_cast<BYTE*>(CoTaskMemAlloc(picture.size()));
        if (copy == nullptr) return E_OUTOFMEMORY;
        std::memcpy(copy, picture.data(), picture.size());
        *png = copy;
        *size = picture.size();
        return S_OK;
    });
}

int ZrHtmlTrouble(LPWSTR text, int capacity) {
    if (text == nullptr || capacity <= 0) return 0;
    try {
        const std::u16string trouble = host_to_wide(engine_trouble());
        const std::size_t length = std::min(trouble.size(), static_cast<std::size_t>(capacity) - 1);
        std::copy_n(trouble.data(), length, text);
        text[length] = 0;
        return static_cast<int>(length);
    } catch (const std::bad_alloc&) {
        text[0] = 0;
        return 0;
    }
}

LONGLONG ZrHtmlLiveObjects(HWND control) {
    LONGLONG count = -1;
    with_control(control, [&](HtmlControl& found) {
        count = found.live_objects();
        return S_OK;
    });
    return count;
}
