// The wide runtime's searching, copying and comparing.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/base.h"

namespace {

using Traits = std::char_traits<WCHAR>;

bool contains(const WCHAR* set, WCHAR character) {
    for (; *set != 0; ++set) {
        if (*set == character) return true;
    }
    return false;
}

using Word [[gnu::vector_size(16), gnu::may_alias]] = std::uint16_t;
using Halves [[gnu::vector_size(16)]] = std::uint64_t;
constexpr std::size_t kWordCharacters = sizeof(Word) / sizeof(WCHAR);

bool is_word_aligned(const WCHAR* text) {
    return reinterpret_cast<std::uintptr_t>(text) % sizeof(Word) == 0;
}

bool has_nul(Word word) {
    const auto zeros = reinterpret_cast<Halves>(word == 0);
    return (zeros[0] | zeros[1]) != 0;
}

int order(WCHAR left, WCHAR right) {
    return left < right ? -1 : static_cast<int>(left > right);
}

}  // namespace

// Eight characters are looked at together, from an aligned address: such a word never reaches into another page, so it
// may read behind the terminator, which the sanitizers have to be told.
#define ZRPLATFORM_READS_WHOLE_WORDS __attribute__((no_sanitize("address", "thread")))

ZRPLATFORM_READS_WHOLE_WORDS std::size_t wcslen(const WCHAR* text) {
    const WCHAR* end = text;
    for (; !is_word_aligned(end); ++end) {
        if (*end == 0) return static_cast<std::size_t>(end - text);
    }
    while (!has_nul(*reinterpret_cast<const Word*>(end))) {
        end += kWordCharacters;
    }
    while (*end != 0) {
        ++end;
    }
    return static_cast<std::size_t>(end - text);
}

ZRPLATFORM_READS_WHOLE_WORDS std::size_t wcsnlen(const WCHAR* text, std::size_t limit) {
    std::size_t length = 0;
    for (; length < limit && !is_word_aligned(text + length); ++length) {
        if (text[length] == 0) return length;
    }
    while (limit - length >= kWordCharacters && !has_nul(*reinterpret_cast<const Word*>(text + length))) {
        length += kWordCharacters;
    }
    while (length < limit && text[length] != 0) {
        ++length;
    }
    return length;
}

WCHAR* wcscpy(WCHAR* to, const WCHAR* from) {
    return Traits::copy(to, from, wcslen(from) + 1);
}

WCHAR* wcsncpy(WCHAR* to, const WCHAR* from, std::size_t count) {
    const std::size_t length = wcsnlen(from, count);
    Traits::copy(to, from, length);
    Traits::assign(to + length, count - length, 0);
    return to;
}

WCHAR* wcscat(WCHAR* to, const WCHAR* from) {
    wcscpy(to + wcslen(to), from);
    return to;
}

WCHAR* wcsncat(WCHAR* to, const WCHAR* from, std::size_t count) {
    WCHAR* const end = to + wcslen(to);
    const std::size_t length = wcsnlen(from, count);
    Traits::copy(end, from, length);
    end[length] = 0;
    return to;
}

int wcscmp(const WCHAR* left, const WCHAR* right) {
    while (*left == *right && *left != 0) {
        ++left;
        ++right;
    }
    return order(*left, *right);
}

int wcsncmp(const WCHAR* left, const WCHAR* right, std::size_t count) {
    for (; count != 0; --count, ++left, ++right) {
        if (*left != *right) return order(*left, *right);
        if (*left == 0) return 0;
    }
    return 0;
}

const WCHAR* wcschr(const WCHAR* text, WCHAR wanted) {
    while (*text != wanted) {
        if (*text == 0) return nullptr;
        ++text;
    }
    return text;
}

const WCHAR* wcsrchr(const WCHAR* text, WCHAR wanted) {
    const WCHAR* found = nullptr;
    for (;; ++text) {
        if (*text == wanted) found = text;
        if (*text == 0) return found;
    }
}

const WCHAR* wcsstr(const WCHAR* text, const WCHAR* wanted) {
    const std::size_t at = std::u16string_view(text, wcslen(text)).find(wanted, 0, wcslen(wanted));
    return at == std::u16string_view::npos ? nullptr : text + at;
}

const WCHAR* wcspbrk(const WCHAR* text, const WCHAR* set) {
    text += wcscspn(text, set);
    return *text == 0 ? nullptr : text;
}

std::size_t wcscspn(const WCHAR* text, const WCHAR* set) {
    std::size_t length = 0;
    while (text[length] != 0 && !contains(set, text[length])) {
        ++length;
    }
    return length;
}

std::size_t wcsspn(const WCHAR* text, const WCHAR* set) {
    std::size_t length = 0;
    while (text[length] != 0 && contains(set, text[length])) {
        ++length;
    }
    return length;
}

WCHAR* wcstok(WCHAR* text, const WCHAR* delimiters) {
    thread_local WCHAR* context = nullptr;
    return wcstok(text, delimiters, &context);
}

WCHAR* wcstok(WCHAR* text, const WCHAR* delimiters, WCHAR** context) {
    if (text == nullptr) text = *context;
    if (text == nullptr) return nullptr;
    text += wcsspn(text, delimiters);
    if (*text == 0) {
        *context = nullptr;
        return nullptr;
    }
    WCHAR* const end = text + wcscspn(text, delimiters);
    *context = *end == 0 ? nullptr : end + 1;
    *end = 0;
    return text;
}

WCHAR* wmemcpy(WCHAR* to, const WCHAR* from, std::size_t count) {
    return Traits::copy(to, from, count);
}

WCHAR* wmemmove(WCHAR* to, const WCHAR* from, std::size_t count) {
    return Traits::move(to, from, count);
}

WCHAR* wmemset(WCHAR* to, WCHAR value, std::size_t count) {
    return Traits::assign(to, count, value);
}

int wmemcmp(const WCHAR* left, const WCHAR* right, std::size_t count) {
    for (; count != 0; --count, ++left, ++right) {
        if (*left != *right) return order(*left, *right);
    }
    return 0;
}

WCHAR* _wcsdup(const WCHAR* text) {
    if (text == nullptr) return nullptr;
    const std::size_t count = wcslen(text) + 1;
    auto* const copy = static_cast<WCHAR*>(std::malloc(count * sizeof(WCHAR)));
    return copy == nullptr ? nullptr : Traits::copy(copy, text, count);
}
