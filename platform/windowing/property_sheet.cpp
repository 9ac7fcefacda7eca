// Sheets of pages behind tabs.

#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "base/fail.h"
#include "platform/controls.h"
#include "platform/places.h"
#include "system_classes.h"
#include "window_access.h"

namespace zr::platform {
namespace {

constexpr INT_PTR kTabControlId = 12320;
constexpr UINT kMostPages = 100;

// What a sheet or a page does. What it calls may destroy its window, and it with that.
struct Dialog : WindowData {
    virtual LRESULT handle(HWND window, UINT message, WPARAM wparam, LPARAM lparam) = 0;
};

struct Page {
    PROPSHEETPAGEW description;
    std::u16string title;
    HWND window = nullptr;
};
using PageRef = std::shared_ptr<Page>;

class PageDialog : public Dialog {
public:
    explicit PageDialog(PageRef page) : page_(std::move(page)) {}

    LRESULT handle(HWND window, UINT message, WPARAM wparam, LPARAM lparam) override {
        const PageRef page = page_;
        const DLGPROC procedure = page->description.pfnDlgProc;
        if (procedure) {
            if (const INT_PTR answer = procedure(window, message, wparam, lparam); answer != 0) return answer;
        }
        return IsWindow(window) ? DefWindowProcW(window, message, wparam, lparam) : 0;
    }

private:
    const PageRef page_;
};

// Makes the window of a dialog. NULL when there is none.
HWND make_dialog(std::unique_ptr<Dialog> dialog, const WCHAR* title, DWORD style, const RECT& place, HWND parent,
                 HINSTANCE instance) {
    const HWND window = CreateWindowExW(0, WC_DIALOG, title, style, place.left, place.top, place.right - place.left,
                                        place.bottom - place.top, parent, nullptr, instance, nullptr);
    if (Window* const own = own_window(window)) own->data = std::move(dialog);
    return window;
}

class SheetDialog : public Dialog {
public:
    explicit SheetDialog(std::vector<PageRef> pages) : pages_(std::move(pages)) {}

    LRESULT handle(HWND window, UINT message, WPARAM wparam, LPARAM lparam) override;
    bool add_tabs(HWND window);
    bool show(HWND window, WPARAM index);

private:
    bool remove(HWND window, WPARAM index);
    void show_any(HWND window, WPARAM index);

