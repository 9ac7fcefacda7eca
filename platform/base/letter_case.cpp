// Letter case, comparing without regard to it, and character classes.

#include <cstdint>
#include <cstring>

#include "character_tables.h"
#include "platform/base.h"

using zr::platform::class_bits;
using zr::platform::lower;
using zr::platform::upper;

namespace {

WCHAR* single(WCHAR character) {
    return reinterpret_cast<WCHAR*>(static_cast<ULONG_PTR>(character));
}

bool is_single(const WCHAR* text) {
    return reinterpret_cast<ULONG_PTR>(text) < 0x10000;
}

WCHAR single_of(const WCHAR* text) {
    return static_cast<WCHAR>(reinterpret_cast<ULONG_PTR>(text));
}

constexpr std::size_t kChunk = 8;

bool is_ascii_chunk(const WCHAR* text) {
    std::uint64_t words[2];
    std::memcpy(words, text, sizeof words);
    return ((words[0] | words[1]) & 0xFF80FF80FF80FF80u) == 0;
}

// Changes `length` characters by `change`; whole chunks of ASCII at once, in which the letters from `first` on get the
// case bit turned.
template <WCHAR First, class Change>
void change_case(WCHAR* text, std::size_t length, Change change) {
    std::size_t at = 0;
    while (length - at >= kChunk) {
        WCHAR* const chunk = text + at;
        at += kChunk;
        if (is_ascii_chunk(chunk)) {
            for (std::size_t i = 0; i < kChunk; ++i) {
                const bool letter = static_cast<std::uint16_t>(chunk[i] - First) < 26;
                chunk[i] = static_cast<WCHAR>(chunk[i] ^ (letter ? 0x20 : 0));
            }
            continue;
        }
        for (std::size_t i = 0; i < kChunk; ++i) {
            chunk[i] = change(chunk[i]);
        }
    }
    for (; at < length; ++at) {
        text[at] = change(text[at]);
    }
}

int fold_ascii(char character) {
    const auto value = static_cast<unsigned char>(character);
    return value >= 'A' && value <= 'Z' ? value + ('a' - 'A') : value;
}

}  // namespace

WCHAR towlower(WCHAR character) {
    return lower(character);
}

WCHAR towupper(WCHAR character) {
    return upper(character);
}

WCHAR* _wcslwr(WCHAR* text) {
    change_case<u'A'>(text, wcslen(text), lower);
    return text;
}

WCHAR* _wcsupr(WCHAR* text) {
    change_case<u'a'>(text, wcslen(text), upper);
    return text;
}

int _wcsicmp(const WCHAR* left, const WCHAR* right) {
    for (;; ++left, ++right) {
        if (*left != *right) {
            const int difference = lower(*left) - lower(*right);
            if (difference != 0) return difference;
        }
        if (*left == 0) return 0;
    }
}

int _wcsnicmp(const WCHAR* left, const WCHAR* right, std::size_t count) {
    for (; count != 0; --count, ++left, ++right) {
        if (*left != *right) {
            const int difference = lower(*left) - lower(*right);
            if (difference != 0) return difference;
        }
        if (*left == 0) return 0;
    }
    return 0;
}

int _stricmp(const char* left, const char* right) {
    return _strnicmp(left, right, static_cast<std::size_t>(-1));
}

int _strnicmp(const char* left, const char* right, std::size_t count) {
    for (; count != 0; --count, ++left, ++right) {
        const int difference = fold_ascii(*left) - fold_ascii(*right);
        if (difference != 0) return difference;
        if (*left == 0) return 0;
    }
    return 0;
}

DWORD CharLowerBuffW(WCHAR* text, DWORD length) {
    if (text == nullptr) return 0;
    change_case<u'A'>(text, length, lower);
    return length;
}

DWORD CharUpperBuffW(WCHAR* text, DWORD length) {
    if (text == nullptr) return 0;
    change_case<u'a'>(text, length, upper);
    return length;
}

WCHAR* CharLowerW(WCHAR* text) {
    return is_single(text) ? single(lower(single_of(text))) : _wcslwr(text);
}

WCHAR* CharUpperW(WCHAR* text) {
    return is_single(text) ? single(upper(single_of(text))) : _wcsupr(text);
}

int iswspace(WCHAR character) {
    return class_bits(character) & zr::platform::kSpace;
}

int iswdigit(WCHAR character) {
    return class_bits(character) & zr::platform::kDigit;
}

int iswxdigit(WCHAR character) {
    return class_bits(character) & zr::platform::kHex;
}

int iswalpha(WCHAR character) {
    return class_bits(character) & zr::platform::kAlpha;
}

int iswalnum(WCHAR character) {
    return class_bits(character) & (zr::platform::kAlpha | zr::platform::kDigit);
}

int iswupper(WCHAR character) {
    return class_bits(character) & zr::platform::kUpper;
}

int iswlower(WCHAR character) {
    return class_bits(character) & zr::platform::kLower;
}

int iswpunct(WCHAR character) {
    return class_bits(character) & zr::platform::kPunct;
}

int iswcntrl(WCHAR character) {
    return class_bits(character) & zr::platform::kControl;
}

int iswprint(WCHAR character) {
    return class_bits(character) & zr::platform::kPrint;
}
