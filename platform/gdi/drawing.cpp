// Bitmaps, what is filled, and text at a place.

#include <algorithm>
#include <limits>
#include <new>
#include <string>

#include "base/fail.h"
#include "objects.h"
#include "platform/base.h"
#include "platform/files.h"
#include "platform/kernel.h"

namespace zr::platform {

std::uint32_t to_pixel(COLORREF colour) {
    return std::uint32_t{GetRValue(colour)} << 16 | std::uint32_t{GetGValue(colour)} << 8 | GetBValue(colour);
}

void fill(const ContextObject& context, const RECT& rectangle, COLORREF colour) {
    if (!context.bitmap) return;
    const BitmapObject& bitmap = *context.bitmap;
    const int left = std::clamp(rectangle.left, 0, bitmap.width);
    const int right = std::clamp(rectangle.right, 0, bitmap.width);
    const int bottom = std::clamp(rectangle.bottom, 0, bitmap.height);
    for (int y = std::clamp(rectangle.top, 0, bitmap.height); y < bottom && left < right; ++y) {
        std::uint32_t* const row = bitmap.pixels.get() + static_cast<std::size_t>(y) * bitmap.width;
        std::fill(row + left, row + right, to_pixel(colour));
    }
}

bool draw_line(ContextObject& context, const DrawnLine& line, const RECT* clip) {
    if (!open_font(*context.font)) return false;
    if (!context.bitmap || line.size == 0) return true;
    const BitmapObject& bitmap = *context.bitmap;
    // What lies beyond is no place of a picture's.
    constexpr LONG kFar = 1 << 24;
    if (line.x < -kFar || line.x > kFar || line.y < -kFar || line.y > kFar) return true;
    ClipArea area{0, 0, bitmap.width, bitmap.height};
    if (clip) {
        area = {std::max(clip->left, 0), std::max(clip->top, 0), std::min(clip->right, bitmap.width),
                std::min(clip->bottom, bitmap.height)};
    }
    if (area.left >= area.right || area.top >= area.bottom) return true;
    return text_functions()->draw(context.font->opened, bitmap.canvas(), area, line.text, line.size, line.x,
                                  line.y + context.font->facts.ascent, to_pixel(context.text_colour)) ||
           fail_as_text();
}

}  // namespace zr::platform

using namespace zr::platform;

namespace {

template <class Result, class Use>
Result with_drawing(HDC handle, Result none, Use use) {
    Gdi& gdi = Gdi::get();
    const std::lock_guard guard(gdi.lock);
    auto* const context = gdi.find_as<ContextObject>(handle);
    try {
        return context ? use(gdi, *context) : none;
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, none);
    }
}

std::uint32_t* pixel_at(const ContextObject& context, int x, int y) {
    const BitmapObject* const bitmap = context.bitmap;
    if (!bitmap || x < 0 || y < 0 || x >= bitmap->width || y >= bitmap->height) return nullptr;
    return bitmap->pixels.get() + static_cast<std::size_t>(y) * bitmap->width + x;
}

COLORREF to_colour(std::uint32_t pixel) {
    return RGB(pixel >> 16, pixel >> 8, pixel);
}

template <class Number>
LONG to_long(Number value) {
    using Limits = std::numeric_limits<LONG>;
    return static_cast<LONG>(std::clamp<std::int64_t>(value, Limits::min(), Limits::max()));
}

struct TextOut {
    int x;
    int y;
    const RECT* clip;
    LPCWSTR text;
    std::size_t size;
    const int* spacing;
};

bool put_text(ContextObject& context, const TextOut& out) {
    std::vector<int> advances;
    if (!measure(context, out.text, out.size, advances)) return false;
    std::int64_t width = 0;
    for (std::size_t i = 0; i < out.size; ++i) {
        width += out.spacing ? out.spacing[i] : advances[i];
    }
    if (context.mode == OPAQUE) {
        const FontFacts& facts = context.font->facts;
        RECT behind{out.x, out.y, to_long(out.x + width), to_long(std::int64_t{out.y} + facts.ascent + facts.descent)};
        if (out.clip) {
            behind = {std::max(behind.left, out.clip->left), std::max(behind.top, out.clip->top),
                      std::min(behind.right, out.clip->right), std::min(behind.bottom, out.clip->bottom)};
        }
        fill(context, behind, context.background);
    }
    if (!out.spacing) return draw_line(context, {out.text, out.size, out.x, out.y}, out.clip);
    // Each with what belongs to it.
    std::int64_t x = out.x;
    for (std::size_t i = 0; i < out.size;) {
        std::size_t end = i + 1;
        std::int64_t step = out.spacing[i];
        for (; end < out.size && advances[end] == 0; ++end) {
            step += out.spacing[end];
        }
        if (!draw_line(context, {out.text + i, end - i, to_long(x), out.y}, out.clip)) return false;
        x += step;
        i = end;
    }
    return true;
}

bool write_file(LPCWSTR path, const std::string& content) {
    const HANDLE file = CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    DWORD written = 0;
    const bool good = WriteFile(file, content.data(), static_cast<DWORD>(content.size()), &written, nullptr) != FALSE &&
                      written == content.size();
    const DWORD error = GetLastError();
    CloseHandle(file);
    return good || fail(error, false);
}

}  // namespace

