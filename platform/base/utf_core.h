#pragma once

// The one decoder of UTF-8 and the one encoder, behind the lossless, the strict and the code page conversions.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "platform/types.h"

namespace zr::platform {

inline bool is_high_surrogate(char32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}
inline bool is_low_surrogate(char32_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

struct Utf8Part {
    enum Kind : std::uint8_t {
        Character,
        Surrogate,  // three bytes that spell a surrogate
        Damaged,    // the longest run of bytes that could have begun a character, at least one
    };
    char32_t value;
    std::uint8_t length;
    Kind kind;
};

inline bool is_continuation(std::string_view text, std::size_t at) {
    return at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80;
}

inline char32_t continuation(std::string_view text, std::size_t at) {
    return static_cast<unsigned char>(text[at]) & 0x3F;
}

inline Utf8Part decode_three(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (!is_continuation(text, 1)) return {0, 1, Utf8Part::Damaged};
    const char32_t begin = (char32_t{first} & 0xF) << 12 | continuation(text, 1) << 6;
    const bool surrogate = begin >= 0xD800 && begin <= 0xDFFF;
    if (begin < 0x800) return {0, 1, Utf8Part::Damaged};
    if (!is_continuation(text, 2)) return {0, static_cast<std::uint8_t>(surrogate ? 1 : 2), Utf8Part::Damaged};
    return {begin | continuation(text, 2), 3, surrogate ? Utf8Part::Surrogate : Utf8Part::Character};
}

inline Utf8Part decode_four(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (!is_continuation(text, 1)) return {0, 1, Utf8Part::Damaged};
    const char32_t begin = (char32_t{first} & 0x7) << 18 | continuation(text, 1) << 12;
    if (begin < 0x10000 || begin > 0x10FFFF) return {0, 1, Utf8Part::Damaged};
    if (!is_continuation(text, 2)) return {0, 2, Utf8Part::Damaged};
    if (!is_continuation(text, 3)) return {0, 3, Utf8Part::Damaged};
    return {begin | continuation(text, 2) << 6 | continuation(text, 3), 4, Utf8Part::Character};
}

// The first part of a text that is not empty.
inline Utf8Part decode_utf8(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) return {first, 1, Utf8Part::Character};
    if (first >= 0xC2 && first <= 0xDF) {
        if (!is_continuation(text, 1)) return {0, 1, Utf8Part::Damaged};
        return {(char32_t{first} & 0x1F) << 6 | continuation(text, 1), 2, Utf8Part::Character};
    }
    if (first >= 0xE0 && first <= 0xEF) return decode_three(text);
    if (first >= 0xF0 && first <= 0xF4) return decode_four(text);
    return {0, 1, Utf8Part::Damaged};
}

inline bool is_ascii(char unit) {
    return static_cast<unsigned char>(unit) < 0x80;
}
inline bool is_ascii(WCHAR unit) {
    return unit < 0x80;
}

// How many ASCII characters the text begins with, found eight bytes at a time.
inline std::size_t ascii_run(std::string_view text) {
    std::size_t count = 0;
    for (; text.size() - count >= 8; count += 8) {
        std::uint64_t word;
        std::memcpy(&word, text.data() + count, sizeof word);
        if ((word & 0x8080808080808080u) != 0) break;
    }
    while (count < text.size() && static_cast<unsigned char>(text[count]) < 0x80) {
        ++count;
    }
    return count;
}

inline std::size_t ascii_run(std::u16string_view text) {
    constexpr std::size_t kWords = 4;
    std::size_t count = 0;
    for (; text.size() - count >= 4 * kWords; count += 4 * kWords) {
        std::uint64_t words[kWords];
        std::memcpy(words, text.data() + count, sizeof words);
        if (((words[0] | words[1] | words[2] | words[3]) & 0xFF80FF80FF80FF80u) != 0) break;
    }
    while (count < text.size() && text[count] < 0x80) {
        ++count;
    }
    return count;
}

// The units of a result: counted always, written while they fit.
template <class Unit>
class UnitSink {
public:
    UnitSink(Unit* out, std::size_t capacity) : out_(out), capacity_(capacity) {}

    void put(Unit unit) {
        if (count_ < capacity_) out_[count_] = unit;
        ++count_;
    }
    template <class Text>
    void put_ascii(Text text) {
        const std::size_t room = count_ < capacity_ ? capacity_ - count_ : 0;
        const std::size_t fitting = text.size() < room ? text.size() : room;
        for (std::size_t i = 0; i < fitting; ++i) {
            out_[count_ + i] = static_cast<Unit>(text[i]);
        }
        count_ += text.size();
    }
    std::size_t count() const { return count_; }

private:
    Unit* out_;
    std::size_t capacity_;
    std::size_t count_ = 0;
};

inline void put_utf16(UnitSink<WCHAR>& sink, char32_t character) {
    if (character < 0x10000) {
        sink.put(static_cast<WCHAR>(character));
        return;
    }
    sink.put(static_cast<WCHAR>(0xD7C0 + (character >> 10)));
    sink.put(static_cast<WCHAR>(0xDC00 | (character & 0x3FF)));
}

// A surrogate is written as the three bytes of its value.
inline void put_utf8(UnitSink<char>& sink, char32_t character) {
    if (character < 0x80) {
        sink.put(static_cast<char>(character));
        return;
    }
    if (character < 0x800) {
        sink.put(static_cast<char>(0xC0 | character >> 6));
    } else if (character < 0x10000) {
        sink.put(static_cast<char>(0xE0 | character >> 12));
        sink.put(static_cast<char>(0x80 | (character >> 6 & 0x3F)));
    } else {
        sink.put(static_cast<char>(0xF0 | character >> 18));
        sink.put(static_cast<char>(0x80 | (character >> 12 & 0x3F)));
        sink.put(static_cast<char>(0x80 | (character >> 6 & 0x3F)));
    }
    sink.put(static_cast<char>(0x80 | (character & 0x3F)));
}

// The first character of a text that is not empty: two units of a pair, one otherwise. A lone surrogate is its value.
struct Utf16Part {
    char32_t value;
    std::size_t length;
};

inline Utf16Part decode_utf16(std::u16string_view text) {
    const char32_t first = text[0];
    if (is_high_surrogate(first) && text.size() > 1 && is_low_surrogate(text[1])) {
        return {0x10000 + ((first - 0xD800) << 10) + (text[1] - 0xDC00u), 2};
    }
    return {first, 1};
}

inline bool is_surrogate(char32_t value) {
    return value >= 0xD800 && value <= 0xDFFF;
}

}  // namespace zr::platform
