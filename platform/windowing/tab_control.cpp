// The tab control.

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "place.h"
#include "platform/controls.h"
#include "platform/places.h"
#include "system_classes.h"
#include "window_access.h"

namespace zr::platform {
namespace {

constexpr int kUsualHeight = 20;
constexpr std::size_t kMostTabs = 10'000;
constexpr std::size_t kLongestTabText = 4096;

struct Tab {
    std::u16string text;
    int image = -1;
    LPARAM param = 0;
};

class TabControl : public WindowData {
public:
    LRESULT handle(HWND window, UINT message, WPARAM wparam, LPARAM lparam);

private:
    bool has(WPARAM index) const { return index < tabs_.size(); }
    int width_of(const Tab& tab) const { return width_ != 0 ? width_ : 12 + 6 * static_cast<int>(tab.text.size()); }
    LRESULT insert(WPARAM index, const TCITEMW* item);
    LRESULT remove(WPARAM index);
    LRESULT place_of(HWND window, WPARAM index, RECT* place) const;
    LRESULT select(WPARAM index);
    LRESULT give(WPARAM index, TCITEMW* item) const;
    LRESULT set_size(LPARAM size);
    LRESULT adjust(HWND window, bool larger, RECT* place) const;

    std::vector<Tab> tabs_;
    int selected_ = -1;
    int width_ = 0;
    int height_ = kUsualHeight;
};

void take(Tab& tab, const TCITEMW& item) {
    if ((item.mask & TCIF_TEXT) != 0) {
        std::u16string text(item.pszText ? item.pszText : u"");
        text.resize(std::min(text.size(), kLongestTabText));
        tab.text.swap(text);
    }
    if ((item.mask & TCIF_IMAGE) != 0) tab.image = item.iImage;
    if ((item.mask & TCIF_PARAM) != 0) tab.param = item.lParam;
}

bool is_at_bottom(HWND window) {
    return (GetWindowLongW(window, GWL_STYLE) & static_cast<LONG_PTR>(TCS_BOTTOM)) != 0;
}

LRESULT TabControl::insert(WPARAM index, const TCITEMW* item) {
    if (!item || tabs_.size() >= kMostTabs) return -1;
    const auto at = static_cast<std::ptrdiff_t>(std::min<WPARAM>(index, tabs_.size()));
    Tab made;
    take(made, *item);
    tabs_.insert(tabs_.begin() + at, std::move(made));
    if (tabs_.size() == 1) {
        selected_ = 0;
    } else if (selected_ >= at) {
        ++selected_;
    }
    return at;
}

LRESULT TabControl::remove(WPARAM index) {
    if (!has(index)) return FALSE;
    const int at = static_cast<int>(index);
    tabs_.erase(tabs_.begin() + at);
    if (selected_ == at) {
        selected_ = -1;
    } else if (selected_ > at) {
        --selected_;
    }
    return TRUE;
}

LRESULT TabControl::place_of(HWND window, WPARAM index, RECT* place) const {
    if (!has(index) || !place) return FALSE;
    int left = 0;
    for (WPARAM i = 0; i < index; ++i) {
        left += width_of(tabs_[i]);
    }
    RECT client{};
    if (is_at_bottom(window)) GetClientRect(window, &client);
    const int top = std::max<int>(client.bottom - height_, 0);
    *place = make_place(left, top, width_of(tabs_[index]), height_);
    return TRUE;
}

LRESULT TabControl::select(WPARAM index) {
    const int before = selected_;
    if (has(index)) {
        selected_ = static_cast<int>(index);
    } else if (static_cast<int>(index) == -1) {
        selected_ = -1;
    }
    return before;
}

LRESULT TabControl::give(WPARAM index, TCITEMW* item) const {
    if (!has(index) || !item) return FALSE;
    const Tab& tab = tabs_[index];
    if ((item->mask & TCIF_TEXT) != 0 && item->pszText && item->cchTextMax > 0) {
        const std::size_t length = std::min(tab.text.size(), static_cast<std::size_t>(item->cchTextMax) - 1);
        std::copy_n(tab.text.data(), length, item->pszText);
        item->pszText[length] = 0;
    }
    if ((item->mask & TCIF_IMAGE) != 0) item->iImage = tab.image;
    if ((item->mask & TCIF_PARAM) != 0) item->lParam = tab.param;
    return TRUE;
}

LRESULT TabControl::set_size(LPARAM size) {
    const LRESULT before = MAKELRESULT(static_cast<DWORD_PTR>(width_), static_cast<DWORD_PTR>(height_));
    width_ = LOWORD(static_cast<DWORD_PTR>(size));
    height_ = HIWORD(static_cast<DWORD_PTR>(size));
    return before;
}

LRESULT TabControl::adjust(HWND window, bool larger, RECT* place) const {
    if (!place) return 0;
    const LONG by = larger ? height_ : -height_;
    LONG& edge = is_at_bottom(window) ? place->bottom : place->top;
    edge = to_coordinate(std::int64_t{edge} + (is_at_bottom(window) ? by : -by));
    return 0;
}

LRESULT TabControl::handle(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    switch (message) {
        case TCM_GETITEMCOUNT:
            return static_cast<LRESULT>(tabs_.size());
        case TCM_INSERTITEMW:
            return insert(wparam, reinterpret_cast<const TCITEMW*>(lparam));
        case TCM_DELETEITEM:
            return remove(wparam);
        case TCM_DELETEALLITEMS:
            tabs_.clear();
            selected_ = -1;
            return TRUE;
        case TCM_GETITEMRECT:
            return place_of(window, wparam, reinterpret_cast<RECT*>(lparam));
        case TCM_GETCURSEL:
            return selected_;
        case TCM_SETCURSEL:
            return select(wparam);
        case TCM_ADJUSTRECT:
            return adjust(window, wparam != 0, reinterpret_cast<RECT*>(lparam));
        case TCM_SETITEMSIZE:
            return set_size(lparam);
        case TCM_GETROWCOUNT:
            return tabs_.empty() ? 0 : 1;
        case TCM_GETITEMW:
            return give(wparam, reinterpret_cast<TCITEMW*>(lparam));
        case TCM_SETITEMW:
            if (!has(wparam) || lparam == 0) return FALSE;
            take(tabs_[wparam], *reinterpret_cast<const TCITEMW*>(lparam));
            return TRUE;
        default:
            return DefWindowProcW(window, message, wparam, lparam);
    }
}

}  // namespace

LRESULT tab_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    Window* const own = own_window(window);
    if (!own) return 0;
    try {
        if (message == WM_CREATE) own->data = std::make_unique<TabControl>();
        auto* const control = dynamic_cast<TabControl*>(own->data.get());
        return control ? control->handle(window, message, wparam, lparam) : 0;
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return message == TCM_SETITEMW ? FALSE : -1;  // of WM_CREATE and TCM_INSERTITEMW
    }
}

}  // namespace zr::platform
