#pragma once

// One conversion of a format: how it is read, and how its number is written.

#include <limits>

#include "format_sink.h"
#include "platform/types.h"

namespace zr::platform {

enum class ArgumentSize { None, Char, Short, Long, LongLong, Int32, Pointer, Wide, LongDouble };

struct Conversion {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool zero = false;
    bool alternate = false;
    std::size_t width = 0;
    std::size_t precision = kNone;
    ArgumentSize size = ArgumentSize::None;
    WCHAR type = 0;  // 0: the format ended here

    static constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();
    static constexpr std::size_t kMost = static_cast<std::size_t>(std::numeric_limits<int>::max());

    bool has_precision() const { return precision != kNone; }
};

// A number in pieces: the sign or base, zeros, digits, and for fractions more zeros and the exponent.
struct NumberPieces {
    WCHAR prefix[2] = {};
    std::size_t prefix_length = 0;
    std::size_t zeros = 0;
    const WCHAR* digits = nullptr;
    std::size_t digit_count = 0;
    std::size_t zeros_after = 0;
    const WCHAR* tail = nullptr;
    std::size_t tail_length = 0;

    void put_prefix(WCHAR character) { prefix[prefix_length++] = character; }
    std::size_t length() const { return prefix_length + zeros + digit_count + zeros_after + tail_length; }
};

inline void put_sign(NumberPieces& number, const Conversion& conversion, bool negative) {
    if (negative) {
        number.put_prefix(u'-');
    } else if (conversion.plus) {
        number.put_prefix(u'+');
    } else if (conversion.space) {
        number.put_prefix(u' ');
    }
}

// Writes the pieces, padded to the conversion's width; `pad_zeros` puts the padding behind the prefix.
inline void write_number(FormatSink& sink, const Conversion& conversion, const NumberPieces& number, bool pad_zeros) {
    const std::size_t length = number.length();
    const std::size_t padding = conversion.width > length ? conversion.width - length : 0;
    if (padding != 0 && !conversion.left && !pad_zeros) sink.fill(u' ', padding);
    sink.put(number.prefix, number.prefix_length);
    if (padding != 0 && !conversion.left && pad_zeros) sink.fill(u'0', padding);
    if (number.zeros != 0) sink.fill(u'0', number.zeros);
    sink.put(number.digits, number.digit_count);
    if (number.zeros_after != 0) sink.fill(u'0', number.zeros_after);
    if (number.tail_length != 0) sink.put(number.tail, number.tail_length);
    if (padding != 0 && conversion.left) sink.fill(u' ', padding);
}

void write_float(FormatSink& sink, const Conversion& conversion, double value);

}  // namespace zr::platform
