#include "format.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>

#include "code_page.h"
#include "format_conversion.h"
#include "platform/base.h"

namespace zr::platform {

namespace {

constexpr WCHAR kNullText[] = u"(null)";
constexpr std::size_t kMostIntegerDigits = 24;  // 64 bits in octal are 22

// Two decimal digits at once: "00" to "99".
struct DecimalPairs {
    WCHAR text[200];
    constexpr DecimalPairs() : text() {
        for (int i = 0; i < 100; ++i) {
            text[2 * i] = static_cast<WCHAR>(u'0' + i / 10);
            text[2 * i + 1] = static_cast<WCHAR>(u'0' + i % 10);
        }
    }
};
constexpr DecimalPairs kPairs;

template <class Unsigned>
WCHAR* write_decimal(Unsigned value, WCHAR* end) {
    while (value >= 100) {
        const auto pair = static_cast<std::size_t>(value % 100) * 2;
        value /= 100;
        *--end = kPairs.text[pair + 1];
        *--end = kPairs.text[pair];
    }
    if (value >= 10) {
        const auto pair = static_cast<std::size_t>(value) * 2;
        *--end = kPairs.text[pair + 1];
        *--end = kPairs.text[pair];
    } else {
        *--end = static_cast<WCHAR>(u'0' + value);
    }
    return end;
}

WCHAR* write_bits(ULONGLONG value, WCHAR* end, unsigned shift, bool capital) {
    const WCHAR* const digits = capital ? u"0123456789ABCDEF" : u"0123456789abcdef";
    const ULONGLONG mask = (ULONGLONG{1} << shift) - 1;
    do {
        *--end = digits[value & mask];
        value >>= shift;
    } while (value != 0);
    return end;
}

class Formatter {
public:
    Formatter(WCHAR* buffer, std::size_t capacity, const WCHAR* format, va_list arguments)
        : sink_(buffer, capacity), at_(format) {
        va_copy(arguments_, arguments);
    }
    ~Formatter() { va_end(arguments_); }
    Formatter(const Formatter&) = delete;
    Formatter& operator=(const Formatter&) = delete;

    Formatted run();

private:
    bool read_flag(Conversion& conversion);
    std::size_t read_number();
    void read_width(Conversion& conversion);
    void read_precision(Conversion& conversion);
    void read_size(Conversion& conversion);
    void read_integer_size(Conversion& conversion);
    Conversion read_conversion();

    LONGLONG signed_argument(ArgumentSize size);
    ULONGLONG unsigned_argument(ArgumentSize size);
    void write(const Conversion& conversion);
    void write_signed(const Conversion& conversion);
    void write_unsigned(const Conversion& conversion);
    void write_integer(const Conversion& conversion, NumberPieces& number, ULONGLONG value);
    void write_pointer(Conversion conversion);
    void write_character(const Conversion& conversion);
    void write_string(const Conversion& conversion);
    void write_padding(const Conversion& conversion, std::size_t length, bool before);
    void write_wide(const Conversion& conversion, const WCHAR* text, std::size_t length);
    void write_narrow(const Conversion& conversion, const char* text);

