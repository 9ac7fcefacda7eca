#pragma once

// The ground floor of the platform: last error, the wide runtime over WCHAR, wide formatting, checked string
// functions, letter case, code pages, heap and interlocked operations.
//
// Everything here may be called from any thread. Nothing here throws.

#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <cwctype>

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

// ---- Last error -----------------------------------------------------------------------------------------------

// The calling thread's last error code. A function sets it when its contract says so; success leaves it alone unless
// stated.
ZRPLATFORM_API DWORD GetLastError();
ZRPLATFORM_API void SetLastError(DWORD error);

// ---- Debug output ---------------------------------------------------------------------------------------------

// Text for whoever looks for a fault. Standard error is the debugger: the text is written there, in UTF-8 and as it is,
// when the environment variable ZR_DEBUG_OUTPUT is set to something; otherwise nobody listens and nothing happens. NULL
// is nothing. The last error and errno stay.
ZRPLATFORM_API void OutputDebugStringW(const WCHAR* text);

// ---- Memory ---------------------------------------------------------------------------------------------------

inline void ZeroMemory(void* to, SIZE_T bytes) {
    std::memset(to, 0, bytes);
}
inline void FillMemory(void* to, SIZE_T bytes, BYTE value) {
    std::memset(to, value, bytes);
}
inline void CopyMemory(void* to, const void* from, SIZE_T bytes) {
    std::memcpy(to, from, bytes);
}
inline void MoveMemory(void* to, const void* from, SIZE_T bytes) {
    std::memmove(to, from, bytes);
}
// Is not left out, even where nobody reads the memory any more.
inline void* SecureZeroMemory(void* to, SIZE_T bytes) {
    std::memset(to, 0, bytes);
    __asm__ __volatile__("" : : "r"(to) : "memory");
    return to;
}

// ---- Wide runtime ---------------------------------------------------------------------------------------------
//
// Overloads, for WCHAR, of the C library's names for wchar_t; with the same contracts unless stated. All strings are
// NUL-terminated UTF-16 and must not be NULL. Characters are code units: half of a surrogate pair is a character.

ZRPLATFORM_API std::size_t wcslen(const WCHAR* text);
ZRPLATFORM_API std::size_t wcsnlen(const WCHAR* text, std::size_t limit);
ZRPLATFORM_API WCHAR* wcscpy(WCHAR* to, const WCHAR* from);
// As strncpy: pads with NUL up to `count`, and does not terminate a source that is that long or longer.
ZRPLATFORM_API WCHAR* wcsncpy(WCHAR* to, const WCHAR* from, std::size_t count);
ZRPLATFORM_API WCHAR* wcscat(WCHAR* to, const WCHAR* from);
ZRPLATFORM_API WCHAR* wcsncat(WCHAR* to, const WCHAR* from, std::size_t count);
// Orderings by unsigned code unit: negative, 0 or positive.
ZRPLATFORM_API int wcscmp(const WCHAR* left, const WCHAR* right);
ZRPLATFORM_API int wcsncmp(const WCHAR* left, const WCHAR* right, std::size_t count);
ZRPLATFORM_API const WCHAR* wcschr(const WCHAR* text, WCHAR wanted);
ZRPLATFORM_API const WCHAR* wcsrchr(const WCHAR* text, WCHAR wanted);
ZRPLATFORM_API const WCHAR* wcsstr(const WCHAR* text, const WCHAR* wanted);
ZRPLATFORM_API const WCHAR* wcspbrk(const WCHAR* text, const WCHAR* set);
inline WCHAR* wcschr(WCHAR* text, WCHAR wanted) {
    return const_cast<WCHAR*>(wcschr(static_cast<const WCHAR*>(text), wanted));
}
inline WCHAR* wcsrchr(WCHAR* text, WCHAR wanted) {
    return const_cast<WCHAR*>(wcsrchr(static_cast<const WCHAR*>(text), wanted));
}
inline WCHAR* wcsstr(WCHAR* text, const WCHAR* wanted) {
    return const_cast<WCHAR*>(wcsstr(static_cast<const WCHAR*>(text), wanted));
}
inline WCHAR* wcspbrk(WCHAR* text, const WCHAR* set) {
    return const_cast<WCHAR*>(wcspbrk(static_cast<const WCHAR*>(text), set));
}
ZRPLATFORM_API std::size_t wcscspn(const WCHAR* text, const WCHAR* set);
ZRPLATFORM_API std::size_t wcsspn(const WCHAR* text, const WCHAR* set);
// Two-argument form: the place is kept per thread. Three-argument form: the place is kept in *context.
ZRPLATFORM_API WCHAR* wcstok(WCHAR* text, const WCHAR* delimiters);
ZRPLATFORM_API WCHAR* wcstok(WCHAR* text, const WCHAR* delimiters, WCHAR** context);
ZRPLATFORM_API WCHAR* wmemcpy(WCHAR* to, const WCHAR* from, std::size_t count);
ZRPLATFORM_API WCHAR* wmemmove(WCHAR* to, const WCHAR* from, std::size_t count);
ZRPLATFORM_API WCHAR* wmemset(WCHAR* to, WCHAR value, std::size_t count);
ZRPLATFORM_API int wmemcmp(const WCHAR* left, const WCHAR* right, std::size_t count);
// A copy allocated with malloc, which the caller releases with free; NULL for NULL or when memory is short.
ZRPLATFORM_API WCHAR* _wcsdup(const WCHAR* text);

