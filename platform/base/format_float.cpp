// e, f and g conversions. The digits come from std::to_chars, which is exact and knows no locale. It rounds what lies
// exactly between two results to the even one; here that is rounded away from zero.

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <string_view>

#include "format_conversion.h"

namespace zr::platform {

namespace {

// A double has at most 1074 digits after the point: beyond this, only zeros follow, and they are written as such.
constexpr std::size_t kMostDigits = 1100;
constexpr std::size_t kBufferSize = 1536;
constexpr double kNoFractions = 9007199254740992;  // from here on all numbers are even

struct Digits {
    WCHAR text[kBufferSize];
    std::size_t length = 0;
    WCHAR exponent[8];
    std::size_t exponent_length = 0;

    void put(char character) { text[length++] = static_cast<WCHAR>(character); }
    void put(std::string_view characters) {
        std::for_each(characters.begin(), characters.end(), [this](char c) { put(c); });
    }
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

std::string_view convert(char (&text)[kBufferSize], double value, std::chars_format format, std::size_t precision) {
    const auto result = std::to_chars(text, text + sizeof text, value, format, static_cast<int>(precision));
    return {text, static_cast<std::size_t>(result.ptr - text)};
}

// A value as an odd number with so many binary places behind the point, and so decimal ones too; below 0 places when it
// ends before the point.
struct Binary {
    std::uint64_t odd;
    int places;
};

Binary binary(double value) {
    constexpr int kMantissaBits = 52;
    constexpr int kScale = 1075;  // a mantissa with the exponent n stands for mantissa * 2^(n - 1075)
    const auto bits = std::bit_cast<std::uint64_t>(value);
    const int exponent = static_cast<int>(bits >> kMantissaBits & 0x7FF);
    std::uint64_t mantissa = bits & ((std::uint64_t{1} << kMantissaBits) - 1);
    if (exponent != 0) mantissa |= std::uint64_t{1} << kMantissaBits;
    if (mantissa == 0) return {0, 0};
    const int zeros = std::countr_zero(mantissa);
    return {mantissa >> zeros, kScale - std::max(exponent, 1) - zeros};
}

// Whether the value lies in the middle of two numbers of so many decimal places: then it has exactly one binary place
// more than that.
bool is_half(double value, std::size_t places) {
    return binary(value).places == static_cast<int>(places) + 1;
}

// How many significant digits the value has, all of them; the last one. More than `most`: anything that is more.
std::size_t significant_digits(double value, std::size_t most, char& last) {
    const auto [odd, places] = binary(value);
    // Behind the point its digits are those of odd * 5^places. Most numbers have more of them than anybody asks for.
    const int least = (static_cast<int>(std::bit_width(odd)) - 1) * 301 / 1000 + places * 698 / 1000 + 1;
    if (places > 0 && static_cast<std::size_t>(least) > most) return most + 1;
    const std::size_t all = places > 0 ? std::min(most + 1, kMostDigits) : value < kNoFractions ? 17 : 310;
    char text[kBufferSize];
    std::string_view digits = convert(text, value, std::chars_format::scientific, all);
    digits = digits.substr(0, digits.find('e'));
    digits = digits.substr(0, digits.find_last_not_of("0.") + 1);
    last = digits.back();
    return digits.size() - (digits.size() > 1 ? 1 : 0);
}

// The same in significant digits behind the first one.
bool is_half_significant(double value, std::size_t places) {
    char last = 0;
    return value != 0 && significant_digits(value, places + 2, last) == places + 2 && last == '5';
}

// The next number behind one that ends in a 5, in place of that digit. True when it has a digit more at its front.
bool round_up(char* text, std::string_view& number) {
    number.remove_suffix(1);
    if (number.back() == '.') number.remove_suffix(1);
    for (std::size_t i = number.size(); i-- > 0;) {
        if (text[i] == '.') continue;
        if (text[i] != '9') {
            ++text[i];
            return false;
        }
        text[i] = '0';
    }
    return true;
}

void fixed(Digits& digits, double value, std::size_t precision) {
    char text[kBufferSize];
    const bool half = is_half(value, precision);
    std::string_view number = convert(text, value, std::chars_format::fixed, precision + (half ? 1 : 0));
    if (half && round_up(text, number)) digits.put('1');
    digits.put(number);
}

struct Scientific {
    char text[kBufferSize];
    std::string_view mantissa;
    int exponent = 0;