    std::vector<PageRef> pages_;
    HWND tabs_ = nullptr;
    PageRef shown_;
};

bool SheetDialog::add_tabs(HWND window) {
    RECT client{};
    GetClientRect(window, &client);
    const HWND tabs = CreateWindowExW(0, WC_TABCONTROLW, nullptr, WS_CHILD | TCS_BOTTOM, 0, 0, client.right,
                                      client.bottom, window, reinterpret_cast<HMENU>(kTabControlId), nullptr, nullptr);
    if (!tabs) return false;
    tabs_ = tabs;
    for (const PageRef& page : pages_) {
        TCITEMW item{};
        item.mask = TCIF_TEXT;
        item.pszText = page->title.data();
        if (SendMessageW(tabs, TCM_INSERTITEMW, kMostPages, reinterpret_cast<LPARAM>(&item)) < 0) return false;
    }
    return true;
}

bool SheetDialog::show(HWND window, WPARAM index) {
    if (index >= pages_.size()) return false;
    const PageRef page = pages_[index];
    if (!IsWindow(page->window)) {
        RECT client{};
        GetClientRect(window, &client);
        SendMessageW(tabs_, TCM_ADJUSTRECT, FALSE, reinterpret_cast<LPARAM>(&client));
        page->window = make_dialog(std::make_unique<PageDialog>(page), page->title.c_str(), WS_CHILD, client, window,
                                   page->description.hInstance);
        if (!page->window) return false;
        SendMessageW(page->window, WM_INITDIALOG, 0, reinterpret_cast<LPARAM>(&page->description));
        if (!own_window(window)) return false;
    }
    // What was told may have removed this page, or others before it.
    const auto place = std::ranges::find(pages_, page);
    if (place == pages_.end()) {
        show_any(window, index);
        return false;
    }
    if (!IsWindow(page->window)) return false;
    constexpr UINT only = SWP_NOSIZE | SWP_NOMOVE | SWP_NOZORDER;
    const PageRef before = std::exchange(shown_, page);
    SendMessageW(tabs_, TCM_SETCURSEL, static_cast<WPARAM>(place - pages_.begin()), 0);
    if (before && before != page) SetWindowPos(before->window, nullptr, 0, 0, 0, 0, only | SWP_HIDEWINDOW);
    SetWindowPos(page->window, nullptr, 0, 0, 0, 0, only | SWP_SHOWWINDOW);
    return true;
}

// Where no page is shown: the one that is there now, or the last.
void SheetDialog::show_any(HWND window, WPARAM index) {
    if (!shown_ && !pages_.empty()) show(window, std::min<WPARAM>(index, pages_.size() - 1));
}

bool SheetDialog::remove(HWND window, WPARAM index) {
    if (index >= pages_.size()) return false;
    const PageRef page = pages_[index];
    pages_.erase(pages_.begin() + static_cast<std::ptrdiff_t>(index));
    SendMessageW(tabs_, TCM_DELETEITEM, index, 0);
    const bool was_shown = shown_ == page;
    if (was_shown) shown_.reset();
    if (IsWindow(page->window)) DestroyWindow(page->window);
    if (was_shown && own_window(window)) show_any(window, index);
    return true;
}

LRESULT SheetDialog::handle(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    switch (message) {
        case PSM_GETTABCONTROL:
            return reinterpret_cast<LRESULT>(tabs_);
        case PSM_GETCURRENTPAGEHWND:
            return reinterpret_cast<LRESULT>(shown_ ? shown_->window : nullptr);
        case PSM_SETCURSEL:
            return show(window, wparam) ? TRUE : FALSE;
        case PSM_REMOVEPAGE:
            return remove(window, wparam) ? TRUE : FALSE;
        default:
            return DefWindowProcW(window, message, wparam, lparam);
    }
}

std::vector<PageRef> copy_pages(const PROPSHEETHEADERW& header) {
    std::vector<PageRef> pages;
    for (UINT i = 0; i < header.nPages; ++i) {
        const auto page = std::make_shared<Page>();
        page->description = header.ppsp[i];
        if ((page->description.dwFlags & PSP_USETITLE) != 0 && page->description.pszTitle) {
            page->title = page->description.pszTitle;
        }
        page->description.pszTitle = page->title.c_str();
        pages.push_back(page);
    }
    return pages;
}

// Goes unless it is kept.
class SheetWindow {
public:
    explicit SheetWindow(HWND window) : window_(window) {}
    ~SheetWindow() {
        if (window_ && own_window(window_)) DestroyWindow(window_);
    }
    SheetWindow(const SheetWindow&) = delete;
    SheetWindow& operator=(const SheetWindow&) = delete;
    // NULL when it has gone meanwhile.
    HWND keep() {
        const HWND window = std::exchange(window_, nullptr);
        return own_window(window) ? window : nullptr;
    }

private:
    HWND window_;
};

HWND make_sheet(const PROPSHEETHEADERW& header) {
    RECT screen{};
    GetClientRect(GetDesktopWindow(), &screen);
    auto made = std::make_unique<SheetDialog>(copy_pages(header));
    SheetDialog& sheet = *made;
    const HWND window =
        make_dialog(std::move(made), header.pszCaption, WS_POPUP, screen, header.hwndParent, header.hInstance);
    if (!window) return nullptr;
    SheetWindow made_window(window);
    if (!sheet.add_tabs(window)) return nullptr;
    sheet.show(window, header.nStartPage);
    return made_window.keep();
}

bool is_valid_sheet(LPCPROPSHEETHEADERW header) {
    if (!header || header->dwSize != sizeof *header || !header->ppsp || header->nPages == 0 ||
        header->nPages > kMostPages || header->nStartPage >= header->nPages) {
        return false;
    }
    return std::all_of(header->ppsp, header->ppsp + header->nPages,
                       [](const PROPSHEETPAGEW& page) { return page.dwSize == sizeof page; });
}

}  // namespace

LRESULT dialog_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    Window* const own = own_window(window);
    auto* const dialog = own ? dynamic_cast<Dialog*>(own->data.get()) : nullptr;
    if (!dialog) return DefWindowProcW(window, message, wparam, lparam);
    try {
        return dialog->handle(window, message, wparam, lparam);
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }
}

}  // namespace zr::platform

INT_PTR PropertySheetW(LPCPROPSHEETHEADERW header) {
    using namespace zr::platform;
    constexpr INT_PTR failed = -1;
    if (!is_valid_sheet(header)) return fail(ERROR_INVALID_PARAMETER, failed);
    if ((header->dwFlags & PSH_MODELESS) == 0 || (header->dwFlags & PSH_PROPSHEETPAGE) == 0) {
        return fail(ERROR_NOT_SUPPORTED, failed);
    }
    try {
        const HWND sheet = make_sheet(*header);
        return sheet ? reinterpret_cast<INT_PTR>(sheet) : failed;
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, failed);
    }
}