// The same with other manners: NULL is a text that is not there. Orderings are -1, 0 and 1, by code unit or, ignoring
// case, by lower-cased code unit, as wcscmp and _wcsicmp have them and not as a dictionary would; NULL comes before
// every text.
ZRPLATFORM_API int lstrlenW(LPCWSTR text);  // 0 for NULL
// NULL, and nothing happens, when one of the two is NULL.
ZRPLATFORM_API LPWSTR lstrcpyW(LPWSTR to, LPCWSTR from);
ZRPLATFORM_API LPWSTR lstrcatW(LPWSTR to, LPCWSTR from);
// Copies what fits into `capacity` characters with the terminator, which is written in any case; NULL as above, and
// when nothing fits.
ZRPLATFORM_API LPWSTR lstrcpynW(LPWSTR to, LPCWSTR from, int capacity);
ZRPLATFORM_API int lstrcmpW(LPCWSTR left, LPCWSTR right);
ZRPLATFORM_API int lstrcmpiW(LPCWSTR left, LPCWSTR right);

// ---- Letter case ----------------------------------------------------------------------------------------------
//
// One map of pairs serves every function of this group: a capital letter and the small one that is its only partner, of
// Unicode 15.0 in the Basic Multilingual Plane. Lower-casing, for CharLower* as for towlower and _wcslwr, turns the
// capital of a pair into the small letter, upper-casing turns the small one into the capital, and neither changes
// anything else. The comparisons compare the lower-cased code units. So two strings compare equal ignoring case exactly
// when they are equal after lower-casing, or after upper-casing, and a hash of lower-cased text agrees with _wcsicmp.
// Letters without a partner of their own are only equal to themselves: final sigma, long s, the micro, Kelvin, Angstrom
// and Ohm signs, U+1E9E and U+00DF, the dotted and the dotless i of Turkish, the four letters with a title case.
// Surrogates are never changed.

ZRPLATFORM_API WCHAR towlower(WCHAR character);
ZRPLATFORM_API WCHAR towupper(WCHAR character);
ZRPLATFORM_API WCHAR* _wcslwr(WCHAR* text);
ZRPLATFORM_API WCHAR* _wcsupr(WCHAR* text);
// Orderings of the lower-cased code units: negative, 0 or positive.
ZRPLATFORM_API int _wcsicmp(const WCHAR* left, const WCHAR* right);
ZRPLATFORM_API int _wcsnicmp(const WCHAR* left, const WCHAR* right, std::size_t count);
// Narrow: ASCII letters only; other bytes compare as unsigned values.
ZRPLATFORM_API int _stricmp(const char* left, const char* right);
ZRPLATFORM_API int _strnicmp(const char* left, const char* right, std::size_t count);

// Change `length` characters in place, NUL among them, and return how many were processed; 0 for NULL.
ZRPLATFORM_API DWORD CharLowerBuffW(WCHAR* text, DWORD length);
ZRPLATFORM_API DWORD CharUpperBuffW(WCHAR* text, DWORD length);
// Change a string in place and return it; a pointer whose value is below 0x10000 is a single character instead, and
// comes back changed.
ZRPLATFORM_API WCHAR* CharLowerW(WCHAR* text);
ZRPLATFORM_API WCHAR* CharUpperW(WCHAR* text);

