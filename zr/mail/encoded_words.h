#pragma once

// Encoded words of mail headers (RFC 2047), for a parser that takes neighbours for one word.

#include <string>
#include <string_view>

namespace zr {

// The text with each run of encoded words as one word in UTF-8. Every word is decoded by itself; where one ends inside
// of a character, as some programs write them, it is joined with the next. What cannot be decoded stays as it is.
std::string with_joined_words(std::string_view text);

}  // namespace zr
