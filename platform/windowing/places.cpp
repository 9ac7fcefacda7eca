#include "platform/places.h"

#include "base/fail.h"
#include "kernel/thread.h"
#include "place.h"
#include "platform/windowing.h"
#include "window_access.h"
#include "windowing/screen_facts.h"

using namespace zr::platform;

namespace {

LONG border(const Window& window) {
    return (window.style.load() & static_cast<LONG_PTR>(WS_BORDER)) != 0 ? 1 : 0;
}

struct Origin {
    std::int64_t x = 0;
    std::int64_t y = 0;
};

// Where a window's client area begins on the screen; NULL is the screen.
Origin origin_of(const Window* window) {
    Origin origin;
    for (; window; window = window->parent) {
        origin.x += window->place.left + border(*window);
        origin.y += window->place.top + border(*window);
    }
    return origin;
}

RECT client_area(const Window& window) {
    const LONG taken = 2 * border(window);
    return {0, 0, std::max(extent(window.place.left, window.place.right) - taken, 0),
            std::max(extent(window.place.top, window.place.bottom) - taken, 0)};
}

RECT on_screen(const Window& window) {
    const Origin origin = origin_of(window.parent);
    const RECT& place = window.place;
    return {to_coordinate(place.left + origin.x), to_coordinate(place.top + origin.y),
            to_coordinate(place.right + origin.x), to_coordinate(place.bottom + origin.y)};
}

RECT screen_area() {
    const ScreenFacts screen = screen_facts();
    return {0, 0, screen.width, screen.height};
}

template <class Read>
BOOL give_rectangle(HWND window, RECT* rectangle, Read read) {
    cancellation_point();
    if (!rectangle) return fail(ERROR_NOACCESS, FALSE);
    if (window == desktop_window()) {
        *rectangle = screen_area();
        return TRUE;
    }
    return with_window<std::shared_lock>(window, [&](const Window& found) {
        *rectangle = read(found);
        return BOOL{TRUE};
    });
}

bool is_screen(HWND window) {
    return !window || window == desktop_window();
}

// False: the handle is none.
bool find_origin(const Desktop& desktop, HWND handle, Origin& origin) {
    const Window* const window = is_screen(handle) ? nullptr : desktop.table.find(handle);
    origin = origin_of(window);
    return window || is_screen(handle);
}

// How far points move from one client area to another.
bool find_way(HWND from, HWND to, Origin& way) {
    Desktop& desktop = Desktop::get();
    const std::shared_lock guard(desktop.lock);
    Origin there;
    if (!find_origin(desktop, from, way) || !find_origin(desktop, to, there)) return false;
    way.x -= there.x;
    way.y -= there.y;
    return true;
}

BOOL map_point(HWND from, HWND to, POINT* point) {
    cancellation_point();
    if (!point) return fail(ERROR_NOACCESS, FALSE);
    Origin way;
    if ((from == nullptr && to == nullptr) || !find_way(from, to, way)) return fail(ERROR_INVALID_WINDOW_HANDLE, FALSE);
    *point = {to_coordinate(point->x + way.x), to_coordinate(point->y + way.y)};
    return TRUE;
}

// An error code. Under the exclusive lock.
DWORD put_behind(Desktop& desktop, Window& window, HWND after) {
    // A child that has lost its parent is in no order.
    if (window.doom.kind == SendRequest::Kind::Destroy) return ERROR_SUCCESS;
    Window* const parent = window.parent;
    Window* previous = nullptr;
    if (after == HWND_BOTTOM) {
        previous = parent ? parent->last_child : desktop.last_top;
    } else if (after != HWND_TOP && after != HWND_TOPMOST && after != HWND_NOTOPMOST) {
        previous = desktop.table.find(after);
        if (!previous) return ERROR_INVALID_WINDOW_HANDLE;
        if (previous->parent != parent || previous->doom.kind == SendRequest::Kind::Destroy) {
            return ERROR_INVALID_PARAMETER;
        }
    }
    if (previous == &window) return ERROR_SUCCESS;
    desktop.unlink(window);
    desktop.link_behind(window, parent, previous);
    return ERROR_SUCCESS;
}

struct Change {
    DWORD error = ERROR_SUCCESS;
    bool moved = false;
    bool sized = false;
};

Change set_place(HWND handle, HWND after, const RECT& wanted, UINT flags) {
    Desktop& desktop = Desktop::get();
    const std::unique_lock guard(desktop.lock);
    Window* const window = desktop.table.find(handle);
    if (!window) return {ERROR_INVALID_WINDOW_HANDLE};
    if ((flags & SWP_NOZORDER) == 0) {
        if (const DWORD error = put_behind(desktop, *window, after); error != ERROR_SUCCESS) return {error};
    }
    const RECT before = window->place;
    const RECT& at = (flags & SWP_NOMOVE) != 0 ? before : wanted;
    const RECT& as = (flags & SWP_NOSIZE) != 0 ? before : wanted;
    const LONG width = extent(as.left, as.right);
    const LONG height = extent(as.top, as.bottom);
    window->place = make_place(at.left, at.top, width, height);
    const RECT& place = window->place;
    return {ERROR_SUCCESS, place.left != before.left || place.top != before.top,
            extent(place.left, place.right) != extent(before.left, before.right) ||
                extent(place.top, place.bottom) != extent(before.top, before.bottom)};
}

void set_visible(HWND window, bool visible) {
    constexpr LONG_PTR style = WS_VISIBLE;
    const LONG_PTR before = with_atomics(
        window, [visible](Window& w) { return visible ? w.style.fetch_or(style) : w.style.fetch_and(~style); });
    if (((before & style) != 0) != visible) SendMessageW(window, WM_SHOWWINDOW, visible ? TRUE : FALSE, 0);
}

}  // namespace

