// Fonts, and how wide text is in them.

#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>

#include "base/fail.h"
#include "base/forks.h"
#include "base/host_error.h"
#include "base/loaded_module.h"
#include "base/utf.h"
#include "objects.h"

namespace zr::platform {

namespace {

LoadedModule text_module(kTextModule);
constexpr int kMostPixels = 32767;

const char* usual_family(BYTE pitch_and_family) {
    if ((pitch_and_family & 3) == FIXED_PITCH || (pitch_and_family & 0xF0) == FF_MODERN) return "Monospace";
    return (pitch_and_family & 0xF0) == FF_ROMAN ? "Serif" : "Sans";
}

FontWish wish_of(const LOGFONTW& font, const char* family) {
    constexpr int kUsualHeight = 12;
    const LONG height = font.lfHeight == 0 ? -kUsualHeight : font.lfHeight;
    const std::int64_t pixels = height < 0 ? -std::int64_t{height} : height;
    return {family,
            static_cast<int>(std::min<std::int64_t>(pixels, kMostPixels)),
            height > 0,
            font.lfWeight <= 0 ? FW_NORMAL : std::min<LONG>(font.lfWeight, 1000),
            font.lfItalic != 0,
            font.lfUnderline != 0,
            font.lfStrikeOut != 0};
}

}  // namespace

const TextFunctions* text_functions() {
    static const TextFunctions* known = nullptr;  // under the lock
    if (known) return known;
    const auto functions = reinterpret_cast<TextFunctionsOf>(text_module.function(kTextFunctions));
    if (!functions) return fail(ERROR_MOD_NOT_FOUND, static_cast<const TextFunctions*>(nullptr));
    known = functions();
    return known;
}

bool fail_as_text() {
    return fail(error_from_errno(errno), false);
}

FontObject::~FontObject() {
    if (opened && generation == fork_generation()) text_functions()->close_font(opened);
}

bool open_font(FontObject& font) {
    if (font.opened && font.generation == fork_generation()) return true;
    const TextFunctions* const text = text_functions();
    if (!text) return false;
    font.opened = nullptr;  // the parent's
    font.generation = fork_generation();
    static std::uint32_t known_generation = 0;  // under the lock
    if (known_generation != fork_generation()) text->forget_fonts();
    known_generation = fork_generation();
    const WCHAR* const name = font.description.lfFaceName;
    const std::u16string_view face(name, static_cast<std::size_t>(std::find(name, name + LF_FACESIZE, u'\0') - name));
    std::string family = is_valid_utf16(face) ? wide_to_host(face) : std::string();
    // A comma would begin another name.
    std::ranges::replace(family, ',', ' ');
    if (family.empty()) family = usual_family(font.description.lfPitchAndFamily);
    font.opened = text->open_font(wish_of(font.description, family.c_str()), font.facts);
    return font.opened || fail_as_text();
}

bool measure(ContextObject& context, const WCHAR* text, std::size_t size, std::vector<int>& advances) {
    if (!open_font(*context.font)) return false;
    advances.resize(size);
    return text_functions()->measure(context.font->opened, text, size, advances.data()) || fail_as_text();
}

}  // namespace zr::platform

using namespace zr::platform;

