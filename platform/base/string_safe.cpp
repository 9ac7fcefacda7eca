// The checked string functions.

#include <algorithm>
#include <string>

#include "format.h"
#include "platform/base.h"

namespace {

constexpr std::size_t kNoLimit = STRSAFE_MAX_CCH;

bool is_capacity(std::size_t capacity) {
    return capacity != 0 && capacity <= STRSAFE_MAX_CCH;
}

HRESULT refuse(WCHAR* to, std::size_t capacity) {
    if (to != nullptr && is_capacity(capacity)) *to = 0;
    return STRSAFE_E_INVALID_PARAMETER;
}

std::size_t characters(std::size_t bytes) {
    return bytes / sizeof(WCHAR);
}

// Copies at most `count` characters of `from` to `to`, which has room for `capacity`, at least 1.
HRESULT copy(WCHAR* to, std::size_t capacity, const WCHAR* from, std::size_t count) {
    const std::size_t length = wcsnlen(from, std::min(count, capacity));
    const std::size_t fitting = std::min(length, capacity - 1);
    std::char_traits<WCHAR>::copy(to, from, fitting);
    to[fitting] = 0;
    return fitting == length ? S_OK : STRSAFE_E_INSUFFICIENT_BUFFER;
}

}  // namespace

HRESULT StringCchPrintfW(WCHAR* to, std::size_t capacity, const WCHAR* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const HRESULT result = StringCchVPrintfW(to, capacity, format, arguments);
    va_end(arguments);
    return result;
}

HRESULT StringCchVPrintfW(WCHAR* to, std::size_t capacity, const WCHAR* format, va_list arguments) {
    if (to == nullptr || format == nullptr || !is_capacity(capacity)) return refuse(to, capacity);
    const auto result = zr::platform::format_wide(to, capacity - 1, format, arguments);
    to[result.length] = 0;
    return result.complete ? S_OK : STRSAFE_E_INSUFFICIENT_BUFFER;
}

HRESULT StringCchCopyW(WCHAR* to, std::size_t capacity, const WCHAR* from) {
    return StringCchCopyNW(to, capacity, from, kNoLimit);
}

HRESULT StringCchCopyNW(WCHAR* to, std::size_t capacity, const WCHAR* from, std::size_t count) {
    if (to == nullptr || from == nullptr || !is_capacity(capacity) || count > STRSAFE_MAX_CCH) {
        return refuse(to, capacity);
    }
    return copy(to, capacity, from, count);
}

HRESULT StringCchCatW(WCHAR* to, std::size_t capacity, const WCHAR* from) {
    return StringCchCatNW(to, capacity, from, kNoLimit);
}

HRESULT StringCchCatNW(WCHAR* to, std::size_t capacity, const WCHAR* from, std::size_t count) {
    if (to == nullptr || from == nullptr || !is_capacity(capacity) || count > STRSAFE_MAX_CCH) {
        return STRSAFE_E_INVALID_PARAMETER;
    }
    const std::size_t length = wcsnlen(to, capacity);
    if (length == capacity) return STRSAFE_E_INVALID_PARAMETER;
    return copy(to + length, capacity - length, from, count);
}

HRESULT StringCchLengthW(const WCHAR* text, std::size_t limit, std::size_t* length) {
    const bool usable = text != nullptr && limit <= STRSAFE_MAX_CCH;
    const std::size_t found = usable ? wcsnlen(text, limit) : limit;
    const bool terminated = usable && found < limit;
    if (length != nullptr) *length = terminated ? found : 0;
    return terminated ? S_OK : STRSAFE_E_INVALID_PARAMETER;
}

HRESULT StringCbPrintfW(WCHAR* to, std::size_t bytes, const WCHAR* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const HRESULT result = StringCchVPrintfW(to, characters(bytes), format, arguments);
    va_end(arguments);
    return result;
}

HRESULT StringCbVPrintfW(WCHAR* to, std::size_t bytes, const WCHAR* format, va_list arguments) {
    return StringCchVPrintfW(to, characters(bytes), format, arguments);
}

HRESULT StringCbCopyW(WCHAR* to, std::size_t bytes, const WCHAR* from) {
    return StringCchCopyW(to, characters(bytes), from);
}

HRESULT StringCbCopyNW(WCHAR* to, std::size_t bytes, const WCHAR* from, std::size_t byteCount) {
    return StringCchCopyNW(to, characters(bytes), from, characters(byteCount));
}

HRESULT StringCbCatW(WCHAR* to, std::size_t bytes, const WCHAR* from) {
    return StringCchCatW(to, characters(bytes), from);
}

HRESULT StringCbCatNW(WCHAR* to, std::size_t bytes, const WCHAR* from, std::size_t byteCount) {
    return StringCchCatNW(to, characters(bytes), from, characters(byteCount));
}

HRESULT StringCbLengthW(const WCHAR* text, std::size_t limit, std::size_t* bytes) {
    std::size_t length = 0;
    const HRESULT result = StringCchLengthW(text, characters(limit), &length);
    if (bytes != nullptr) *bytes = length * sizeof(WCHAR);
    return result;
}
