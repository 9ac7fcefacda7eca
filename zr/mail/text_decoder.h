#pragma once

// Text of a declared character set as UTF-8, piece by piece.
//
// What the set does not have is U+FFFD; what is declared wrong or not at all is UTF-8 where it is valid, and
// Windows-1252 where it is not.

#include <memory>
#include <string>
#include <string_view>

namespace zr {

class TextDecoder {
public:
    explicit TextDecoder(const std::string& charset);
    ~TextDecoder();
    TextDecoder(const TextDecoder&) = delete;
    TextDecoder& operator=(const TextDecoder&) = delete;

    void decode(std::string_view bytes, std::string& out);  // appends
    void finish(std::string& out);

private:
    struct Converter;

    void convert(std::string& out);
    void guess(std::string& out, bool at_end);

    std::unique_ptr<Converter> converter_;  // null: to be guessed
    std::string waiting_;                   // the beginning of a character
};

}  // namespace zr
