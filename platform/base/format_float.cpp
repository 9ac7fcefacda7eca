// e, f and g conversions. The digits come from std::to_chars, which is exact and knows no locale.

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>

#include "format_conversion.h"

namespace zr::platform {

namespace {

// A double has at most 1074 digits after the point: beyond this, only zeros follow, and they are written as such.
constexpr std::size_t kMostDigits = 1100;
constexpr std::size_t kBufferSize = 1536;

struct Digits {
    WCHAR text[kBufferSize];
    std::size_t length = 0;
    WCHAR exponent[8];
    std::size_t exponent_length = 0;

    void put(char character) { text[length++] = static_cast<WCHAR>(character); }
    bool has_point() const { return std::find(text, text + length, u'.') != text + length; }
};

int exponent_of(std::string_view scientific) {
    int exponent = 0;
    const char* digits = scientific.data() + scientific.find('e') + 1;
    if (*digits == '+') ++digits;
    std::from_chars(digits, scientific.data() + scientific.size(), exponent);
    return exponent;
}

void put_exponent(Digits& digits, int exponent, bool capital) {
    const int magnitude = std::abs(exponent);
    const WCHAR text[] = {capital ? u'E' : u'e', exponent < 0 ? u'-' : u'+', static_cast<WCHAR>(u'0' + magnitude / 100),
                          static_cast<WCHAR>(u'0' + magnitude / 10 % 10), static_cast<WCHAR>(u'0' + magnitude % 10)};
    digits.exponent_length = std::size(text);
    std::copy(std::begin(text), std::end(text), digits.exponent);
}

void fixed(Digits& digits, double value, std::size_t precision) {
    char text[kBufferSize];
    const auto result =
        std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, static_cast<int>(precision));
    std::for_each(text, result.ptr, [&digits](char character) { digits.put(character); });
}

void scientific(Digits& digits, double value, std::size_t precision, bool capital) {
    char text[kBufferSize];
    const auto result =
        std::to_chars(text, text + sizeof text, value, std::chars_format::scientific, static_cast<int>(precision));
    const std::string_view whole(text, static_cast<std::size_t>(result.ptr - text));
    for (const char character : whole.substr(0, whole.find('e'))) {
        digits.put(character);
    }
    put_exponent(digits, exponent_of(whole), capital);
}

void strip_zeros(Digits& digits) {
    if (!digits.has_point()) return;
    while (digits.text[digits.length - 1] == u'0') {
        --digits.length;
    }
    if (digits.text[digits.length - 1] == u'.') --digits.length;
}

// Fixed or with an exponent, whichever the size of the number asks for; `precision` counts significant digits.
void general(Digits& digits, double value, std::size_t precision, bool capital) {
    const int significant = static_cast<int>(precision == 0 ? 1 : precision);
    char text[kBufferSize];
    const auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::scientific, significant - 1);
    const int exponent = exponent_of({text, static_cast<std::size_t>(result.ptr - text)});
    if (exponent < -4 || exponent >= significant) {
        scientific(digits, value, static_cast<std::size_t>(significant - 1), capital);
    } else {
        fixed(digits, value, static_cast<std::size_t>(significant - 1 - exponent));
    }
}

void write_special(FormatSink& sink, const Conversion& conversion, double value) {
    const std::u16string_view text = std::isnan(value) ? u"1.#QNAN" : u"1.#INF";
    NumberPieces number;
    put_sign(number, conversion, std::signbit(value));
    number.digits = text.data();
    number.digit_count = text.size();
    write_number(sink, conversion, number, conversion.zero);
}

}  // namespace

void write_float(FormatSink& sink, const Conversion& conversion, double value) {
    if (!std::isfinite(value)) {
        write_special(sink, conversion, value);
        return;
    }
    const std::size_t wanted = conversion.has_precision() ? conversion.precision : 6;
    const std::size_t precision = std::min(wanted, kMostDigits);
    const bool capital = conversion.type == u'E' || conversion.type == u'G';
    const bool is_general = conversion.type == u'g' || conversion.type == u'G';
    Digits digits;
    if (is_general) {
        general(digits, std::fabs(value), precision, capital);
        if (!conversion.alternate) strip_zeros(digits);
    } else if (conversion.type == u'e' || conversion.type == u'E') {
        scientific(digits, std::fabs(value), precision, capital);
    } else {
        fixed(digits, std::fabs(value), precision);
    }
    if (conversion.alternate && !digits.has_point()) digits.put('.');
    NumberPieces number;
    put_sign(number, conversion, std::signbit(value));
    number.digits = digits.text;
    number.digit_count = digits.length;
    if (!is_general || conversion.alternate) number.zeros_after = wanted - precision;
    number.tail = digits.exponent;
    number.tail_length = digits.exponent_length;
    write_number(sink, conversion, number, conversion.zero);
}

}  // namespace zr::platform
