#include <algorithm>
#include <string_view>

#include "platform/base.h"
#include "platform/html.h"

namespace zr::platform {
namespace {

constexpr WCHAR kNoEngine[] = u"this build of the platform has no HTML engine";

LRESULT refuse() {
    SetLastError(ERROR_MOD_NOT_FOUND);
    return FALSE;
}

LRESULT html_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    switch (message) {
        case WM_SETTEXT:
        case DTM_ADDTEXT:
        case DTM_ADDTEXTW:
        case DTM_SETIMAGE:
        case DTM_ENDOFSOURCE:
        case DTM_ANCHOR:
        case DTM_ANCHORW:
        case DTM_NAVIGATE:
            return refuse();
        case DTM_DOCUMENTDISPATCH:
            if (lparam != 0) *reinterpret_cast<IDispatch**>(lparam) = nullptr;
            return refuse();
        default:
            return DefWindowProcW(window, message, wparam, lparam);
    }
}

bool is_control(HWND window) {
    WCHAR name[32]{};
    return GetClassNameW(window, name, 32) > 0 && std::u16string_view(name) == WC_HTML;
}

HRESULT without_engine(HWND window) {
    return is_control(window) ? HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND) : E_HANDLE;
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

BOOL InitHTMLControl(HINSTANCE instance) {
    WNDCLASSW known{};
    if (GetClassInfoW(instance, WC_HTML, &known)) return TRUE;
    WNDCLASSW made{};
    made.lpfnWndProc = html_procedure;
    made.cbWndExtra = sizeof(void*);
    made.hInstance = instance;
    made.lpszClassName = WC_HTML;
    return RegisterClassW(&made) != 0 || GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
}

HRESULT ZrHtmlAllowRemote(HWND control, BOOL) {
    return without_engine(control);
}
HRESULT ZrHtmlWait(HWND control, DWORD) {
    return without_engine(control);
}
HRESULT ZrHtmlSetImage(HWND control, DWORD_PTR, const void*, SIZE_T, LPCWSTR) {
    return without_engine(control);
}
HRESULT ZrHtmlDraw(HWND control, int, int, BYTE** png, SIZE_T* size) {
    if (png == nullptr || size == nullptr) return E_POINTER;
    *png = nullptr;
    *size = 0;
    return without_engine(control);
}
int ZrHtmlTrouble(LPWSTR text, int capacity) {
    if (text == nullptr || capacity <= 0) return 0;
    const std::u16string_view trouble(kNoEngine);
    const std::size_t length = std::min(trouble.size(), static_cast<std::size_t>(capacity) - 1);
    std::copy_n(trouble.data(), length, text);
    text[length] = 0;
    return static_cast<int>(length);
}
LONGLONG ZrHtmlLiveObjects(HWND) {
    return -1;
}
