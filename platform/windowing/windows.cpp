#include <algorithm>
#include <new>

#include "base/live_count.h"
#include "desktop.h"
#include "kernel/thread.h"
#include "place.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/windowing.h"
#include "room_waiters.h"
#include "system_classes.h"
#include "window_access.h"
#include "windowing/screen_facts.h"

using namespace zr::platform;

namespace {

struct Failure {
    DWORD error;
};

// What CreateWindowExW needs that can fail without the lock.
std::unique_ptr<Window> new_window(MessageQueue& queue, LPCWSTR title) {
    std::unique_ptr<Window> window(new Window);
    window->queue = Ref<MessageQueue>::retain(queue);
    if (title && *title) {
        window->title = copy_text(title);
        if (!window->title) throw std::bad_alloc();
    }
    return window;
}

// The parent, NULL for none.
Window* find_parent(Desktop& desktop, HWND parent, DWORD style) {
    if (parent == desktop_window()) return nullptr;
    if (!parent || parent == HWND_MESSAGE) {
        if (style & WS_CHILD) throw Failure{ERROR_TLW_WITH_WSCHILD};
        return nullptr;
    }
    Window* found = desktop.table.find(parent);
    if (!found || found->destroying) throw Failure{ERROR_INVALID_WINDOW_HANDLE};
    if (found->depth + 1 > kDeepestWindow) throw Failure{ERROR_INVALID_PARAMETER};
    return found;
}

void link_to_thread(Window& window) {
    Window*& first = window.queue->first_window();
    window.next_own = first;
    if (first) first->previous_own = &window;
    first = &window;
}

// Where a new window is.
RECT first_place(const CREATESTRUCTW& how) {
    const bool is_top = !how.hwndParent || how.hwndParent == HWND_MESSAGE || how.hwndParent == desktop_window();
    const bool placed = how.x != CW_USEDEFAULT;
    if (how.cx != CW_USEDEFAULT) return make_place(placed ? how.x : 0, placed ? how.y : 0, how.cx, how.cy);
    const bool fills = is_top && (static_cast<DWORD>(how.style) & WS_POPUP) == 0;
    const ScreenFacts screen = fills ? screen_facts() : ScreenFacts{0, 0, 0, 0, 0};
    return make_place(placed ? how.x : 0, placed ? how.y : 0, screen.width, screen.height);
}

// Enters the window everywhere; from then on the desktop owns it.
HWND add_window(std::unique_ptr<Window> window, const CREATESTRUCTW& how) {
    const std::u16string key = is_atom(how.lpszClass) ? std::u16string() : fold_name(how.lpszClass);
    Desktop& desktop = Desktop::get();
    add_system_classes(desktop);
    window->place = first_place(how);
    const std::unique_lock guard(desktop.lock);
    WindowClass* window_class = desktop.find_class(how.hInstance, how.lpszClass, key);
    if (!window_class) throw Failure{ERROR_CANNOT_FIND_WND_CLASS};
    Window* parent = find_parent(desktop, how.hwndParent, static_cast<DWORD>(how.style));
    window->window_class = window_class;
    window->extra_size = window_class->registered.cbWndExtra;
    if (window->extra_size > 0) window->extra.reset(new std::byte[static_cast<std::size_t>(window->extra_size)]());
    window->procedure = reinterpret_cast<LONG_PTR>(window_class->registered.lpfnWndProc);
    window->id = reinterpret_cast<LONG_PTR>(how.hMenu);
    window->style = how.style;
    window->ex_style = static_cast<LONG_PTR>(how.dwExStyle);
    window->instance = reinterpret_cast<LONG_PTR>(how.hInstance);
    if (!desktop.table.add(*window)) throw std::bad_alloc();
    desktop.link(*window, parent);
    link_to_thread(*window);
    ++window_class->windows;
    count_live(ZrLiveKind::Windows, 1);
    return window.release()->handle;
}

LRESULT call_own(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    const Window* own = own_window(window);
    return own ? call_procedure(own->procedure.load(std::memory_order_acquire), window, message, wparam, lparam) : 0;
}

// WM_DESTROY to the window and all below it that this thread made. Returns false if that has begun before.
bool tell(HWND window);

// The child to tell after `after` (NULL: the first). One that vanished in between costs a search from the start.
HWND next_to_tell(HWND parent, HWND after) {
    Desktop& desktop = Desktop::get();
    const std::shared_lock guard(desktop.lock);
    const Window* above = desktop.table.find(parent);
    if (!above) return nullptr;
    const Window* previous = after ? desktop.table.find(after) : nullptr;
    const Window* child = previous && previous->parent == above ? previous->next : above->first_child;
    while (child && (child->destroying || child->queue.get() != above->queue.get()))
        child = child->next;
    return child ? child->handle : nullptr;
}

bool tell(HWND window) {
    {
        const std::unique_lock guard(Desktop::get().lock);
        Window* own = own_window(window);
        if (!own || own->destroying) return false;
        own->destroying = true;
    }
    call_own(window, WM_DESTROY, 0, 0);
    for (HWND child = next_to_tell(window, nullptr); child; child = next_to_tell(window, child))
        tell(child);
    return true;
}

// The first child of this thread; those of others are handed to their threads on the way.
HWND first_own_child(HWND parent) {
    Desktop& desktop = Desktop::get();
    const std::unique_lock guard(desktop.lock);
    Window* above = own_window(parent);
    while (above && above->first_child && above->first_child->queue.get() != above->queue.get()) {
        desktop.orphan(*above->first_child);
    }
    return above && above->first_child ? above->first_child->handle : nullptr;
}

// Children first, each with WM_NCDESTROY as its last message.
void remove_tree(HWND window) {
    while (const HWND child = first_own_child(window)) {
        tell(child);
        remove_tree(child);
    }
    call_own(window, WM_NCDESTROY, 0, 0);
    MessageQueue* queue = MessageQueue::existing();
    queue->timers().kill_window(window);
    queue->timers_changed();
    SendList sent;
    std::unique_ptr<Window> removed;
    {
        Desktop& desktop = Desktop::get();
        const std::unique_lock guard(desktop.lock);
        if (Window* own = own_window(window)) removed = desktop.remove(*own, sent);
    }
    refuse_all(sent);
    RoomWaiters::tell(*queue);
}

}  // namespace

