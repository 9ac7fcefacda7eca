#pragma once

// The code page Windows-1252, one byte for each character.

#include <cstddef>

#include "platform/types.h"

namespace zr::windows1252 {

// What a character becomes that the code page cannot represent: a byte that it leaves undefined.
inline constexpr unsigned char kUnrepresentable = 0x9D;

// Characters below 256 keep their value, those of 0x80 to 0x9F included. Nothing is terminated. A text may be encoded
// over itself.
void encode(unsigned char* to, const WCHAR* from, std::size_t count) noexcept;
// The bytes that the code page leaves undefined keep their value. Nothing is terminated; the two must not overlap.
void decode(WCHAR* to, const unsigned char* from, std::size_t count) noexcept;

}  // namespace zr::windows1252
