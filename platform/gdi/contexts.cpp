// Device contexts, and what is selected into them.

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "base/fail.h"
#include "objects.h"
#include "platform/base.h"
#include "platform/windowing.h"
#include "windowing/screen_facts.h"

using namespace zr::platform;

namespace {

bool owns_context(HWND window) {
    WCHAR name[256];
    WNDCLASSW description{};
    const auto instance = reinterpret_cast<HINSTANCE>(GetWindowLongW(window, GWL_HINSTANCE));
    return window && GetClassNameW(window, name, 256) > 0 && GetClassInfoW(instance, name, &description) &&
           (description.style & CS_OWNDC) != 0;
}

void deselect_all(const ContextObject& context) {
    --context.font->selected;
    --context.brush->selected;
    --context.pen->selected;
    if (context.bitmap) --context.bitmap->selected;
}

// The context that a window has for itself; NULL for none yet. Those of windows that have gone go, too.
ContextObject* find_own_context(HWND window) {
    Gdi& gdi = Gdi::get();
    ContextObject* found = nullptr;
    std::erase_if(gdi.own_contexts, [&](ContextObject* each) {
        if (IsWindow(each->window)) {
            if (each->window == window) found = each;
            return false;
        }
        deselect_all(*each);
        gdi.remove(*each);
        return true;
    });
    return found;
}

HDC make_context(ContextObject::Origin origin, HWND window) {
    const bool owns = origin == ContextObject::Origin::Lent && owns_context(window);
    Gdi& gdi = Gdi::get();
    const std::lock_guard guard(gdi.lock);
    if (owns) {
        if (const ContextObject* const own = find_own_context(window)) return static_cast<HDC>(own->handle);
        // Another thread may have destroyed it by now.
        if (!IsWindow(window)) return fail(ERROR_INVALID_WINDOW_HANDLE, HDC{nullptr});
    }
    try {
        std::unique_ptr<ContextObject> context = new_context(origin);
        if (!context) return nullptr;
        context->window = window;
        context->stays = owns;
        if (owns) gdi.own_contexts.reserve(gdi.own_contexts.size() + 1);
        ContextObject* const made = context.get();
        const HGDIOBJ handle = enter(std::move(context));
        if (handle && owns) gdi.own_contexts.push_back(made);
        return static_cast<HDC>(handle);
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, HDC{nullptr});
    }
}

BOOL remove_context(HDC handle, bool lent, HWND window) {
    Gdi& gdi = Gdi::get();
    const std::lock_guard guard(gdi.lock);
    auto* const context = gdi.find_as<ContextObject>(handle);
    if (!context) return FALSE;
    const bool is_lent = context->origin == ContextObject::Origin::Lent;
    if (is_lent != lent || context->window != window) return fail(ERROR_INVALID_PARAMETER, FALSE);
    if (context->stays) return TRUE;
    deselect_all(*context);
    gdi.remove(*context);
    return TRUE;
}

// Replaces what is selected, and returns it.
template <class T>
HGDIOBJ exchange(T*& place, GdiObject& object) {
    T* const before = std::exchange(place, static_cast<T*>(&object));
    ++object.selected;
    if (!before) return nullptr;
    --before->selected;
    return before->handle;
}

HGDIOBJ exchange_bitmap(ContextObject& context, GdiObject& object) {
    const bool elsewhere = object.selected > 0 && context.bitmap != &object && !object.is_stock;
    if (context.origin != ContextObject::Origin::Memory || elsewhere) {
        return fail(ERROR_INVALID_PARAMETER, HGDIOBJ{nullptr});
    }
    return exchange(context.bitmap, object);
}

int capability(const ScreenFacts& screen, int index) {
    const auto millimetres = [](int pixels, int dots) { return MulDiv(pixels, 254, std::max(dots, 1) * 10); };
    switch (index) {
        case TECHNOLOGY:
            return DT_RASDISPLAY;
        case HORZSIZE:
            return millimetres(screen.width, screen.dots_across);
        case VERTSIZE:
            return millimetres(screen.height, screen.dots_down);
        case HORZRES:
            return screen.width;
        case VERTRES:
            return screen.height;
        case BITSPIXEL:
            return screen.depth > 16 ? 32 : screen.depth;
        case PLANES:
            return 1;
        case NUMCOLORS:
            return screen.depth > 8 ? -1 : 1 << screen.depth;
        case LOGPIXELSX:
            return screen.dots_across;
        case LOGPIXELSY:
            return screen.dots_down;
        case COLORRES:
            return screen.depth;
        default:
            return 0;
    }
}

template <class Value>
Value exchange_value(HDC handle, Value ContextObject::*member, Value value, Value none) {
    Gdi& gdi = Gdi::get();
    const std::lock_guard guard(gdi.lock);
    auto* const context = gdi.find_as<ContextObject>(handle);
    return context ? std::exchange(context->*member, value) : none;
}

COLORREF read_colour(HDC handle, COLORREF ContextObject::*member) {
    Gdi& gdi = Gdi::get();
    const std::lock_guard guard(gdi.lock);
    const auto* const context = gdi.find_as<ContextObject>(handle);
    return context ? context->*member : CLR_INVALID;
}

}  // namespace

int MulDiv(int number, int numerator, int denominator) {
    if (denominator == 0) return -1;
    const std::int64_t product = std::int64_t{number} * numerator;
    const std::int64_t divisor = denominator;
    const std::int64_t half = (divisor < 0 ? -divisor : divisor) / 2;
    const std::int64_t result = (product < 0 ? product - half : product + half) / divisor;
    using Limits = std::numeric_limits<int>;
    return result < Limits::min() || result > Limits::max() ? -1 : static_cast<int>(result);
}

