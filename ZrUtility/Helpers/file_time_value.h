#pragma once

// A FILETIME as the number that it is.

#include "platform/types.h"

constexpr ULONGLONG FileTimeValue(const FILETIME& time) {
    return ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

constexpr FILETIME FileTimeOf(ULONGLONG value) {
    return {static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
}

// Signed minutes as a difference modulo 2^64.
constexpr ULONGLONG MinutesAsUnits(LONGLONG minutes) {
    return static_cast<ULONGLONG>(minutes) * 600'000'000;
}
