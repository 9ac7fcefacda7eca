#pragma once

// Windows-1252, the handheld's narrow code page.

#include "platform/types.h"

namespace zr::platform {

// The characters of 0x80 to 0x9F; the five bytes that are undefined stand for themselves.
inline constexpr WCHAR k1252Upper[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,
};

inline WCHAR from_1252(unsigned char byte) {
    return byte >= 0x80 && byte < 0xA0 ? k1252Upper[byte - 0x80] : byte;
}

// The byte of a character, or -1 when the code page has none.
inline int to_1252(WCHAR character) {
    if (character < 0x80 || (character >= 0xA0 && character <= 0xFF)) return character;
    for (int i = 0; i < 32; ++i) {
        if (k1252Upper[i] == character) return 0x80 + i;
    }
    return -1;
}

}  // namespace zr::platform
