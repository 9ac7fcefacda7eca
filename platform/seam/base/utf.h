#pragma once

// UTF-8 <-> UTF-16, in two kinds.
//
// Lossless, for names that the host owns: an invalid UTF-8 byte becomes the lone low surrogate U+DC80 to U+DCFF of its
// value, and any other lone surrogate is written as if it were a character (three bytes). Host -> wide -> host is the
// identity for every byte string. Wide -> host -> wide is the identity for valid UTF-16, and for what host_to_wide
// made; other text may come back as the characters that its escaped bytes spell. No escape stands for an ASCII byte,
// so that no slash and no NUL can hide in one.
//
// Strict, for text: invalid input is reported and nothing is converted.
//
// May throw std::bad_alloc, nothing else. The forms that write into a caller's buffer throw nothing.

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

ZRPLATFORM_API std::u16string host_to_wide(std::string_view host);
ZRPLATFORM_API std::string wide_to_host(std::u16string_view wide);

// The number of units that the whole result has; it is written to `out` only if it fits. No terminator.
ZRPLATFORM_API std::size_t host_to_wide(std::string_view host, std::span<WCHAR> out) noexcept;
ZRPLATFORM_API std::size_t wide_to_host(std::u16string_view wide, std::span<char> out) noexcept;

ZRPLATFORM_API std::optional<std::u16string> utf8_to_wide(std::string_view utf8);
ZRPLATFORM_API std::optional<std::string> wide_to_utf8(std::u16string_view wide);

ZRPLATFORM_API bool is_valid_utf8(std::string_view utf8) noexcept;
ZRPLATFORM_API bool is_valid_utf16(std::u16string_view wide) noexcept;

}  // namespace zr::platform