BOOL ExtTextOutW(HDC handle, int x, int y, UINT options, const RECT* rectangle, LPCWSTR text, UINT count,
                 const int* spacing) {
    if (count > 0 && !text) return fail(ERROR_INVALID_PARAMETER, FALSE);
    return with_drawing(handle, BOOL{FALSE}, [&](Gdi&, ContextObject& context) {
        if (rectangle && (options & ETO_OPAQUE) != 0) fill(context, *rectangle, context.background);
        const RECT* const clip = (options & ETO_CLIPPED) != 0 ? rectangle : nullptr;
        return put_text(context, {x, y, clip, text, count, spacing}) ? TRUE : FALSE;
    });
}

HBITMAP CreateCompatibleBitmap(HDC handle, int width, int height) {
    constexpr int kMostPixels = 32767;
    if (width < 0 || height < 0 || width > kMostPixels || height > kMostPixels) {
        return fail(ERROR_INVALID_PARAMETER, HBITMAP{nullptr});
    }
    return with_drawing(handle, HBITMAP{nullptr}, [&](Gdi& gdi, const ContextObject&) {
        auto bitmap = std::make_unique<BitmapObject>();
        if (width > 0 && height > 0) {
            bitmap->width = width;
            bitmap->height = height;
        }
        bitmap->pixels = std::make_unique<std::uint32_t[]>(static_cast<std::size_t>(bitmap->width) * bitmap->height);
        return static_cast<HBITMAP>(gdi.add(std::move(bitmap)));
    });
}

HBRUSH CreateSolidBrush(COLORREF colour) {
    const std::lock_guard guard(Gdi::get().lock);
    try {
        auto brush = std::make_unique<BrushObject>();
        brush->colour = colour;
        return static_cast<HBRUSH>(enter(std::move(brush)));
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, HBRUSH{nullptr});
    }
}

HPEN CreatePen(int style, int width, COLORREF colour) {
    if ((style != PS_SOLID && style != PS_NULL) || width < 0) return fail(ERROR_INVALID_PARAMETER, HPEN{nullptr});
    const std::lock_guard guard(Gdi::get().lock);
    try {
        auto pen = std::make_unique<PenObject>();
        pen->colour = colour;
        pen->is_hollow = style == PS_NULL;
        return static_cast<HPEN>(enter(std::move(pen)));
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, HPEN{nullptr});
    }
}

int FillRect(HDC handle, const RECT* rectangle, HBRUSH brush) {
    if (!rectangle) return fail(ERROR_NOACCESS, 0);
    return with_drawing(handle, 0, [&](const Gdi& gdi, const ContextObject& context) {
        const auto* const with = gdi.find_as<BrushObject>(brush);
        if (!with) return 0;
        if (!with->is_hollow) fill(context, *rectangle, with->colour);
        return 1;
    });
}

BOOL Rectangle(HDC handle, int left, int top, int right, int bottom) {
    return with_drawing(handle, BOOL{FALSE}, [&](const Gdi&, const ContextObject& context) {
        if (left > right) std::swap(left, right);
        if (top > bottom) std::swap(top, bottom);
        if (left == right || top == bottom) return BOOL{TRUE};
        if (!context.brush->is_hollow) fill(context, {left, top, right, bottom}, context.brush->colour);
        if (!context.pen->is_hollow) {
            const COLORREF colour = context.pen->colour;
            fill(context, {left, top, right, top + 1}, colour);
            fill(context, {left, bottom - 1, right, bottom}, colour);
            fill(context, {left, top, left + 1, bottom}, colour);
            fill(context, {right - 1, top, right, bottom}, colour);
        }
        return BOOL{TRUE};
    });
}

COLORREF GetPixel(HDC handle, int x, int y) {
    return with_drawing(handle, CLR_INVALID, [&](const Gdi&, const ContextObject& context) {
        const std::uint32_t* const pixel = pixel_at(context, x, y);
        return pixel ? to_colour(*pixel) : CLR_INVALID;
    });
}

COLORREF SetPixel(HDC handle, int x, int y, COLORREF colour) {
    return with_drawing(handle, CLR_INVALID, [&](const Gdi&, const ContextObject& context) {
        std::uint32_t* const pixel = pixel_at(context, x, y);
        if (!pixel) return CLR_INVALID;
        *pixel = to_pixel(colour);
        return to_colour(*pixel);
    });
}

BOOL ZrWriteBitmapPng(HBITMAP handle, LPCWSTR path) {
    std::string png;
    {
        Gdi& gdi = Gdi::get();
        const std::lock_guard guard(gdi.lock);
        const auto* const bitmap = gdi.find_as<BitmapObject>(handle);
        const TextFunctions* const text = bitmap ? text_functions() : nullptr;
        if (!text) return FALSE;
        if (!text->write_png(bitmap->canvas(), png)) {
            fail_as_text();
            return FALSE;
        }
    }
    return write_file(path, png) ? TRUE : FALSE;
}