HDC CreateDCW(LPCWSTR driver, LPCWSTR, LPCWSTR, const void*) {
    if (driver && _wcsicmp(driver, u"DISPLAY") != 0) return fail(ERROR_INVALID_PARAMETER, HDC{nullptr});
    return make_context(ContextObject::Origin::Created, nullptr);
}

HDC CreateCompatibleDC(HDC like) {
    if (like) {
        Gdi& gdi = Gdi::get();
        const std::lock_guard guard(gdi.lock);
        if (!gdi.find_as<ContextObject>(like)) return nullptr;
    }
    return make_context(ContextObject::Origin::Memory, nullptr);
}

BOOL DeleteDC(HDC context) {
    return remove_context(context, false, nullptr);
}

HDC GetDC(HWND window) {
    if (window && !IsWindow(window)) return fail(ERROR_INVALID_WINDOW_HANDLE, HDC{nullptr});
    return make_context(ContextObject::Origin::Lent, window);
}

int ReleaseDC(HWND window, HDC context) {
    return remove_context(context, true, window);
}

int GetDeviceCaps(HDC context, int index) {
    {
        Gdi& gdi = Gdi::get();
        const std::lock_guard guard(gdi.lock);
        if (!gdi.find_as<ContextObject>(context)) return 0;
    }
    return capability(screen_facts(), index);
}

HGDIOBJ SelectObject(HDC context_handle, HGDIOBJ handle) {
    Gdi& gdi = Gdi::get();
    const std::lock_guard guard(gdi.lock);
    auto* const context = gdi.find_as<ContextObject>(context_handle);
    if (!context) return nullptr;
    GdiObject* const object = gdi.find(handle);
    switch (object ? object->kind : GdiKind::Context) {
        case GdiKind::Font:
            return exchange(context->font, *object);
        case GdiKind::Brush:
            return exchange(context->brush, *object);
        case GdiKind::Pen:
            return exchange(context->pen, *object);
        case GdiKind::Bitmap:
            return exchange_bitmap(*context, *object);
        default:
            return fail(ERROR_INVALID_HANDLE, HGDIOBJ{nullptr});
    }
}

BOOL DeleteObject(HGDIOBJ handle) {
    Gdi& gdi = Gdi::get();
    const std::lock_guard guard(gdi.lock);
    GdiObject* const object = gdi.find(handle);
    if (!object || object->kind == GdiKind::Context) return fail(ERROR_INVALID_HANDLE, FALSE);
    if (object->is_stock) return TRUE;
    if (object->selected > 0) return fail(ERROR_BUSY, FALSE);
    gdi.remove(*object);
    return TRUE;
}

HGDIOBJ GetStockObject(int index) {
    if (index > SYSTEM_FONT) return fail(ERROR_INVALID_PARAMETER, HGDIOBJ{nullptr});
    Gdi& gdi = Gdi::get();
    const std::lock_guard guard(gdi.lock);
    try {
        GdiObject* const object = gdi.stock(index);
        return object ? object->handle : nullptr;
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, HGDIOBJ{nullptr});
    }
}

namespace {

template <class Facts>
int give_facts(const Facts& facts, int size, void* buffer) {
    if (!buffer) return static_cast<int>(sizeof facts);
    if (size <= 0) return fail(ERROR_INVALID_PARAMETER, 0);
    const int given = std::min(size, static_cast<int>(sizeof facts));
    std::memcpy(buffer, &facts, static_cast<std::size_t>(given));
    return given;
}

int give_object(const GdiObject& object, int size, void* buffer) {
    switch (object.kind) {
        case GdiKind::Font:
            return give_facts(static_cast<const FontObject&>(object).description, size, buffer);
        case GdiKind::Bitmap: {
            const auto& bitmap = static_cast<const BitmapObject&>(object);
            return give_facts(BITMAP{0, bitmap.width, bitmap.height, bitmap.width * 4, 1, 32, nullptr}, size, buffer);
        }
        case GdiKind::Brush: {
            const auto& brush = static_cast<const BrushObject&>(object);
            return give_facts(LOGBRUSH{brush.is_hollow ? BS_NULL : BS_SOLID, brush.colour, 0}, size, buffer);
        }
        case GdiKind::Pen: {
            const auto& pen = static_cast<const PenObject&>(object);
            return give_facts(LOGPEN{static_cast<UINT>(pen.is_hollow ? PS_NULL : PS_SOLID), {1, 0}, pen.colour}, size,
                              buffer);
        }
        default:
            return fail(ERROR_INVALID_HANDLE, 0);
    }
}

}  // namespace

int GetObjectW(HGDIOBJ handle, int size, void* buffer) {
    Gdi& gdi = Gdi::get();
    const std::lock_guard guard(gdi.lock);
    const GdiObject* const object = gdi.find(handle);
    return object ? give_object(*object, size, buffer) : fail(ERROR_INVALID_HANDLE, 0);
}

COLORREF SetTextColor(HDC context, COLORREF colour) {
    return exchange_value(context, &ContextObject::text_colour, colour, CLR_INVALID);
}

COLORREF SetBkColor(HDC context, COLORREF colour) {
    return exchange_value(context, &ContextObject::background, colour, CLR_INVALID);
}

COLORREF GetTextColor(HDC context) {
    return read_colour(context, &ContextObject::text_colour);
}

COLORREF GetBkColor(HDC context) {
    return read_colour(context, &ContextObject::background);
}

int SetBkMode(HDC context, int mode) {
    if (mode != TRANSPARENT && mode != OPAQUE) return fail(ERROR_INVALID_PARAMETER, 0);
    return exchange_value(context, &ContextObject::mode, mode, 0);
}
