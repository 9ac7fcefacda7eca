#pragma once

// The handheld platform's type names, with the widths they had there.
//
// WCHAR is a UTF-16 code unit: literals are u"...". LONG, ULONG, DWORD, UINT and HRESULT are 32 bits on every
// target. WPARAM, LPARAM, LRESULT and the *_PTR names are as wide as a pointer. Handles are opaque pointers.

#include <cstddef>
#include <cstdint>

using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using SHORT = std::int16_t;
using USHORT = std::uint16_t;
using INT = std::int32_t;
using UINT = std::uint32_t;
using LONG = std::int32_t;
using ULONG = std::uint32_t;
using LONGLONG = std::int64_t;
using ULONGLONG = std::uint64_t;
using DWORDLONG = std::uint64_t;
using INT_PTR = std::intptr_t;
using UINT_PTR = std::uintptr_t;
using LONG_PTR = std::intptr_t;
using ULONG_PTR = std::uintptr_t;
using DWORD_PTR = std::uintptr_t;
using SIZE_T = std::size_t;
using BOOL = std::int32_t;
using CHAR = char;
using WCHAR = char16_t;
using ATOM = std::uint16_t;
using HRESULT = std::int32_t;
using SCODE = std::int32_t;
using LCID = std::uint32_t;
using LANGID = std::uint16_t;
using DATE = double;

using WPARAM = UINT_PTR;
using LPARAM = LONG_PTR;
using LRESULT = LONG_PTR;

using LPVOID = void*;
using LPCVOID = const void*;
using LPSTR = CHAR*;
using LPCSTR = const CHAR*;
using LPWSTR = WCHAR*;
using LPCWSTR = const WCHAR*;
using LPDWORD = DWORD*;

// Other libraries define these as macros, to the same values.
#if !defined(FALSE)
inline constexpr BOOL FALSE = 0;
#endif
#if !defined(TRUE)
inline constexpr BOOL TRUE = 1;
#endif
inline constexpr DWORD MAX_PATH = 260;

using HANDLE = void*;
using HLOCAL = void*;

#define ZRPLATFORM_DECLARE_HANDLE(name) \
    struct name##__;                    \
    using name = name##__*

ZRPLATFORM_DECLARE_HANDLE(HINSTANCE);
ZRPLATFORM_DECLARE_HANDLE(HWND);
ZRPLATFORM_DECLARE_HANDLE(HMENU);
ZRPLATFORM_DECLARE_HANDLE(HKEY);
ZRPLATFORM_DECLARE_HANDLE(HICON);
ZRPLATFORM_DECLARE_HANDLE(HBRUSH);
using HMODULE = HINSTANCE;
using HCURSOR = HICON;

#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1)))

inline constexpr DWORD INFINITE = 0xFFFFFFFF;

union LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
};

union ULARGE_INTEGER {
    struct {
        DWORD LowPart;
        DWORD HighPart;
    } u;
    ULONGLONG QuadPart;
};

// 100-nanosecond units since 1 January 1601 UTC, as two halves.
struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

struct SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
};

struct GUID {
    DWORD Data1;
    WORD Data2;
    WORD Data3;
    BYTE Data4[8];

    friend bool operator==(const GUID&, const GUID&) = default;
};
using IID = GUID;
using CLSID = GUID;
using REFGUID = const GUID&;
using REFIID = const IID&;
using REFCLSID = const CLSID&;

struct SECURITY_ATTRIBUTES {
    DWORD nLength;
    void* lpSecurityDescriptor;
    BOOL bInheritHandle;
};

struct POINT {
    LONG x;
    LONG y;
};

struct RECT {
    LONG left;
    LONG top;
    LONG right;
    LONG bottom;
};

constexpr WORD LOWORD(DWORD_PTR value) {
    return static_cast<WORD>(value & 0xFFFF);
}
constexpr WORD HIWORD(DWORD_PTR value) {
    return static_cast<WORD>((value >> 16) & 0xFFFF);
}
constexpr LONG MAKELONG(WORD low, WORD high) {
    return static_cast<LONG>(static_cast<DWORD>(low) | (static_cast<DWORD>(high) << 16));
}
