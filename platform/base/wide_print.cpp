// The wide printf functions that limit or do not limit their output.

#include <algorithm>
#include <limits>

#include "format.h"
#include "platform/base.h"

using zr::platform::format_wide;
using zr::platform::Formatted;

namespace {

constexpr std::size_t kMostInt = static_cast<std::size_t>(std::numeric_limits<int>::max());
constexpr std::size_t kWsprintfMost = 1023;

}  // namespace

int _snwprintf(WCHAR* buffer, std::size_t count, const WCHAR* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = _vsnwprintf(buffer, count, format, arguments);
    va_end(arguments);
    return length;
}

int _vsnwprintf(WCHAR* buffer, std::size_t count, const WCHAR* format, va_list arguments) {
    if (format == nullptr || (buffer == nullptr && count != 0)) return -1;
    const std::size_t capacity = std::min(count, kMostInt);
    const Formatted result = format_wide(buffer, capacity, format, arguments);
    if (!result.complete) return -1;
    if (result.length < count) buffer[result.length] = 0;
    return static_cast<int>(result.length);
}

int swprintf(WCHAR* buffer, const WCHAR* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = vswprintf(buffer, format, arguments);
    va_end(arguments);
    return length;
}

int vswprintf(WCHAR* buffer, const WCHAR* format, va_list arguments) {
    return _vsnwprintf(buffer, kMostInt, format, arguments);
}

int wsprintfW(WCHAR* buffer, const WCHAR* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = wvsprintfW(buffer, format, arguments);
    va_end(arguments);
    return length;
}

int wvsprintfW(WCHAR* buffer, const WCHAR* format, va_list arguments) {
    if (buffer == nullptr) return 0;
    const std::size_t length = format == nullptr ? 0 : format_wide(buffer, kWsprintfMost, format, arguments).length;
    buffer[length] = 0;
    return static_cast<int>(length);
}
