#include "ZrUtility/Helpers/StringUtilities.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>

#include "ZrUtility/BufferStream.h"
#include "ZrUtility/Helpers/windows_1252.h"
#include "platform/base.h"

namespace {

constexpr WCHAR kCR = u'\r';
constexpr WCHAR kLF = u'\n';
constexpr std::size_t kLargestCount = std::numeric_limits<int>::max();

// SafeFormatString's room is 2 to the power of an exponent, in characters. The first is on the stack; what is longer
// starts with the room that the longest text so far took. The bytes of the last are as many as a stream holds.
constexpr unsigned int kFirstFormatExponent = 8;
constexpr unsigned int kLastFormatExponent = 30;
std::atomic<unsigned int> formatExponent{kFirstFormatExponent};

bool isLineEnd(WCHAR c) {
    return c == kCR || c == kLF;
}

WCHAR lowerAscii(WCHAR c) {
    return c >= u'A' && c <= u'Z' ? static_cast<WCHAR>(c + (u'a' - u'A')) : c;
}

bool isOneOf(WCHAR c, const WCHAR* set) {
    for (; *set != 0; ++set) {
        if (*set == c) return true;
    }
    return false;
}

// Only a length that did come out raises the room of later calls: a text too long for memory leaves it as it was, and
// so do many threads that find it too small at once.
void raiseFormatExponent(unsigned int exponent) {
    unsigned int current = formatExponent.load(std::memory_order_relaxed);
    while (current < exponent && !formatExponent.compare_exchange_weak(current, exponent, std::memory_order_relaxed)) {
    }
}

HRESULT formatOnce(WCHAR* room, std::size_t count, const WCHAR* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const HRESULT result = StringCchVPrintfW(room, count, format, again);
    va_end(again);
    return result;
}

// Formats what is longer than the first room into a stream; a new string, or NULL when memory is short.
WCHAR* formatLong(const WCHAR* format, va_list arguments) {
    BufferStream scratch;
    unsigned int exponent = std::max(formatExponent.load(std::memory_order_relaxed), kFirstFormatExponent + 1);
    for (; exponent <= kLastFormatExponent; ++exponent) {
        const std::size_t count = std::size_t{1} << exponent;
        if (FAILED(scratch.Ensure(static_cast<unsigned int>(count * sizeof(WCHAR))))) return nullptr;
        auto* room = reinterpret_cast<WCHAR*>(scratch.GetBuffer());
        if (formatOnce(room, count, format, arguments) == STRSAFE_E_INSUFFICIENT_BUFFER) continue;
        raiseFormatExponent(exponent);
        return StringUtilities::NewAndCopyString(room);
    }
    return nullptr;
}

}  // namespace

WCHAR* StringUtilities::NewString(int count) {
    return count >= 0 ? new (std::nothrow) WCHAR[static_cast<std::size_t>(count)] : nullptr;
}

WCHAR* StringUtilities::NewAndCopyString(const WCHAR* s) {
    if (s == nullptr) return nullptr;
    const std::size_t count = wcslen(s) + 1;
    WCHAR* copy = count <= kLargestCount ? NewString(static_cast<int>(count)) : nullptr;
    if (copy != nullptr) std::copy_n(s, count, copy);
    return copy;
}

void StringUtilities::DeleteString(WCHAR*& s) {
    delete[] s;
    s = nullptr;
}

void StringUtilities::DeleteString(const WCHAR*& s) {
    delete[] s;
    s = nullptr;
}

int StringUtilities::IsWhitespace(WCHAR c) {
    return iswspace(c);
}

void StringUtilities::SkipPreceedingSpaces(const WCHAR*& p) {
    while (p != nullptr && *p == u' ') {
        ++p;
    }
}

void StringUtilities::TrimLeadingWhitespace(const WCHAR** pp) {
    if (pp == nullptr || *pp == nullptr) return;
    while (**pp != 0 && IsWhitespace(**pp)) {
        ++*pp;
    }
}

void StringUtilities::TrimTrailingWhitespace(WCHAR* s) {
    if (s == nullptr) return;
    for (WCHAR* end = s + wcslen(s); end != s && IsWhitespace(end[-1]); --end) {
        end[-1] = 0;
    }
}

int StringUtilities::CompareFunction(const WCHAR* a, const WCHAR* b, COMPARE_TYPE mode) {
    switch (mode) {
        case COMPARE_PREFIX:
            return ComparePrefixFunction(a, b);
        case COMPARE_WORD_PREFIX:
            return CompareWordPrefixFunction(a, b);
        case COMPARE_EXACT:
            break;
    }
    return _wcsicmp(a, b) == 0 ? 1 : 0;
}

