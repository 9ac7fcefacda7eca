// Numbers out of wide text, and integers into it.

#include <algorithm>
#include <limits>

#include "platform/base.h"

namespace {

struct Parsed {
    ULONGLONG magnitude = 0;  // saturates at the largest value
    bool negative = false;
    const WCHAR* end = nullptr;  // after the last digit; null when there is no number
};

int digit_value(WCHAR character) {
    if (character >= u'0' && character <= u'9') return character - u'0';
    if (character >= u'a' && character <= u'z') return character - u'a' + 10;
    if (character >= u'A' && character <= u'Z') return character - u'A' + 10;
    return 36;
}

bool has_hex_prefix(const WCHAR* at) {
    return at[0] == u'0' && (at[1] == u'x' || at[1] == u'X') && digit_value(at[2]) < 16;
}

Parsed parse(const WCHAR* text, int base) {
    Parsed result;
    if (base != 0 && (base < 2 || base > 36)) return result;
    while (iswspace(*text) != 0) {
        ++text;
    }
    if (*text == u'-' || *text == u'+') result.negative = *text++ == u'-';
    if ((base == 0 || base == 16) && has_hex_prefix(text)) {
        text += 2;
        base = 16;
    }
    if (base == 0) base = *text == u'0' ? 8 : 10;
    constexpr ULONGLONG limit = std::numeric_limits<ULONGLONG>::max();
    for (int digit = 0; (digit = digit_value(*text)) < base; ++text) {
        const auto wide_base = static_cast<ULONGLONG>(base);
        const bool fits = result.magnitude <= (limit - static_cast<ULONGLONG>(digit)) / wide_base;
        result.magnitude = fits ? result.magnitude * wide_base + static_cast<ULONGLONG>(digit) : limit;
        result.end = text + 1;
    }
    return result;
}

template <class Integer>
Integer clamp_signed(const Parsed& parsed) {
    constexpr auto most = static_cast<ULONGLONG>(std::numeric_limits<Integer>::max());
    if (!parsed.negative) return static_cast<Integer>(std::min(parsed.magnitude, most));
    if (parsed.magnitude > most) return std::numeric_limits<Integer>::min();
    return static_cast<Integer>(-static_cast<LONGLONG>(parsed.magnitude));
}

void set_end(WCHAR** end, const WCHAR* text, const Parsed& parsed) {
    if (end != nullptr) *end = const_cast<WCHAR*>(parsed.end != nullptr ? parsed.end : text);
}

WCHAR* write(ULONGLONG magnitude, bool negative, WCHAR* text, int base) {
    if (base < 2 || base > 36) {
        *text = 0;
        return text;
    }
    WCHAR* at = text;
    do {
        *at++ = u"0123456789abcdefghijklmnopqrstuvwxyz"[magnitude % static_cast<ULONGLONG>(base)];
        magnitude /= static_cast<ULONGLONG>(base);
    } while (magnitude != 0);
    if (negative) *at++ = u'-';
    *at = 0;
    std::reverse(text, at);
    return text;
}

}  // namespace

LONG _wtol(const WCHAR* text) {
    return clamp_signed<LONG>(parse(text, 10));
}

int _wtoi(const WCHAR* text) {
    return _wtol(text);
}

LONGLONG _wtoi64(const WCHAR* text) {
    return clamp_signed<LONGLONG>(parse(text, 10));
}

LONG wcstol(const WCHAR* text, WCHAR** end, int base) {
    const Parsed parsed = parse(text, base);
    set_end(end, text, parsed);
    return clamp_signed<LONG>(parsed);
}

ULONG wcstoul(const WCHAR* text, WCHAR** end, int base) {
    const Parsed parsed = parse(text, base);
    set_end(end, text, parsed);
    if (parsed.magnitude > std::numeric_limits<ULONG>::max()) return std::numeric_limits<ULONG>::max();
    const auto value = static_cast<ULONG>(parsed.magnitude);
    return parsed.negative ? 0 - value : value;
}

WCHAR* _itow(int value, WCHAR* text, int base) {
    return _ltow(value, text, base);
}

WCHAR* _ltow(LONG value, WCHAR* text, int base) {
    if (base == 10 && value < 0) return write(0 - static_cast<ULONGLONG>(static_cast<LONGLONG>(value)), true, text, 10);
    return write(static_cast<ULONG>(value), false, text, base);
}

WCHAR* _ultow(ULONG value, WCHAR* text, int base) {
    return write(value, false, text, base);
}

WCHAR* _i64tow(LONGLONG value, WCHAR* text, int base) {
    if (base == 10 && value < 0) return write(0 - static_cast<ULONGLONG>(value), true, text, 10);
    return write(static_cast<ULONGLONG>(value), false, text, base);
}

WCHAR* _ui64tow(ULONGLONG value, WCHAR* text, int base) {
    return write(value, false, text, base);
}
