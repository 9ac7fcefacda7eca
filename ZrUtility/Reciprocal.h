#pragma once

#include "platform/types.h"

// Remainders without a division, for a divisor that serves many times: its reciprocal is a fraction of 64 bits, and a
// remainder takes two multiplications. Exact for every 32-bit number and every divisor but 0.

namespace zr {

constexpr ULONGLONG reciprocalOf(ULONG divisor) {
    return ~ULONGLONG{0} / divisor + 1;
}

// A fraction of 64 bits times a number, rounded down.
constexpr ULONG partOf(ULONGLONG fraction, ULONG number) {
#if defined(__SIZEOF_INT128__)
    __extension__ using Wide = unsigned __int128;
    return static_cast<ULONG>((static_cast<Wide>(fraction) * number) >> 64);
#else
    const ULONGLONG low = (fraction & 0xFFFFFFFF) * number >> 32;
    return static_cast<ULONG>(((fraction >> 32) * number + low) >> 32);
#endif
}

// The product with the reciprocal is the fraction of number / divisor; the divisor's part of it is the remainder.
constexpr ULONG remainderOf(ULONG number, ULONG divisor, ULONGLONG reciprocal) {
    return partOf(reciprocal * number, divisor);
}

}  // namespace zr