int StringUtilities::CompareFunctionWithNulls(const WCHAR* a, const WCHAR* b, COMPARE_TYPE mode) {
    return a != nullptr && b != nullptr ? CompareFunction(a, b, mode) : 0;
}

// A shorter `s` differs at its terminator, so its length need not be taken.
int StringUtilities::ComparePrefixFunction(const WCHAR* s, const WCHAR* prefix) {
    return _wcsnicmp(s, prefix, wcslen(prefix)) == 0 ? 1 : 0;
}

int StringUtilities::CompareWordPrefixFunction(const WCHAR* s, const WCHAR* prefix) {
    while (s != nullptr) {
        SkipPreceedingSpaces(s);
        if (ComparePrefixFunction(s, prefix)) return 1;
        s = wcschr(s, u' ');
    }
    return 0;
}

int StringUtilities::StartsWithIgnoreCase(WCHAR* prefix, WCHAR* s) {
    return prefix != nullptr && s != nullptr ? ComparePrefixFunction(s, prefix) : 0;
}

int StringUtilities::EndsWithIgnoreCase(const WCHAR* suffix, const WCHAR* s) {
    if (suffix == nullptr || s == nullptr) return 0;
    const std::size_t suffixLength = wcslen(suffix);
    const std::size_t length = wcslen(s);
    if (suffixLength == 0 || suffixLength > length) return 0;
    const WCHAR* end = s + (length - suffixLength);
    for (std::size_t i = 0; i < suffixLength; ++i) {
        if (lowerAscii(suffix[i]) != towlower(end[i])) return 0;
    }
    return 1;
}

int StringUtilities::CompareStringIgnoreCRAndLF(const WCHAR* a, const WCHAR* b) {
    const std::size_t lengthA = wcslen(a);
    const std::size_t lengthB = wcslen(b);
    if (lengthA > lengthB && (lengthA - lengthB > 1 || !isLineEnd(a[lengthB]))) return 1;
    if (lengthB > lengthA && (lengthB - lengthA > 1 || !isLineEnd(b[lengthA]))) return 1;
    return MyStringCompareIgnoreCRAndLF(a, b, static_cast<int>(std::min(lengthA, lengthB)));
}

int StringUtilities::MyStringCompareIgnoreCRAndLF(const WCHAR* a, const WCHAR* b, int len) {
    const int difference = wcsncmp(a, b, static_cast<std::size_t>(len));
    if (difference == 0) return 0;
    if (wcschr(a, kLF) == nullptr && wcschr(b, kLF) == nullptr) return difference;
    for (int i = 0; i < len; ++i) {
        if (a[i] != b[i] && !(isLineEnd(a[i]) && isLineEnd(b[i]))) return difference;
    }
    return 0;
}

const char* StringUtilities::strnistr(const char* hay, unsigned int n, const char* needle) {
    const std::size_t length = std::strlen(needle);
    if (length > n) return nullptr;
    if (length == 0) return n != 0 ? static_cast<const char*>(std::memchr(hay, 0, n)) : nullptr;
    for (std::size_t at = 0; at + length <= n; ++at) {
        if (hay[at] == needle[0] && _strnicmp(hay + at, needle, length) == 0) return hay + at;
    }
    return nullptr;
}

unsigned int StringUtilities::strncspn(const char* s, unsigned int n, const char* reject) {
    bool stops[256] = {true};
    for (; *reject != 0; ++reject) {
        stops[static_cast<unsigned char>(*reject)] = true;
    }
    unsigned int count = 0;
    while (count < n && !stops[static_cast<unsigned char>(s[count])]) {
        ++count;
    }
    return count;
}

void StringUtilities::StripNonDigitsFromString(char* s) {
    char* to = s;
    for (; *s != 0; ++s) {
        if (*s >= '0' && *s <= '9') *to++ = *s;
    }
    *to = 0;
}

WCHAR* StringUtilities::NextToken(WCHAR* cur, WCHAR* end, WCHAR* out, int outSize, WCHAR* delimiters) {
    if (*cur == 0) return nullptr;
    if (outSize < 1) return cur;
    WCHAR* const outEnd = out + (outSize - 1);
    for (; cur < end && out != outEnd && !isOneOf(*cur, delimiters); ++cur) {
        *out++ = *cur;
    }
    const bool cut = out == outEnd;
    *out = 0;
    if (cut) return cur;
    while (cur < end && isOneOf(*cur, delimiters)) {
        ++cur;
    }
    return cur;
}