// ---- Character classes ----------------------------------------------------------------------------------------
//
// Nonzero for members. Space: U+0009 to U+000D, U+0020, U+0085, U+00A0, U+1680, U+2000 to U+200A, U+2028, U+2029,
// U+202F, U+205F, U+3000. Digit: 0 to 9 alone, so that a digit is always one that _wtol reads. Alpha, upper and lower:
// the letters, upper-case and lower-case letters of Unicode 15.0. Punct: its punctuation and symbols. Print: letters,
// marks, numbers, punctuation, symbols and spaces. Of the Basic Multilingual Plane; no surrogate is a member of any.

ZRPLATFORM_API int iswspace(WCHAR character);
ZRPLATFORM_API int iswdigit(WCHAR character);
ZRPLATFORM_API int iswxdigit(WCHAR character);
ZRPLATFORM_API int iswalpha(WCHAR character);
ZRPLATFORM_API int iswalnum(WCHAR character);
ZRPLATFORM_API int iswupper(WCHAR character);
ZRPLATFORM_API int iswlower(WCHAR character);
ZRPLATFORM_API int iswpunct(WCHAR character);
ZRPLATFORM_API int iswcntrl(WCHAR character);
ZRPLATFORM_API int iswprint(WCHAR character);

// The result of arithmetic on a WCHAR is an int, and means the WCHAR. A wchar_t stays with the C library.
#define ZRPLATFORM_WIDE_OVERLOADS(result, c_result, name) \
    inline result name(int character) {                   \
        return name(static_cast<WCHAR>(character));       \
    }                                                     \
    inline c_result name(wchar_t character) {             \
        return name(static_cast<std::wint_t>(character)); \
    }
ZRPLATFORM_WIDE_OVERLOADS(WCHAR, std::wint_t, towlower)
ZRPLATFORM_WIDE_OVERLOADS(WCHAR, std::wint_t, towupper)
ZRPLATFORM_WIDE_OVERLOADS(int, int, iswspace)
ZRPLATFORM_WIDE_OVERLOADS(int, int, iswdigit)
ZRPLATFORM_WIDE_OVERLOADS(int, int, iswxdigit)
ZRPLATFORM_WIDE_OVERLOADS(int, int, iswalpha)
ZRPLATFORM_WIDE_OVERLOADS(int, int, iswalnum)
ZRPLATFORM_WIDE_OVERLOADS(int, int, iswupper)
ZRPLATFORM_WIDE_OVERLOADS(int, int, iswlower)
ZRPLATFORM_WIDE_OVERLOADS(int, int, iswpunct)
ZRPLATFORM_WIDE_OVERLOADS(int, int, iswcntrl)
ZRPLATFORM_WIDE_OVERLOADS(int, int, iswprint)
#undef ZRPLATFORM_WIDE_OVERLOADS

// ---- Numbers out of text --------------------------------------------------------------------------------------

// Leading white space, a sign, decimal digits; 0 when there is no number. A number out of range gives the nearest
// LONG (LONG_MIN or LONG_MAX).
ZRPLATFORM_API LONG _wtol(const WCHAR* text);
ZRPLATFORM_API int _wtoi(const WCHAR* text);
ZRPLATFORM_API LONGLONG _wtoi64(const WCHAR* text);
// As strtol and strtoul, 32 bits wide. `end` may be NULL. A base other than 0 and 2 to 36 gives 0 and *end = text.
// Out of range gives the nearest value; a minus sign negates an unsigned result.
ZRPLATFORM_API LONG wcstol(const WCHAR* text, WCHAR** end, int base);
ZRPLATFORM_API ULONG wcstoul(const WCHAR* text, WCHAR** end, int base);
// Write `value` in a base of 2 to 36 with lower-case digits and return `text`. `text` must hold 34 characters (66 for
// 64 bits). Only base 10 writes a minus sign. Another base writes an empty string.
ZRPLATFORM_API WCHAR* _itow(int value, WCHAR* text, int base);
ZRPLATFORM_API WCHAR* _ltow(LONG value, WCHAR* text, int base);
ZRPLATFORM_API WCHAR* _ultow(ULONG value, WCHAR* text, int base);
ZRPLATFORM_API WCHAR* _i64tow(LONGLONG value, WCHAR* text, int base);
ZRPLATFORM_API WCHAR* _ui64tow(ULONGLONG value, WCHAR* text, int base);