    Scientific(double value, std::size_t precision) {
        const bool half = is_half_significant(value, precision);
        const std::string_view whole = convert(text, value, std::chars_format::scientific, precision + (half ? 1 : 0));
        exponent = exponent_of(whole);
        mantissa = whole.substr(0, whole.find('e'));
        if (!half || !round_up(text, mantissa)) return;
        text[0] = '1';  // all nines: the zeros behind it are there
        ++exponent;
    }
    Scientific(const Scientific&) = delete;
    Scientific& operator=(const Scientific&) = delete;

    void put(Digits& digits, bool capital) const {
        digits.put(mantissa);
        put_exponent(digits, exponent, capital);
    }

    // The same digits without an exponent, which must be less than their number.
    void put_fixed(Digits& digits) const {
        const char first = mantissa.front();
        const std::string_view others = mantissa.substr(std::min<std::size_t>(2, mantissa.size()));
        if (exponent < 0) {
            digits.put("0.");
            for (int i = -1; i > exponent; --i) {
                digits.put('0');
            }
            digits.put(first);
            digits.put(others);
            return;
        }
        const auto whole = static_cast<std::size_t>(exponent);
        digits.put(first);
        digits.put(others.substr(0, whole));
        if (others.size() == whole) return;
        digits.put('.');
        digits.put(others.substr(whole));
    }
};

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
    const Scientific scientific(value, static_cast<std::size_t>(significant - 1));
    if (scientific.exponent < -4 || scientific.exponent >= significant) {
        scientific.put(digits, capital);
    } else {
        scientific.put_fixed(digits);
    }
}

bool is_capital(const Conversion& conversion) {
    return conversion.type == u'E' || conversion.type == u'G';
}
bool is_general(const Conversion& conversion) {
    return conversion.type == u'g' || conversion.type == u'G';
}
bool is_scientific(const Conversion& conversion) {
    return conversion.type == u'e' || conversion.type == u'E';
}

// What is no number has a text for its digits, which is cut and rounded, or goes on with zeros, as digits are.
void write_special(FormatSink& sink, const Conversion& conversion, double value) {
    const std::string_view name = std::isnan(value) ? "#QNAN" : "#INF";
    const std::size_t wanted = conversion.has_precision() ? conversion.precision : 6;
    const std::size_t places = is_general(conversion) ? std::max<std::size_t>(wanted, 1) - 1 : wanted;
    Digits digits;
    digits.put('1');
    if (places != 0 || conversion.alternate) digits.put('.');
    digits.put(name.substr(0, places));
    if (places != 0 && places < name.size() && name[places] >= '5') ++digits.text[digits.length - 1];
    if (is_scientific(conversion)) put_exponent(digits, 0, is_capital(conversion));
    NumberPieces number;
    put_sign(number, conversion, std::signbit(value));
    number.digits = digits.text;
    number.digit_count = digits.length;
    if (places > name.size() && !is_general(conversion)) number.zeros_after = places - name.size();
    number.tail = digits.exponent;
    number.tail_length = digits.exponent_length;
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
    Digits digits;
    if (is_general(conversion)) {
        general(digits, std::fabs(value), precision, is_capital(conversion));
        if (!conversion.alternate) strip_zeros(digits);
    } else if (is_scientific(conversion)) {
        Scientific(std::fabs(value), precision).put(digits, is_capital(conversion));
    } else {
        fixed(digits, std::fabs(value), precision);
    }
    if (conversion.alternate && !digits.has_point()) digits.put('.');
    NumberPieces number;
    put_sign(number, conversion, std::signbit(value));
    number.digits = digits.text;
    number.digit_count = digits.length;
    if (!is_general(conversion) || conversion.alternate) number.zeros_after = wanted - precision;
    number.tail = digits.exponent;
    number.tail_length = digits.exponent_length;
    write_number(sink, conversion, number, conversion.zero);
}

}  // namespace zr::platform