int StringUtilities::DecodeInteger(WCHAR* s, int len) {
    constexpr int kDigits = 19;
    WCHAR digits[kDigits + 1];
    int count = 0;
    for (; count < std::min(len, kDigits) && s[count] != 0; ++count) {
        digits[count] = s[count];
    }
    digits[count] = 0;
    return _wtol(digits);
}

void StringUtilities::DecodeAddress(WCHAR* s, WCHAR** address, WCHAR** name) {
    *address = s;
    *name = nullptr;
    WCHAR* to = s;
    WCHAR* nameEnd = s;
    const WCHAR* from = s;
    for (; *from != 0 && *from != u'<'; ++from) {
        if (*from == u'"') continue;
        *to++ = *from;
        if (*from != u' ') nameEnd = to;
    }
    // What follows closes up with what the quotes left behind; `to` is then the '<' or the terminator.
    if (to != from) wmemmove(to, from, wcslen(from) + 1);
    if (*to == 0) return;
    *name = s;
    *address = CutBracketedAddress(to + 1);
    *nameEnd = 0;
}

WCHAR* StringUtilities::CutBracketedAddress(WCHAR* s) {
    while (*s == u' ') {
        ++s;
    }
    WCHAR* last = s;
    for (WCHAR* at = s; *at != u'>' && *at != 0; ++at) {
        if (*at != u' ') last = at;
    }
    // At the end of the text there is nothing to cut, and nothing behind it that is the caller's.
    if (*last != 0) last[1] = 0;
    return s;
}

void StringUtilities::BypassKelAttachmentPrefix(WCHAR* name, WCHAR** out) {
    static constexpr WCHAR kPrefix[] = u"x-keldevice";
    if (out == nullptr || name == nullptr) return;
    *out = name;
    if (!ComparePrefixFunction(name, kPrefix)) return;
    WCHAR* colon = wcschr(name, u':');
    if (colon == nullptr) return;
    *out = colon[1] == u' ' ? colon + 2 : colon + 1;
}

void StringUtilities::HexFromBin(unsigned char* bytes, int count, WCHAR* out) {
    static constexpr WCHAR kDigits[] = u"0123456789ABCDEF";
    for (int i = 0; i < count; ++i) {
        *out++ = kDigits[bytes[i] >> 4];
        *out++ = kDigits[bytes[i] & 0xF];
    }
    *out = 0;
}

void StringUtilities::ToASCII(unsigned char* dst, const WCHAR* src, int count, int dstOffset) {
    dst += dstOffset;
    const std::size_t length = std::max(count, 0);
    zr::windows1252::encode(dst, src, length);
    dst[length] = 0;
}

void StringUtilities::ToWCHAR(WCHAR* dst, unsigned char* src, int count, int dstOffset) {
    dst += dstOffset;
    const std::size_t length = std::max(count, 0);
    zr::windows1252::decode(dst, src, length);
    dst[length] = 0;
}

WCHAR* StringUtilities::FixNewLine(const WCHAR* s) {
    if (s == nullptr) return nullptr;
    const std::size_t length = wcslen(s);
    WCHAR* fixed = length <= (kLargestCount - 1) / 2 ? NewString(static_cast<int>(2 * length + 1)) : nullptr;
    if (fixed == nullptr) return nullptr;
    WCHAR* to = fixed;
    for (const WCHAR* at = s; *at != 0; ++at) {
        if (*at == kLF && (at == s || at[-1] != kCR)) *to++ = kCR;
        *to++ = *at;
        if (*at == kCR && at[1] != kLF) *to++ = kLF;
    }
    *to = 0;
    return fixed;
}

int StringUtilities::FixUnicodeReturnChar(const WCHAR* src, WCHAR* dst, int count) {
    if (src == nullptr || dst == nullptr) return 0;
    for (int i = 0; i < count; ++i) {
        *dst++ = src[i];
        if (src[i] == kCR && (i + 1 == count || src[i + 1] != kLF)) *dst++ = kLF;
    }
    return 1;
}

int StringUtilities::removeLFFromCRLF(WCHAR* s) {
    if (s == nullptr) return 0;
    WCHAR* to = s;
    while (*s != 0) {
        const bool pair = s[0] == kCR && s[1] == kLF;
        *to++ = *s;
        s += pair ? 2 : 1;
    }
    *to = 0;
    return 1;
}

WCHAR* StringUtilities::SafeFormatString(const WCHAR* format, ...) {
    WCHAR room[1u << kFirstFormatExponent];
    va_list arguments;
    va_start(arguments, format);
    const bool fits = formatOnce(room, std::size(room), format, arguments) != STRSAFE_E_INSUFFICIENT_BUFFER;
    WCHAR* formatted = fits ? NewAndCopyString(room) : formatLong(format, arguments);
    va_end(arguments);
    return formatted;
}