// ---- Formatting -----------------------------------------------------------------------------------------------
//
// %[flags][width][.precision][size]type, with flags - + space 0 #, width and precision as numbers or *.
//   d i u x X o   integers of 32 bits; size l is 32 bits too (a LONG), ll and I64 are 64 bits, I32 is 32 bits,
//                 I is of pointer width, h is a short, hh a char
//   s             a wide string; hs and S a narrow one (Windows-1252), ls ws lS wS a wide one
//   c             a wide character; hc and C a narrow one, lc wc a wide one. U+0000 is written as it is.
//   e E f F g G   a double; the exponent has at least three digits. What lies exactly between two results is rounded
//                 away from zero. Infinities are 1.#INF and -1.#INF, and what is not a number 1.#QNAN or -1.#QNAN; to
//                 the precision these are digits: 1.#INF00 with six, 1.#J with two. The decimal point is always a full
//                 stop.
//   p             a pointer in upper-case hexadecimal, with all leading zeros
//   %             a percent sign
//   n             is refused: its argument is taken, nothing is written to it, and nothing is printed
// A NULL string prints "(null)". A string's precision counts characters, and no character beyond it is read.
// A type that is not listed prints as itself, without the percent sign and flags, and takes no argument; a format that
// ends inside a conversion ends the output there. A negative width from * means left-justified, a negative precision
// means none. A width or precision larger than 2147483647 is taken as that.

// Formats at most `count` characters. The length without terminator when everything fitted; when the length is exactly
// `count`, there is no terminator. -1 when it did not fit: `count` characters are stored, without terminator. -1 too
// for a NULL format, or a NULL buffer with a count that is not 0.
ZRPLATFORM_API int _snwprintf(WCHAR* buffer, std::size_t count, const WCHAR* format, ...);
ZRPLATFORM_API int _vsnwprintf(WCHAR* buffer, std::size_t count, const WCHAR* format, va_list arguments);
// Formats without a limit: the caller guarantees room. Returns the length. New code uses StringCchPrintfW.
ZRPLATFORM_API int swprintf(WCHAR* buffer, const WCHAR* format, ...);
ZRPLATFORM_API int vswprintf(WCHAR* buffer, const WCHAR* format, va_list arguments);
// Formats at most 1023 characters and always terminates; `buffer` must hold 1024. The length stored.
ZRPLATFORM_API int wsprintfW(WCHAR* buffer, const WCHAR* format, ...);
ZRPLATFORM_API int wvsprintfW(WCHAR* buffer, const WCHAR* format, va_list arguments);

// ---- Checked string functions ---------------------------------------------------------------------------------
//
// Capacities count characters (Cch) or bytes (Cb) with the terminator. S_OK; STRSAFE_E_INSUFFICIENT_BUFFER when the
// result did not fit: then it is cut, and terminated; STRSAFE_E_INVALID_PARAMETER for a capacity of 0 or above the
// maximum, or a NULL pointer: then nothing but an empty string is written, where there is room and a place for one.

inline constexpr std::size_t STRSAFE_MAX_CCH = 2147483647;

ZRPLATFORM_API HRESULT StringCchPrintfW(WCHAR* to, std::size_t capacity, const WCHAR* format, ...);
ZRPLATFORM_API HRESULT StringCchVPrintfW(WCHAR* to, std::size_t capacity, const WCHAR* format, va_list arguments);
ZRPLATFORM_API HRESULT StringCchCopyW(WCHAR* to, std::size_t capacity, const WCHAR* from);
// Copies at most `count` characters of `from`.
ZRPLATFORM_API HRESULT StringCchCopyNW(WCHAR* to, std::size_t capacity, const WCHAR* from, std::size_t count);
// `to` must be terminated within its capacity; otherwise STRSAFE_E_INVALID_PARAMETER, and nothing is written.
ZRPLATFORM_API HRESULT StringCchCatW(WCHAR* to, std::size_t capacity, const WCHAR* from);
ZRPLATFORM_API HRESULT StringCchCatNW(WCHAR* to, std::size_t capacity, const WCHAR* from, std::size_t count);
// STRSAFE_E_INVALID_PARAMETER, with *length 0, when no terminator stands among the first `limit` characters, or for
// NULL. `length` may be NULL.
ZRPLATFORM_API HRESULT StringCchLengthW(const WCHAR* text, std::size_t limit, std::size_t* length);

