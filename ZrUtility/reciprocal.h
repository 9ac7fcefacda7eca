#pragma once

#include "platform/types.h"

// Remainders without a division, for a divisor that serves many times: its reciprocal is a fraction of 64 bits, and a
// remainder takes two multiplications. Exact for every 32-bit number and every divisor but 0.

constexpr ULONGLONG reciprocalOf(ULONG divisor) {
    return ~ULONGLONG{0} / divisor + 1;
}

constexpr ULONG remainderOf(ULONG number, ULONG divisor, ULONGLONG reciprocal) {
    // The fraction of number / divisor, to 64 bits; the divisor's part of it is the remainder.
    const ULONGLONG fraction = reciprocal * number;
#if defined(__SIZEOF_INT128__)
    __extension__ using Wide = unsigned __int128;
    return static_cast<ULONG>((static_cast<Wide>(fraction) * divisor) >> 64);
#else
    const ULONGLONG low = (fraction & 0xFFFFFFFF) * divisor >> 32;
    return static_cast<ULONG>(((fraction >> 32) * divisor + low) >> 32);
#endif
}
