// MultiByteToWideChar and WideCharToMultiByte.

#include "code_page.h"

#include <cstring>
#include <limits>

#include "base/fail.h"
#include "best_fit.h"
#include "platform/base.h"
#include "utf_core.h"

using zr::platform::decode_utf16;
using zr::platform::decode_utf8;
using zr::platform::fail;
using zr::platform::UnitSink;
using zr::platform::Utf8Part;

namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr UINT k1252 = 1252;

bool is_1252(UINT codePage) {
    return codePage == CP_ACP || codePage == k1252;
}

// What both directions ask of their arguments, whatever the units are.
bool usable(const void* source, int length, const void* target, int capacity) {
    return source != nullptr && length >= -1 && length != 0 && capacity >= 0 && (capacity == 0 || target != nullptr) &&
           (capacity == 0 || source != target);
}

DWORD refused_flags(UINT codePage, DWORD flags, DWORD always, DWORD for_1252) {
    return flags & ~(always | (is_1252(codePage) ? for_1252 : 0));
}

// Whether every part was valid.
bool decode_utf8_text(std::string_view text, UnitSink<WCHAR>& sink) {
    bool valid = true;
    while (!text.empty()) {
        if (zr::platform::is_ascii(text.front())) {
            const std::size_t ascii = zr::platform::ascii_run(text);
            sink.put_ascii(text.substr(0, ascii));
            text.remove_prefix(ascii);
            continue;
        }
        const Utf8Part part = decode_utf8(text);
        const bool character = part.kind == Utf8Part::Character;
        zr::platform::put_utf16(sink, character ? part.value : kReplacement);
        // Of a spelled surrogate already the second byte is damage of its own.
        text.remove_prefix(part.kind == Utf8Part::Surrogate ? 1 : part.length);
        valid = valid && character;
    }
    return valid;
}

bool encode_utf8_text(std::u16string_view wide, UnitSink<char>& sink) {
    bool valid = true;
    while (!wide.empty()) {
        const auto part = decode_utf16(wide);
        const bool lone = zr::platform::is_surrogate(part.value);
        zr::platform::put_utf8(sink, lone ? kReplacement : part.value);
        wide.remove_prefix(part.length);
        valid = valid && !lone;
    }
    return valid;
}

// Whether the code page had every character, or one that fits in its place.
bool encode_1252_text(std::u16string_view wide, char replacement, bool best_fit, UnitSink<char>& sink) {
    bool complete = true;
    for (const WCHAR character : wide) {
        int byte = zr::platform::to_1252(character);
        if (byte < 0 && best_fit) byte = zr::platform::best_fit_1252(character);
        sink.put(byte >= 0 ? static_cast<char>(byte) : replacement);
        complete = complete && byte >= 0;
    }
    return complete;
}

int finish(std::size_t count, int capacity) {
    if (count > static_cast<std::size_t>(std::numeric_limits<int>::max())) return fail(ERROR_INVALID_PARAMETER, 0);
    if (capacity != 0 && count > static_cast<std::size_t>(capacity)) return fail(ERROR_INSUFFICIENT_BUFFER, 0);
    return static_cast<int>(count);
}

}  // namespace

int MultiByteToWideChar(UINT codePage, DWORD flags, const char* text, int length, WCHAR* wide, int capacity) {
    if (!usable(text, length, wide, capacity)) return fail(ERROR_INVALID_PARAMETER, 0);
    if (codePage != CP_UTF8 && !is_1252(codePage)) return fail(ERROR_INVALID_PARAMETER, 0);
    if (refused_flags(codePage, flags, MB_ERR_INVALID_CHARS, MB_PRECOMPOSED) != 0) return fail(ERROR_INVALID_FLAGS, 0);
    const std::string_view source(text, length < 0 ? std::strlen(text) + 1 : static_cast<std::size_t>(length));
    UnitSink<WCHAR> sink(wide, static_cast<std::size_t>(capacity));
    if (codePage == CP_UTF8) {
        const bool valid = decode_utf8_text(source, sink);
        if (!valid && (flags & MB_ERR_INVALID_CHARS) != 0) return fail(ERROR_NO_UNICODE_TRANSLATION, 0);
    } else {
        for (const char byte : source) {
            sink.put(zr::platform::from_1252(static_cast<unsigned char>(byte)));
        }
    }
    return finish(sink.count(), capacity);
}

int WideCharToMultiByte(UINT codePage, DWORD flags, const WCHAR* wide, int length, char* text, int capacity,
                        const char* defaultCharacter, BOOL* defaultUsed) {
    if (!usable(wide, length, text, capacity)) return fail(ERROR_INVALID_PARAMETER, 0);
    if (codePage != CP_UTF8 && !is_1252(codePage)) return fail(ERROR_INVALID_PARAMETER, 0);
    if (codePage == CP_UTF8 && (defaultCharacter != nullptr || defaultUsed != nullptr)) {
        return fail(ERROR_INVALID_PARAMETER, 0);
    }
    const DWORD for_utf8 = codePage == CP_UTF8 ? WC_ERR_INVALID_CHARS : 0;
    if (refused_flags(codePage, flags, for_utf8, WC_NO_BEST_FIT_CHARS) != 0) return fail(ERROR_INVALID_FLAGS, 0);
    const std::u16string_view source(wide, length < 0 ? wcslen(wide) + 1 : static_cast<std::size_t>(length));
    UnitSink<char> sink(text, static_cast<std::size_t>(capacity));
    if (codePage == CP_UTF8) {
        const bool valid = encode_utf8_text(source, sink);
        if (!valid && (flags & WC_ERR_INVALID_CHARS) != 0) return fail(ERROR_NO_UNICODE_TRANSLATION, 0);
    } else {
        const bool best_fit = (flags & WC_NO_BEST_FIT_CHARS) == 0;
        const char replacement = defaultCharacter == nullptr ? '?' : *defaultCharacter;
        const bool complete = encode_1252_text(source, replacement, best_fit, sink);
        if (defaultUsed != nullptr) *defaultUsed = complete ? FALSE : TRUE;
    }
    return finish(sink.count(), capacity);
}