ZRPLATFORM_API HRESULT StringCbPrintfW(WCHAR* to, std::size_t bytes, const WCHAR* format, ...);
ZRPLATFORM_API HRESULT StringCbVPrintfW(WCHAR* to, std::size_t bytes, const WCHAR* format, va_list arguments);
ZRPLATFORM_API HRESULT StringCbCopyW(WCHAR* to, std::size_t bytes, const WCHAR* from);
ZRPLATFORM_API HRESULT StringCbCopyNW(WCHAR* to, std::size_t bytes, const WCHAR* from, std::size_t byteCount);
ZRPLATFORM_API HRESULT StringCbCatW(WCHAR* to, std::size_t bytes, const WCHAR* from);
ZRPLATFORM_API HRESULT StringCbCatNW(WCHAR* to, std::size_t bytes, const WCHAR* from, std::size_t byteCount);
ZRPLATFORM_API HRESULT StringCbLengthW(const WCHAR* text, std::size_t limit, std::size_t* bytes);

// ---- Code pages -----------------------------------------------------------------------------------------------

inline constexpr UINT CP_ACP = 0;
inline constexpr UINT CP_UTF8 = 65001;
inline constexpr DWORD MB_PRECOMPOSED = 0x1;
inline constexpr DWORD MB_ERR_INVALID_CHARS = 0x8;
inline constexpr DWORD WC_ERR_INVALID_CHARS = 0x80;
inline constexpr DWORD WC_NO_BEST_FIT_CHARS = 0x400;

// Code pages: CP_ACP and 1252 (Windows-1252), CP_UTF8. `length` is in bytes, or in characters of `wide`; -1 means up to
// and with the terminator. A capacity of 0 asks how much room is needed, and writes nothing.
// The number of units written or needed; 0 on failure, with the last error: ERROR_INVALID_PARAMETER (NULL, a length or
// capacity out of range, overlapping buffers, an unknown code page), ERROR_INSUFFICIENT_BUFFER, ERROR_INVALID_FLAGS,
// ERROR_NO_UNICODE_TRANSLATION (invalid text, when the flags ask for it).
// Invalid UTF-8 becomes U+FFFD, one for each maximal damaged part; a lone surrogate becomes U+FFFD in UTF-8.
// The undefined bytes of 1252 become the characters of their value.
ZRPLATFORM_API int MultiByteToWideChar(UINT codePage, DWORD flags, const char* text, int length, WCHAR* wide,
                                       int capacity);
// A character that 1252 does not have becomes the one that fits best (a letter without its marks, the plain form of a
// sign) where there is one and WC_NO_BEST_FIT_CHARS is not given; else *defaultCharacter ('?' if NULL), which sets
// *defaultUsed. Both must be NULL for CP_UTF8.
ZRPLATFORM_API int WideCharToMultiByte(UINT codePage, DWORD flags, const WCHAR* wide, int length, char* text,
                                       int capacity, const char* defaultCharacter, BOOL* defaultUsed);

// ---- Heap -----------------------------------------------------------------------------------------------------
//
// Blocks are aligned for any type. A pointer that is NULL, was not handed out by the heap named, or was freed already
// is refused. What tells is the 16 bytes before it: memory that is no longer there, such as that of a large block
// freed before, cannot be asked.

inline constexpr DWORD HEAP_NO_SERIALIZE = 0x1;
inline constexpr DWORD HEAP_ZERO_MEMORY = 0x8;
inline constexpr DWORD HEAP_REALLOC_IN_PLACE_ONLY = 0x10;