namespace zr::platform {

void tell_place(HWND window, bool moved, bool sized) {
    struct Client {
        RECT area;
        POINT at;
    };
    const auto read = [window] {
        return with_window<std::shared_lock>(window, [](const Window& w) {
            return Client{client_area(w), {w.place.left + border(w), w.place.top + border(w)}};
        });
    };
    const auto pack = [](LONG low, LONG high) {
        return MAKELPARAM(static_cast<DWORD_PTR>(low), static_cast<DWORD_PTR>(high));
    };
    if (moved) {
        const POINT at = read().at;
        SendMessageW(window, WM_MOVE, 0, pack(at.x, at.y));
    }
    if (sized && IsWindow(window)) {
        const RECT area = read().area;
        SendMessageW(window, WM_SIZE, SIZE_RESTORED, pack(area.right, area.bottom));
    }
}

}  // namespace zr::platform

BOOL GetWindowRect(HWND window, RECT* rectangle) {
    return give_rectangle(window, rectangle, on_screen);
}

BOOL GetClientRect(HWND window, RECT* rectangle) {
    return give_rectangle(window, rectangle, client_area);
}

BOOL ClientToScreen(HWND window, POINT* point) {
    return map_point(window, nullptr, point);
}

BOOL ScreenToClient(HWND window, POINT* point) {
    return map_point(nullptr, window, point);
}

int MapWindowPoints(HWND from, HWND to, POINT* points, UINT count) {
    cancellation_point();
    if (!points && count > 0) return fail(ERROR_NOACCESS, 0);
    Origin way;
    if (!find_way(from, to, way)) return fail(ERROR_INVALID_WINDOW_HANDLE, 0);
    for (UINT i = 0; i < count; ++i) {
        points[i] = {to_coordinate(points[i].x + way.x), to_coordinate(points[i].y + way.y)};
    }
    return static_cast<int>(MAKELONG(static_cast<DWORD_PTR>(way.x), static_cast<DWORD_PTR>(way.y)));
}

BOOL MoveWindow(HWND window, int x, int y, int width, int height, BOOL) {
    return SetWindowPos(window, nullptr, x, y, width, height, SWP_NOZORDER | SWP_NOACTIVATE);
}

BOOL SetWindowPos(HWND window, HWND after, int x, int y, int width, int height, UINT flags) {
    cancellation_point();
    const Change change = set_place(window, after, make_place(x, y, width, height), flags);
    if (change.error != ERROR_SUCCESS) return fail(change.error, FALSE);
    if ((flags & (SWP_SHOWWINDOW | SWP_HIDEWINDOW)) != 0) set_visible(window, (flags & SWP_SHOWWINDOW) != 0);
    tell_place(window, change.moved, change.sized || (flags & SWP_FRAMECHANGED) != 0);
    return TRUE;
}

HWND GetDlgItem(HWND parent, int id) {
    return with_window<std::shared_lock>(parent, [id](const Window& window) {
        const Window* child = window.first_child;
        while (child && static_cast<int>(child->id.load()) != id) {
            child = child->next;
        }
        if (!child) SetLastError(ERROR_CONTROL_ID_NOT_FOUND);
        return child ? child->handle : HWND{nullptr};
    });
}

int GetDlgCtrlID(HWND window) {
    return with_atomics(window, [](const Window& w) { return static_cast<int>(w.id.load()); });
}