HWND CreateWindowExW(DWORD ex_style, LPCWSTR class_name, LPCWSTR title, DWORD style, int x, int y, int width,
                     int height, HWND parent, HMENU menu, HINSTANCE instance, LPVOID param) {
    cancellation_point();
    MessageQueue* queue = MessageQueue::current();
    if (!queue) return nullptr;
    CREATESTRUCTW how{param, instance,   menu,    parent, height, width, y, x, static_cast<LONG>(style),
                      title, class_name, ex_style};
    HWND window = nullptr;
    try {
        window = add_window(new_window(*queue, title), how);
    } catch (const Failure& failure) {
        SetLastError(failure.error);
        return nullptr;
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (call_own(window, WM_CREATE, 0, reinterpret_cast<LPARAM>(&how)) == -1) DestroyWindow(window);
    if ((style & WS_VISIBLE) != 0 && own_window(window)) tell_place(window, true, true);
    return own_window(window) ? window : nullptr;
}

BOOL DestroyWindow(HWND window) {
    if (!own_window(window)) {
        SetLastError(IsWindow(window) ? ERROR_ACCESS_DENIED : ERROR_INVALID_WINDOW_HANDLE);
        return FALSE;
    }
    if (tell(window)) remove_tree(window);
    return TRUE;
}

BOOL IsWindow(HWND window) {
    if (own_window(window) || window == desktop_window()) return TRUE;
    Desktop& desktop = Desktop::get();
    const std::shared_lock guard(desktop.lock);
    return desktop.table.find(window) ? TRUE : FALSE;
}

HWND GetParent(HWND window) {
    return with_window<std::shared_lock>(window,
                                         [](const Window& w) { return w.parent ? w.parent->handle : HWND{nullptr}; });
}

BOOL IsChild(HWND parent, HWND window) {
    Desktop& desktop = Desktop::get();
    const std::shared_lock guard(desktop.lock);
    const Window* above = desktop.table.find(parent);
    const Window* below = desktop.table.find(window);
    if (!above || !below) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return FALSE;
    }
    return is_below(above, below) ? TRUE : FALSE;
}

namespace {

const Window* related(const Window& window, UINT relation) {
    const Desktop& desktop = Desktop::get();
    switch (relation) {
        case GW_HWNDFIRST:
            return window.parent ? window.parent->first_child : desktop.first_top;
        case GW_HWNDLAST:
            return window.parent ? window.parent->last_child : desktop.last_top;
        case GW_HWNDNEXT:
            return window.next;
        case GW_HWNDPREV:
            return window.previous;
        case GW_CHILD:
            return window.first_child;
        default:
            return nullptr;
    }
}

}  // namespace

HWND GetWindow(HWND window, UINT relation) {
    if (relation > GW_CHILD) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (window == desktop_window() && relation == GW_CHILD) {
        Desktop& desktop = Desktop::get();
        const std::shared_lock guard(desktop.lock);
        return desktop.first_top ? desktop.first_top->handle : nullptr;
    }
    return with_window<std::shared_lock>(window, [relation](const Window& w) {
        const Window* found = related(w, relation);
        return found ? found->handle : HWND{nullptr};
    });
}

namespace {

HWND find_top_window(LPCWSTR class_name, LPCWSTR title) {
    const std::u16string key = is_atom(class_name) ? std::u16string() : fold_name(class_name);
    Desktop& desktop = Desktop::get();
    const std::shared_lock guard(desktop.lock);
    const ATOM atom = class_name ? desktop.class_atom(class_name, key) : ATOM{0};
    if (class_name && std::none_of(desktop.classes.begin(), desktop.classes.end(),
                                   [atom](const auto& known) { return known.first.first == atom; })) {
        throw Failure{ERROR_CANNOT_FIND_WND_CLASS};
    }
    for (const Window* window = desktop.first_top; window; window = window->next) {
        if (class_name && window->window_class->atom != atom) continue;
        if (!title || _wcsicmp(window->title ? window->title.get() : u"", title) == 0) return window->handle;
    }
    throw Failure{ERROR_FILE_NOT_FOUND};
}

}  // namespace

HWND FindWindowW(LPCWSTR class_name, LPCWSTR title) {
    cancellation_point();
    try {
        return find_top_window(class_name, title);
    } catch (const Failure& failure) {
        SetLastError(failure.error);
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return nullptr;
}

DWORD GetWindowThreadProcessId(HWND window, LPDWORD process) {
    const DWORD thread = with_atomics(window, [](const Window& w) { return w.queue->thread_id(); });
    if (thread && process) *process = GetCurrentProcessId();
    return thread;
}