// Always the same: a compiler may ask once for several calls.
[[gnu::const]] ZRPLATFORM_API HANDLE GetProcessHeap() noexcept;
// A heap of its own. `maximum` 0 lets it grow; otherwise it never holds more than `maximum` bytes. NULL when memory is
// short. HeapDestroy releases it with every block it still holds; the process heap is refused.
ZRPLATFORM_API HANDLE HeapCreate(DWORD flags, SIZE_T initial, SIZE_T maximum);
ZRPLATFORM_API BOOL HeapDestroy(HANDLE heap);
// NULL on failure, with ERROR_NOT_ENOUGH_MEMORY or ERROR_INVALID_HANDLE.
ZRPLATFORM_API void* HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes);
// HEAP_ZERO_MEMORY zeroes the part that is added. On failure NULL, and the block stays as it was.
ZRPLATFORM_API void* HeapReAlloc(HANDLE heap, DWORD flags, void* block, SIZE_T bytes);
// TRUE also for NULL, which is nothing to free. FALSE with ERROR_INVALID_PARAMETER for a foreign pointer.
ZRPLATFORM_API BOOL HeapFree(HANDLE heap, DWORD flags, void* block);
// The size that was asked for; (SIZE_T)-1 on failure.
ZRPLATFORM_API SIZE_T HeapSize(HANDLE heap, DWORD flags, const void* block);
// Whether the block is one of the heap's; with NULL, whether the heap is one.
ZRPLATFORM_API BOOL HeapValidate(HANDLE heap, DWORD flags, const void* block);

inline constexpr UINT LMEM_FIXED = 0x0;
inline constexpr UINT LMEM_MOVEABLE = 0x2;
inline constexpr UINT LMEM_ZEROINIT = 0x40;
inline constexpr UINT LMEM_MODIFY = 0x80;
inline constexpr UINT LMEM_INVALID_HANDLE = 0x8000;
inline constexpr UINT LMEM_LOCKCOUNT = 0xFF;
inline constexpr UINT LPTR = LMEM_FIXED | LMEM_ZEROINIT;
inline constexpr UINT LHND = LMEM_MOVEABLE | LMEM_ZEROINIT;
inline constexpr UINT GMEM_FIXED = LMEM_FIXED;
inline constexpr UINT GMEM_MOVEABLE = LMEM_MOVEABLE;
inline constexpr UINT GMEM_ZEROINIT = LMEM_ZEROINIT;
inline constexpr UINT GMEM_MODIFY = LMEM_MODIFY;
inline constexpr UINT GMEM_INVALID_HANDLE = LMEM_INVALID_HANDLE;
inline constexpr UINT GMEM_LOCKCOUNT = LMEM_LOCKCOUNT;
inline constexpr UINT GPTR = LPTR;
inline constexpr UINT GHND = LHND;

// Local memory: the handle is the pointer. No block ever moves but by LocalReAlloc, whatever the flags say.
ZRPLATFORM_API HLOCAL LocalAlloc(UINT flags, SIZE_T bytes);
// LMEM_ZEROINIT zeroes the part that is added. On failure NULL, and the block stays as it was. With LMEM_MODIFY nothing
// is done to the block, and `bytes` does not count.
ZRPLATFORM_API HLOCAL LocalReAlloc(HLOCAL block, SIZE_T bytes, UINT flags);
// NULL when it is released (or was NULL); otherwise `block` itself, with ERROR_INVALID_HANDLE.
ZRPLATFORM_API HLOCAL LocalFree(HLOCAL block);
// The size that was asked for; 0 on failure, with ERROR_INVALID_HANDLE.
ZRPLATFORM_API SIZE_T LocalSize(HLOCAL block);
// The block itself; NULL with ERROR_INVALID_HANDLE for what is none.
ZRPLATFORM_API LPVOID LocalLock(HLOCAL block);
// FALSE: with NO_ERROR as last error, since no block is locked any more after it; with ERROR_INVALID_HANDLE for what is
// no block.
ZRPLATFORM_API BOOL LocalUnlock(HLOCAL block);
// The block that begins at an address; NULL with ERROR_INVALID_HANDLE when none does.
ZRPLATFORM_API HLOCAL LocalHandle(LPCVOID address);
// 0: nothing is locked or was discarded; LMEM_INVALID_HANDLE with ERROR_INVALID_HANDLE for what is no block.
ZRPLATFORM_API UINT LocalFlags(HLOCAL block);

