#pragma once

// Text as zr handles it: UTF-8 inside, UTF-16 towards the library, whatever a file declares on the way in.

#include <string>
#include <string_view>

namespace zr {

// Lone surrogates become U+FFFD.
std::string to_utf8(std::u16string_view text);
// Bytes that are not valid UTF-8 become U+FFFD.
std::u16string to_utf16(std::string_view text);

// The same without loss: a lone surrogate is three bytes that are not valid UTF-8, as LineReader hands it out.
std::string to_utf8_with_surrogates(std::u16string_view text);
// False, with `out` in an unknown state, when the bytes are neither UTF-8 nor such a surrogate.
bool to_utf16_with_surrogates(std::string_view text, std::u16string& out);

bool is_ascii(std::string_view bytes);
bool is_utf8(std::string_view bytes);

// Appends one code point as UTF-8.
void append_utf8(std::string& out, char32_t c);

// `bytes` of the named character set as UTF-8. False when the set is unknown or the bytes are not valid in it.
bool decode_charset(std::string_view bytes, const std::string& charset, std::string& out);

// Never fails: the five bytes that Windows-1252 leaves undefined become the control character of the same value.
std::string decode_windows_1252(std::string_view bytes);

// `text` for people: control characters (C0, DEL, C1, and those that reorder or hide text) are written as escapes such
// as \n, \x1b and \u202e, so that a name cannot steer the terminal.
std::string printable(std::string_view text);

// The same where it must be told from text that has such escapes in it: in quotes, with a backslash before each quote
// and each backslash.
std::string quoted(std::string_view text);
// Plain where nothing needs an escape, else in quotes; what begins with a quote is in quotes as well.
std::string unmistakable(std::string_view text);

// Of any language: what is equal when it is folded is equal but for letter case. What is not valid UTF-8 stays.
std::string folded(std::string_view text);
bool contains_folded(std::string_view text, const std::string& folded_part);

bool equal_ignoring_case(std::string_view a, std::string_view b);  // ASCII letters only
std::string upper(std::string_view text);                          // ASCII letters only
std::string_view trimmed(std::string_view text);                   // without spaces and tabs at both ends

}  // namespace zr