    FormatSink sink_;
    const WCHAR* at_;
    va_list arguments_;
};

Formatted Formatter::run() {
    while (*at_ != 0 && !sink_.full()) {
        if (*at_ != u'%') {
            sink_.put(*at_++);
            continue;
        }
        ++at_;
        const Conversion conversion = read_conversion();
        if (conversion.type != 0) write(conversion);
    }
    return {sink_.length(), !sink_.full()};
}

bool Formatter::read_flag(Conversion& conversion) {
    switch (*at_) {
        case u'-':
            conversion.left = true;
            return true;
        case u'+':
            conversion.plus = true;
            return true;
        case u' ':
            conversion.space = true;
            return true;
        case u'0':
            conversion.zero = true;
            return true;
        case u'#':
            conversion.alternate = true;
            return true;
        default:
            return false;
    }
}

std::size_t Formatter::read_number() {
    std::size_t number = 0;
    for (; *at_ >= u'0' && *at_ <= u'9'; ++at_) {
        number = std::min(number * 10 + static_cast<std::size_t>(*at_ - u'0'), Conversion::kMost);
    }
    return number;
}

void Formatter::read_width(Conversion& conversion) {
    if (*at_ != u'*') {
        conversion.width = read_number();
        return;
    }
    ++at_;
    const LONGLONG width = va_arg(arguments_, int);
    if (width < 0) conversion.left = true;
    conversion.width = std::min(static_cast<std::size_t>(width < 0 ? -width : width), Conversion::kMost);
}

void Formatter::read_precision(Conversion& conversion) {
    if (*at_ != u'.') return;
    ++at_;
    if (*at_ != u'*') {
        conversion.precision = read_number();
        return;
    }
    ++at_;
    const int precision = va_arg(arguments_, int);
    if (precision >= 0) conversion.precision = static_cast<std::size_t>(precision);
}

void Formatter::read_integer_size(Conversion& conversion) {
    if (at_[0] == u'6' && at_[1] == u'4') {
        conversion.size = ArgumentSize::LongLong;
        at_ += 2;
    } else if (at_[0] == u'3' && at_[1] == u'2') {
        conversion.size = ArgumentSize::Int32;
        at_ += 2;
    } else {
        conversion.size = ArgumentSize::Pointer;
    }
}

void Formatter::read_size(Conversion& conversion) {
    switch (*at_) {
        case u'l':
            ++at_;
            conversion.size = *at_ == u'l' ? ArgumentSize::LongLong : ArgumentSize::Long;
            if (*at_ == u'l') ++at_;
            break;
        case u'h':
            ++at_;
            conversion.size = *at_ == u'h' ? ArgumentSize::Char : ArgumentSize::Short;
            if (*at_ == u'h') ++at_;
            break;
        case u'I':
            ++at_;
            read_integer_size(conversion);
            break;
        case u'w':
            ++at_;
            conversion.size = ArgumentSize::Wide;
            break;
        case u'L':
            ++at_;
            conversion.size = ArgumentSize::LongDouble;
            break;
        default:
            break;
    }
}

// From behind the percent sign to behind the type.
Conversion Formatter::read_conversion() {
    Conversion conversion;
    if (*at_ < u'A') {  // flags, width and precision are all below the letters
        while (read_flag(conversion)) {
            ++at_;
        }
        read_width(conversion);
        read_precision(conversion);
    }
    read_size(conversion);
    conversion.type = *at_;
    if (*at_ != 0) ++at_;
    return conversion;
}

LONGLONG Formatter::signed_argument(ArgumentSize size) {
    switch (size) {
        case ArgumentSize::LongLong:
            return va_arg(arguments_, LONGLONG);
        case ArgumentSize::Pointer:
            return va_arg(arguments_, INT_PTR);
        case ArgumentSize::Short:
            return static_cast<SHORT>(va_arg(arguments_, int));
        case ArgumentSize::Char:
            return static_cast<signed char>(va_arg(arguments_, int));
        default:
            return va_arg(arguments_, int);
    }
}

ULONGLONG Formatter::unsigned_argument(ArgumentSize size) {
    switch (size) {
        case ArgumentSize::LongLong:
            return va_arg(arguments_, ULONGLONG);
        case ArgumentSize::Pointer:
            return va_arg(arguments_, UINT_PTR);
        case ArgumentSize::Short:
            return static_cast<USHORT>(va_arg(arguments_, unsigned));
        case ArgumentSize::Char:
            return static_cast<BYTE>(va_arg(arguments_, unsigned));
        default:
            return va_arg(arguments_, unsigned);
    }
}

void Formatter::write(const Conversion& conversion) {
    switch (conversion.type) {
        case u'd':
        case u'i':
            return write_signed(conversion);
        case u's':
        case u'S':
            return write_string(conversion);
        case u'u':
        case u'x':
        case u'X':
        case u'o':
            return write_unsigned(conversion);
        case u'c':
        case u'C':
            return write_character(conversion);
        case u'e':
        case u'E':
        case u'f':
        case u'F':
        case u'g':
        case u'G':
            if (conversion.size == ArgumentSize::LongDouble) {
                return write_float(sink_, conversion, static_cast<double>(va_arg(arguments_, long double)));
            }
            return write_float(sink_, conversion, va_arg(arguments_, double));
        case u'p':
            return write_pointer(conversion);
        case u'n':
            static_cast<void>(va_arg(arguments_, void*));
            return;
        default:
            sink_.put(conversion.type);
    }
}

void Formatter::write_signed(const Conversion& conversion) {
    const LONGLONG value = signed_argument(conversion.size);
    NumberPieces number;
    put_sign(number, conversion, value < 0);
    write_integer(conversion, number, value < 0 ? 0 - static_cast<ULONGLONG>(value) : static_cast<ULONGLONG>(value));
}

void Formatter::write_unsigned(const Conversion& conversion) {
    const ULONGLONG value = unsigned_argument(conversion.size);
    NumberPieces number;
    if (conversion.alternate && value != 0 && (conversion.type == u'x' || conversion.type == u'X')) {
        number.put_prefix(u'0');
        number.put_prefix(conversion.type);
    }
    write_integer(conversion, number, value);
}

void Formatter::write_integer(const Conversion& conversion, NumberPieces& number, ULONGLONG value) {
    WCHAR digits[kMostIntegerDigits];
    WCHAR* const end = digits + kMostIntegerDigits;
    WCHAR* begin = end;
    if (value != 0 || conversion.precision != 0) {
        if (conversion.type == u'x' || conversion.type == u'X') {
            begin = write_bits(value, end, 4, conversion.type == u'X');
        } else if (conversion.type == u'o') {
            begin = write_bits(value, end, 3, false);
        } else if (value <= std::numeric_limits<std::uint32_t>::max()) {
            begin = write_decimal(static_cast<std::uint32_t>(value), end);
        } else {
            begin = write_decimal(value, end);
        }
    }
    number.digits = begin;
    number.digit_count = static_cast<std::size_t>(end - begin);
    if (conversion.has_precision() && conversion.precision > number.digit_count) {
        number.zeros = conversion.precision - number.digit_count;
    }
    const bool octal_zero = conversion.alternate && conversion.type == u'o' && number.zeros == 0;
    if (octal_zero && (begin == end || *begin != u'0')) number.zeros = 1;
    write_number(sink_, conversion, number, conversion.zero && !conversion.has_precision());
}

void Formatter::write_pointer(Conversion conversion) {
    const auto value = reinterpret_cast<ULONG_PTR>(va_arg(arguments_, void*));
    conversion.type = u'X';
    conversion.precision = sizeof(void*) * 2;
    NumberPieces number;
    write_integer(conversion, number, value);
}

bool is_narrow(const Conversion& conversion) {
    if (conversion.size == ArgumentSize::Short) return true;
    if (conversion.size == ArgumentSize::Long || conversion.size == ArgumentSize::Wide) return false;
    return conversion.type == u'S' || conversion.type == u'C';
}

void Formatter::write_character(const Conversion& conversion) {
    const int value = va_arg(arguments_, int);
    const WCHAR character =
        is_narrow(conversion) ? from_1252(static_cast<unsigned char>(value)) : static_cast<WCHAR>(value);
    write_wide(conversion, &character, 1);
}

void Formatter::write_string(const Conversion& conversion) {
    if (is_narrow(conversion)) {
        const char* const text = va_arg(arguments_, const char*);
        if (text != nullptr) return write_narrow(conversion, text);
        return write_wide(conversion, kNullText, std::min(std::size(kNullText) - 1, conversion.precision));
    }
    const WCHAR* text = va_arg(arguments_, const WCHAR*);
    if (text == nullptr) text = kNullText;
    const std::size_t length = conversion.has_precision() ? wcsnlen(text, conversion.precision) : wcslen(text);
    write_wide(conversion, text, length);
}

void Formatter::write_padding(const Conversion& conversion, std::size_t length, bool before) {
    if (conversion.width <= length || conversion.left == before) return;
    sink_.fill(conversion.zero && before ? u'0' : u' ', conversion.width - length);
}

void Formatter::write_wide(const Conversion& conversion, const WCHAR* text, std::size_t length) {
    write_padding(conversion, length, true);
    sink_.put(text, length);
    write_padding(conversion, length, false);
}

void Formatter::write_narrow(const Conversion& conversion, const char* text) {
    const std::size_t length = strnlen(text, conversion.precision);
    write_padding(conversion, length, true);
    for (std::size_t i = 0; i < length && !sink_.full(); ++i) {
        sink_.put(from_1252(static_cast<unsigned char>(text[i])));
    }
    write_padding(conversion, length, false);
}

}  // namespace

Formatted format_wide(WCHAR* buffer, std::size_t capacity, const WCHAR* format, va_list arguments) {
    return Formatter(buffer, capacity, format, arguments).run();
}

}  // namespace zr::platform
