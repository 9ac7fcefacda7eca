#pragma once

// Letter case and character classes: two-level tables, written by make_character_tables.py.

#include <cstdint>

#include "platform/types.h"

namespace zr::platform {

extern const std::uint8_t lower_index[1024];
extern const std::uint16_t lower_blocks[][64];
extern const std::uint8_t upper_index[1024];
extern const std::uint16_t upper_blocks[][64];
extern const std::uint8_t class_index[1024];
extern const std::uint16_t class_blocks[][64];

enum CharacterClass : std::uint16_t {
    kUpper = 0x1,
    kLower = 0x2,
    kDigit = 0x4,
    kSpace = 0x8,
    kPunct = 0x10,
    kControl = 0x20,
    kPrint = 0x40,
    kHex = 0x80,
    kAlpha = 0x100,
};

// The blocks hold distances, modulo 65536, so that most of the plane shares the block of zeros.
inline WCHAR lower(WCHAR character) {
    return static_cast<WCHAR>(character + lower_blocks[lower_index[character >> 6]][character & 63]);
}

inline WCHAR upper(WCHAR character) {
    return static_cast<WCHAR>(character + upper_blocks[upper_index[character >> 6]][character & 63]);
}

inline int class_bits(WCHAR character) {
    return class_blocks[class_index[character >> 6]][character & 63];
}

}  // namespace zr::platform