// Global memory is local memory by another name.
ZRPLATFORM_API HGLOBAL GlobalAlloc(UINT flags, SIZE_T bytes);
ZRPLATFORM_API HGLOBAL GlobalReAlloc(HGLOBAL block, SIZE_T bytes, UINT flags);
ZRPLATFORM_API HGLOBAL GlobalFree(HGLOBAL block);
ZRPLATFORM_API SIZE_T GlobalSize(HGLOBAL block);
ZRPLATFORM_API LPVOID GlobalLock(HGLOBAL block);
ZRPLATFORM_API BOOL GlobalUnlock(HGLOBAL block);
ZRPLATFORM_API HGLOBAL GlobalHandle(LPCVOID address);
ZRPLATFORM_API UINT GlobalFlags(HGLOBAL block);

// ---- Interlocked operations -----------------------------------------------------------------------------------
//
// Full barriers: no other access to memory, plain ones included, moves across one of them. Increment and Decrement
// return the new value, the others the old one.

// On 64-bit ARM an access behind such an operation could overtake its store.
template <class T>
inline T ZrFenced(T result) {
#if defined(__aarch64__)
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
#endif
    return result;
}
inline LONG InterlockedIncrement(LONG volatile* value) {
    return ZrFenced(__atomic_add_fetch(value, 1, __ATOMIC_SEQ_CST));
}
inline LONG InterlockedDecrement(LONG volatile* value) {
    return ZrFenced(__atomic_sub_fetch(value, 1, __ATOMIC_SEQ_CST));
}
inline LONG InterlockedExchange(LONG volatile* value, LONG desired) {
    return ZrFenced(__atomic_exchange_n(value, desired, __ATOMIC_SEQ_CST));
}
inline LONG InterlockedExchangeAdd(LONG volatile* value, LONG amount) {
    return ZrFenced(__atomic_fetch_add(value, amount, __ATOMIC_SEQ_CST));
}
// Stores `desired` if the value is `expected`.
inline LONG InterlockedCompareExchange(LONG volatile* value, LONG desired, LONG expected) {
    __atomic_compare_exchange_n(value, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return ZrFenced(expected);
}
// The same with the handheld's own order of arguments.
inline LONG InterlockedTestExchange(LONG volatile* value, LONG expected, LONG desired) {
    return InterlockedCompareExchange(value, desired, expected);
}
inline void* InterlockedExchangePointer(void* volatile* value, void* desired) {
    return ZrFenced(__atomic_exchange_n(value, desired, __ATOMIC_SEQ_CST));
}
inline void* InterlockedCompareExchangePointer(void* volatile* value, void* desired, void* expected) {
    __atomic_compare_exchange_n(value, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return ZrFenced(expected);
}

// ---- Interlocked singly linked lists --------------------------------------------------------------------------
//
// The last entry pushed is the first one popped. An entry lies in memory of the caller's, which may be given back as
// soon as the entry is off the list, whatever other threads do to the list at the moment. The list is plain data, that
// of one process; its parts are not for the caller. A fork leaves parent and child a list each.

inline constexpr SIZE_T MEMORY_ALLOCATION_ALIGNMENT = 2 * sizeof(void*);

struct alignas(MEMORY_ALLOCATION_ALIGNMENT) SLIST_ENTRY {
    SLIST_ENTRY* Next;
};
using PSLIST_ENTRY = SLIST_ENTRY*;
using LPSLIST_ENTRY = SLIST_ENTRY*;

struct alignas(MEMORY_ALLOCATION_ALIGNMENT) SLIST_HEADER {
    SLIST_ENTRY* Head;
    SIZE_T Depth;
};
using PSLIST_HEADER = SLIST_HEADER*;
using LPSLIST_HEADER = SLIST_HEADER*;

// Makes the list empty; not while other threads use it.
ZRPLATFORM_API void InitializeSListHead(PSLIST_HEADER list);
// Returns the entry that was first before; NULL when the list was empty.
ZRPLATFORM_API PSLIST_ENTRY InterlockedPushEntrySList(PSLIST_HEADER list, PSLIST_ENTRY entry);
// The first entry, off the list; NULL when it is empty.
ZRPLATFORM_API PSLIST_ENTRY InterlockedPopEntrySList(PSLIST_HEADER list);
// All entries, off the list and linked as they were; NULL when there are none.
ZRPLATFORM_API PSLIST_ENTRY InterlockedFlushSList(PSLIST_HEADER list);
// How many entries there are, in 16 bits.
ZRPLATFORM_API USHORT QueryDepthSList(PSLIST_HEADER list);
