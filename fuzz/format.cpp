// Formats with any format string: the first byte is the capacity, the rest the format's characters, two bytes each.
//
// Every argument is the same pointer, to bytes that are a terminated text both wide and narrow, so that whatever type a
// conversion takes, what it takes is harmless. There are more arguments than a format of this length can ask for. Where
// floating-point arguments go into registers of their own those are filled by numbers behind them: they would hold
// anything, and another thing at the second look.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "platform/base.h"

namespace {

constexpr std::size_t kMostFormat = 60;
constexpr std::size_t kArguments = 160;
constexpr std::size_t kLarge = 2048;

void check(bool condition) {
    if (!condition) std::abort();
}

template <std::size_t... Index>
HRESULT print(WCHAR* buffer, std::size_t capacity, const WCHAR* format, const WCHAR* argument,
              std::index_sequence<Index...>) {
    return StringCchPrintfW(buffer, capacity, format, (static_cast<void>(Index), argument)..., 0.0, -1.5, 1e-300, 2e300,
                            1e15, 0.1, 123456.5, -0.0);
}

HRESULT print(WCHAR* buffer, std::size_t capacity, const WCHAR* format) {
    static const WCHAR argument[] = u"\x4161\x4262\x20AC z";
    return print(buffer, capacity, format, argument, std::make_index_sequence<kArguments>());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t capacity = data[0];
    std::u16string format((size - 1) / 2 < kMostFormat ? (size - 1) / 2 : kMostFormat, u'\0');
    std::memcpy(format.data(), data + 1, format.size() * sizeof(char16_t));

    static WCHAR large[kLarge];
    const HRESULT whole = print(large, kLarge, format.c_str());
    check(whole == S_OK || whole == STRSAFE_E_INSUFFICIENT_BUFFER);
    const std::size_t length = wcsnlen(large, kLarge);
    check(length < kLarge);

    // What fits into less room is the beginning of the same.
    std::u16string small(capacity, u'#');
    const HRESULT part = print(small.data(), capacity, format.c_str());
    if (capacity == 0) {
        check(part == STRSAFE_E_INVALID_PARAMETER);
        return 0;
    }
    check(wcsnlen(small.c_str(), capacity) < capacity);
    check(part == S_OK || part == STRSAFE_E_INSUFFICIENT_BUFFER);
    check(std::memcmp(small.c_str(), large, wcslen(small.c_str()) * sizeof(WCHAR)) == 0);
    if (part == S_OK) check(whole == S_OK);
    return 0;
}
