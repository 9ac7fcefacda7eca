#pragma once

// Texts out of fuzz input.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "platform/types.h"

namespace zr::fuzz {

// A property that does not hold ends the run, as a crash does.
inline void require(bool holds) {
    if (!holds) std::abort();
}

// One character for each byte: ASCII as it is, so that a mutation of the bytes is one of the text, and above that
// characters of all kinds, lone surrogates among them. NUL becomes a space: nothing ends before its length.
inline WCHAR character(std::uint8_t byte) {
    if (byte == 0) return u' ';
    if (byte < 0xC0) return byte;
    if (byte < 0xE0) return static_cast<WCHAR>(0x2010 + byte);
    return static_cast<WCHAR>(byte < 0xF0 ? 0xD800 + (byte - 0xE0) * 0x80 : 0xFFF0 + (byte - 0xF0));
}

inline std::u16string text(const std::uint8_t* data, std::size_t size) {
    std::u16string converted(size, u'\0');
    for (std::size_t i = 0; i < size; ++i) {
        converted[i] = character(data[i]);
    }
    return converted;
}

// A block of exactly `count` characters, so that a sanitizer sees a step outside.
using Block = std::unique_ptr<WCHAR[]>;

inline Block block(std::size_t count) {
    return std::make_unique<WCHAR[]>(count);
}

inline Block copy(std::u16string_view from) {
    Block to = block(from.size() + 1);
    from.copy(to.get(), from.size());
    return to;
}

}  // namespace zr::fuzz
