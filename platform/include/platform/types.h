#pragma once

// The handheld platform's type names, with the widths they had there.
//
// WCHAR is a UTF-16 code unit: literals are u"...". LONG, ULONG, DWORD, UINT and HRESULT are 32 bits on every
// target. WPARAM, LPARAM, LRESULT and the *_PTR names are as wide as a pointer. Handles are opaque pointers.

#include <cstddef>
#include <cstdint>

using VOID = void;
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
using BOOLEAN = BYTE;
using UCHAR = unsigned char;
using FLOAT = float;
using DOUBLE = double;
using INT8 = std::int8_t;
using INT16 = std::int16_t;
using INT32 = std::int32_t;
using INT64 = std::int64_t;
using UINT8 = std::uint8_t;
using UINT16 = std::uint16_t;
using UINT32 = std::uint32_t;
using UINT64 = std::uint64_t;
using LONG32 = std::int32_t;
using LONG64 = std::int64_t;
using ULONG32 = std::uint32_t;
using ULONG64 = std::uint64_t;
using DWORD32 = std::uint32_t;
using DWORD64 = std::uint64_t;
using SSIZE_T = std::ptrdiff_t;
using TCHAR = WCHAR;  // text is wide on the handheld
using LCID = std::uint32_t;
using LANGID = std::uint16_t;
using DATE = double;

using WPARAM = UINT_PTR;
using LPARAM = LONG_PTR;
using LRESULT = LONG_PTR;

using LPVOID = void*;
using PVOID = void*;
using LPCVOID = const void*;
using LPSTR = CHAR*;
using PSTR = CHAR*;
using PCHAR = CHAR*;
using LPCSTR = const CHAR*;
using PCSTR = const CHAR*;
using LPWSTR = WCHAR*;
using PWSTR = WCHAR*;
using PWCHAR = WCHAR*;
using LPCWSTR = const WCHAR*;
using PCWSTR = const WCHAR*;
using LPTSTR = TCHAR*;
using PTSTR = TCHAR*;
using PTCHAR = TCHAR*;
using LPCTSTR = const TCHAR*;
using PCTSTR = const TCHAR*;
using LPBYTE = BYTE*;
using PBYTE = BYTE*;
using PUCHAR = UCHAR*;
using PBOOLEAN = BOOLEAN*;
using LPBOOL = BOOL*;
using PBOOL = BOOL*;
using LPWORD = WORD*;
using PWORD = WORD*;
using PSHORT = SHORT*;
using PUSHORT = USHORT*;
using LPINT = INT*;
using PINT = INT*;
using LPUINT = UINT*;
using PUINT = UINT*;
using LPLONG = LONG*;
using PLONG = LONG*;
using LPULONG = ULONG*;
using PULONG = ULONG*;
using LPDWORD = DWORD*;
using PDWORD = DWORD*;
using PLONGLONG = LONGLONG*;
using PULONGLONG = ULONGLONG*;
using PINT_PTR = INT_PTR*;
using PUINT_PTR = UINT_PTR*;
using PLONG_PTR = LONG_PTR*;
using PULONG_PTR = ULONG_PTR*;
using PDWORD_PTR = DWORD_PTR*;
using PSIZE_T = SIZE_T*;
using PFLOAT = FLOAT*;

// Other libraries define these as macros, to the same values.
#if !defined(FALSE)
inline constexpr BOOL FALSE = 0;
#endif
#if !defined(TRUE)
inline constexpr BOOL TRUE = 1;
#endif
inline constexpr DWORD MAX_PATH = 260;

using HANDLE = void*;
using HLOCAL = HANDLE;
using HGLOBAL = HANDLE;
using LPHANDLE = HANDLE*;
using PHANDLE = HANDLE*;

#define ZRPLATFORM_DECLARE_HANDLE(name) \
    struct name##__;                    \
    using name = name##__*

ZRPLATFORM_DECLARE_HANDLE(HINSTANCE);
ZRPLATFORM_DECLARE_HANDLE(HWND);
ZRPLATFORM_DECLARE_HANDLE(HMENU);
ZRPLATFORM_DECLARE_HANDLE(HKEY);
ZRPLATFORM_DECLARE_HANDLE(HICON);
ZRPLATFORM_DECLARE_HANDLE(HBRUSH);
ZRPLATFORM_DECLARE_HANDLE(HFONT);
using HMODULE = HINSTANCE;
using HCURSOR = HICON;
using PHKEY = HKEY*;
using LPHKEY = HKEY*;

#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1)))

inline constexpr DWORD INFINITE = 0xFFFFFFFF;

union LARGE_INTEGER {
    __extension__ struct {
        DWORD LowPart;
        LONG HighPart;
    };
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
};
using PLARGE_INTEGER = LARGE_INTEGER*;
using LPLARGE_INTEGER = LARGE_INTEGER*;

union ULARGE_INTEGER {
    __extension__ struct {
        DWORD LowPart;
        DWORD HighPart;
    };
    struct {
        DWORD LowPart;
        DWORD HighPart;
    } u;
    ULONGLONG QuadPart;
};
using PULARGE_INTEGER = ULARGE_INTEGER*;
using LPULARGE_INTEGER = ULARGE_INTEGER*;