namespace {

// use(context) under the lock; 0 for a handle that is none, and when memory is short.
template <class Use>
BOOL with_context(HDC handle, Use use) {
    Gdi& gdi = Gdi::get();
    const std::lock_guard guard(gdi.lock);
    auto* const context = gdi.find_as<ContextObject>(handle);
    try {
        return context && use(*context) ? TRUE : FALSE;
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
    }
}

int add_width(int sum, int width) {
    return static_cast<int>(std::min<std::int64_t>(std::int64_t{sum} + width, std::numeric_limits<int>::max()));
}

// Where a fixed pitch is known from: all letters are as wide.
BYTE pitch_of(const FontFacts& facts) {
    return facts.average == facts.widest ? 0 : 1;  // the documented bit says variable
}

// Of the last measured line; the lock guards it.
std::vector<int>& scratch() {
    static std::vector<int> kept;
    constexpr std::size_t kMostKept = 1 << 16;
    if (kept.capacity() > kMostKept) kept = {};
    return kept;
}

struct Fit {
    int room;
    int* count;
    int* extents;
};

void measure_fit(const std::vector<int>& advances, const Fit& fit, int& width) {
    const std::size_t size = advances.size();
    std::size_t fitting = 0;
    int sum = 0;
    bool fits = true;
    for (std::size_t i = 0; i < size; ++i) {
        sum = add_width(sum, advances[i]);
        fits = fits && (!fit.count || sum <= fit.room);
        if (!fits) continue;
        ++fitting;
        if (fit.extents) fit.extents[i] = sum;
    }
    width = sum;
    if (fit.count) *fit.count = static_cast<int>(fitting);
}

BOOL measure_text(HDC handle, LPCWSTR text, int count, const Fit& fit, SIZE* size) {
    if (count < 0 || (count > 0 && !text)) return fail(ERROR_INVALID_PARAMETER, FALSE);
    if (!size) return fail(ERROR_NOACCESS, FALSE);
    return with_context(handle, [&](ContextObject& context) {
        std::vector<int>& advances = scratch();
        if (!measure(context, text, static_cast<std::size_t>(count), advances)) return false;
        int width = 0;
        measure_fit(advances, fit, width);
        *size = {width, context.font->facts.ascent + context.font->facts.descent};
        return true;
    });
}

}  // namespace

HFONT CreateFontIndirectW(const LOGFONTW* description) {
    if (!description) return fail(ERROR_INVALID_PARAMETER, HFONT{nullptr});
    const std::lock_guard guard(Gdi::get().lock);
    try {
        auto font = std::make_unique<FontObject>();
        font->description = *description;
        return static_cast<HFONT>(enter(std::move(font)));
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, HFONT{nullptr});
    }
}

BOOL GetTextMetricsW(HDC handle, TEXTMETRICW* metrics) {
    if (!metrics) return fail(ERROR_NOACCESS, FALSE);
    return with_context(handle, [metrics](ContextObject& context) {
        if (!open_font(*context.font)) return false;
        const FontFacts& facts = context.font->facts;
        const LOGFONTW& font = context.font->description;
        const LONG height = facts.ascent + facts.descent;
        *metrics = {};
        metrics->tmHeight = height;
        metrics->tmAscent = facts.ascent;
        metrics->tmDescent = facts.descent;
        metrics->tmInternalLeading = std::max<LONG>(height - facts.em, 0);
        metrics->tmAveCharWidth = facts.average;
        metrics->tmMaxCharWidth = facts.widest;
        metrics->tmWeight = font.lfWeight <= 0 ? FW_NORMAL : font.lfWeight;
        metrics->tmDigitizedAspectX = metrics->tmDigitizedAspectY = 96;
        metrics->tmFirstChar = u' ';
        metrics->tmLastChar = 0xFFFD;
        metrics->tmDefaultChar = 0xFFFD;
        metrics->tmBreakChar = u' ';
        metrics->tmItalic = font.lfItalic;
        metrics->tmUnderlined = font.lfUnderline;
        metrics->tmStruckOut = font.lfStrikeOut;
        metrics->tmPitchAndFamily = static_cast<BYTE>((font.lfPitchAndFamily & 0xF0) | pitch_of(facts));
        metrics->tmCharSet = font.lfCharSet;
        return true;
    });
}

BOOL GetTextExtentPoint32W(HDC context, LPCWSTR text, int count, SIZE* size) {
    return measure_text(context, text, count, {0, nullptr, nullptr}, size);
}

BOOL GetTextExtentExPointW(HDC context, LPCWSTR text, int count, int room, int* fit, int* extents, SIZE* size) {
    return measure_text(context, text, count, {room, fit, extents}, size);
}

BOOL ZrGetLeastTextWidths(HDC handle, LPCWSTR text, int count, WCHAR mark, int* widths) {
    if (count < 0 || (count > 0 && (!text || !widths))) return fail(ERROR_INVALID_PARAMETER, FALSE);
    return with_context(handle, [&](ContextObject& context) {
        if (!open_font(*context.font)) return false;
        return text_functions()->measure_least(context.font->opened, text, static_cast<std::size_t>(count), mark,
                                               widths) ||
               fail_as_text();
    });
}
