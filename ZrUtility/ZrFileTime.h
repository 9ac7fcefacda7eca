#pragma once

#include "ZrUtility/Export.h"
#include "platform/time.h"
#include "platform/types.h"

// A point in time or a time span: a count of 100-nanosecond units; as a point in time counted from 1 January 1601 UTC.
// It lies in memory exactly as a FILETIME does, so that a pointer to one may be passed as a pointer to the other.
//
// Arithmetic is modulo 2^64: a later time taken from an earlier one gives a very large value. Nothing here fails.
class ZRUTILITY_API ZrFileTime {
public:
    static const ZrFileTime EPOCH_FILETIME;  // 1 January 1970, 00:00 UTC

    // 0, which also stands for no time.
    constexpr ZrFileTime() : dwLowDateTime(0), dwHighDateTime(0) {}
    // The high word comes first here, the low word first in memory.
    constexpr ZrFileTime(DWORD high, DWORD low) : dwLowDateTime(low), dwHighDateTime(high) {}
    constexpr ZrFileTime(FILETIME& time) : dwLowDateTime(time.dwLowDateTime), dwHighDateTime(time.dwHighDateTime) {}
    constexpr ZrFileTime(ULONGLONG value)
        : dwLowDateTime(static_cast<DWORD>(value)), dwHighDateTime(static_cast<DWORD>(value >> 32)) {}
    constexpr ZrFileTime(const ZrFileTime&) = default;

    ZrFileTime& operator=(const FILETIME& time) {
        dwLowDateTime = time.dwLowDateTime;
        dwHighDateTime = time.dwHighDateTime;
        return *this;
    }
    ZrFileTime& operator=(const ZrFileTime&) = default;
    ZrFileTime& operator=(ULONGLONG value) { return *this = ZrFileTime(value); }

    bool operator==(const ZrFileTime& other) const { return Compare(other) == 0; }
    bool operator!=(const ZrFileTime& other) const { return Compare(other) != 0; }
    bool operator<(const ZrFileTime& other) const { return Compare(other) < 0; }
    bool operator>(const ZrFileTime& other) const { return Compare(other) >= 1; }
    bool operator<=(const ZrFileTime& other) const { return Compare(other) <= 0; }
    bool operator>=(const ZrFileTime& other) const { return Compare(other) >= 0; }

    ZrFileTime& operator+=(const ZrFileTime& other) { return *this = ToUI64() + other.ToUI64(); }
    ZrFileTime& operator-=(const ZrFileTime& other) { return *this = ToUI64() - other.ToUI64(); }
    // These two give the platform's structure.
    FILETIME operator+(const ZrFileTime& other) { return ZrFileTime(ToUI64() + other.ToUI64()).ToFileTime(); }
    FILETIME operator-(const ZrFileTime& other) { return ZrFileTime(ToUI64() - other.ToUI64()).ToFileTime(); }

    // Now, in UTC, to the millisecond.
    static ZrFileTime GetCurrentTime();

    constexpr ULONGLONG ToUI64() const { return ULONGLONG{dwHighDateTime} << 32 | dwLowDateTime; }
    // Cut down to a whole minute, the precision in which the client compares calendar and message times.
    constexpr ULONGLONG ToUI64InPrecision() const { return ToUI64() - ToUI64() % ONE_MINUTE; }
    FILETIME InPrecision() { return ZrFileTime(ToUI64InPrecision()).ToFileTime(); }
    // Rounded down. Of a point in time: since 1601.
    constexpr ULONGLONG GetMilliseconds() const { return ToUI64() / ONE_MILLISECOND; }

    DWORD dwLowDateTime;
    DWORD dwHighDateTime;

private:
    static constexpr ULONGLONG ONE_MILLISECOND = 10'000;
    static constexpr ULONGLONG ONE_MINUTE = 600'000'000;

    FILETIME ToFileTime() const { return {dwLowDateTime, dwHighDateTime}; }
    LONG Compare(const ZrFileTime& other) const {
        const FILETIME left = ToFileTime();
        const FILETIME right = other.ToFileTime();
        return CompareFileTime(&left, &right);
    }
};