// 100-nanosecond units since 1 January 1601 UTC, as two halves.
struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};
using PFILETIME = FILETIME*;
using LPFILETIME = FILETIME*;

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
using PSYSTEMTIME = SYSTEMTIME*;
using LPSYSTEMTIME = SYSTEMTIME*;

struct GUID {
    DWORD Data1;
    WORD Data2;
    WORD Data3;
    BYTE Data4[8];

    friend bool operator==(const GUID&, const GUID&) = default;
};
using IID = GUID;
using CLSID = GUID;
using LPGUID = GUID*;
using LPCGUID = const GUID*;
using LPIID = IID*;
using LPCLSID = CLSID*;
using REFGUID = const GUID&;
using REFIID = const IID&;
using REFCLSID = const CLSID&;

struct SECURITY_ATTRIBUTES {
    DWORD nLength;
    void* lpSecurityDescriptor;
    BOOL bInheritHandle;
};
using PSECURITY_ATTRIBUTES = SECURITY_ATTRIBUTES*;
using LPSECURITY_ATTRIBUTES = SECURITY_ATTRIBUTES*;

struct POINT {
    LONG x;
    LONG y;
};
using PPOINT = POINT*;
using LPPOINT = POINT*;

struct SIZE {
    LONG cx;
    LONG cy;
};
using PSIZE = SIZE*;
using LPSIZE = SIZE*;

struct RECT {
    LONG left;
    LONG top;
    LONG right;
    LONG bottom;
};
using PRECT = RECT*;
using LPRECT = RECT*;
using LPCRECT = const RECT*;

// --- Halves ----------------------------------------------------------------------------------------------------------

constexpr BYTE LOBYTE(DWORD_PTR value) {
    return static_cast<BYTE>(value & 0xFF);
}
constexpr BYTE HIBYTE(DWORD_PTR value) {
    return static_cast<BYTE>((value >> 8) & 0xFF);
}
constexpr WORD LOWORD(DWORD_PTR value) {
    return static_cast<WORD>(value & 0xFFFF);
}
constexpr WORD HIWORD(DWORD_PTR value) {
    return static_cast<WORD>((value >> 16) & 0xFFFF);
}
// Of each half only the lower bits count, as many as it has.
constexpr WORD MAKEWORD(DWORD_PTR low, DWORD_PTR high) {
    return static_cast<WORD>((low & 0xFF) | (high & 0xFF) << 8);
}
constexpr LONG MAKELONG(DWORD_PTR low, DWORD_PTR high) {
    return static_cast<LONG>(static_cast<DWORD>((low & 0xFFFF) | (high & 0xFFFF) << 16));
}
constexpr WPARAM MAKEWPARAM(DWORD_PTR low, DWORD_PTR high) {
    return static_cast<DWORD>(MAKELONG(low, high));
}
constexpr LPARAM MAKELPARAM(DWORD_PTR low, DWORD_PTR high) {
    return static_cast<LPARAM>(static_cast<DWORD_PTR>(MAKEWPARAM(low, high)));
}
constexpr LRESULT MAKELRESULT(DWORD_PTR low, DWORD_PTR high) {
    return MAKELPARAM(low, high);
}

// --- Words of the handheld's headers that are macros here too --------------------------------------------------------

// There is one calling convention.
#if !defined(WINAPI)
#define WINAPI
#endif
#if !defined(CALLBACK)
#define CALLBACK
#endif
#if !defined(APIENTRY)
#define APIENTRY WINAPI
#endif
#if !defined(WINAPIV)
#define WINAPIV
#endif
#if !defined(PASCAL)
#define PASCAL
#endif

#if !defined(DECLARE_HANDLE)
#define DECLARE_HANDLE(name) ZRPLATFORM_DECLARE_HANDLE(name)
#endif

// Wide literals. What is given may be a macro itself.
#define ZRPLATFORM_WIDE_LITERAL(literal) u##literal
#if !defined(TEXT)
#define TEXT(literal) ZRPLATFORM_WIDE_LITERAL(literal)
#endif
#if !defined(_T)
#define _T(literal) ZRPLATFORM_WIDE_LITERAL(literal)
#endif
#if !defined(_TEXT)
#define _TEXT(literal) ZRPLATFORM_WIDE_LITERAL(literal)
#endif

#if !defined(ARRAYSIZE)
#define ARRAYSIZE(array) (sizeof(array) / sizeof((array)[0]))
#endif
#if !defined(_countof)
#define _countof(array) (sizeof(array) / sizeof((array)[0]))
#endif
#if !defined(UNREFERENCED_PARAMETER)
#define UNREFERENCED_PARAMETER(name) static_cast<void>(name)
#endif
#if !defined(DBG_UNREFERENCED_PARAMETER)
#define DBG_UNREFERENCED_PARAMETER(name) static_cast<void>(name)
#endif
#if !defined(DBG_UNREFERENCED_LOCAL_VARIABLE)
#define DBG_UNREFERENCED_LOCAL_VARIABLE(name) static_cast<void>(name)
#endif
