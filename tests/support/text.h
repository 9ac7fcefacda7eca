#pragma once

// Texts for tests: in a block of exactly their size, so that a sanitizer sees a step outside; and random ones.

#include <memory>
#include <random>
#include <string>
#include <string_view>

#include "platform/types.h"

namespace zr::test {

// A writable, terminated text in a block of its own.
class Text {
public:
    explicit Text(std::u16string_view text) : text_(std::make_unique<WCHAR[]>(text.size() + 1)) {
        text.copy(text_.get(), text.size());
    }
    operator WCHAR*() const { return text_.get(); }
    // Up to the terminator.
    std::u16string string() const { return text_.get(); }

private:
    std::unique_ptr<WCHAR[]> text_;
};

// Each byte as a character.
inline std::u16string widen(const std::string& text) {
    return {text.begin(), text.end()};
}

// At most `longest` characters, all from the alphabet.
inline std::u16string randomText(std::mt19937& random, std::u16string_view alphabet, std::size_t longest) {
    std::u16string text(random() % (longest + 1), u'\0');
    for (WCHAR& c : text) {
        c = alphabet[random() % alphabet.size()];
    }
    return text;
}

}  // namespace zr::test
