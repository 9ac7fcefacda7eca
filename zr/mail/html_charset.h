#pragma once

// The character set of an HTML file.

#include <string>
#include <string_view>

namespace zr {

// The set that the file's beginning names, for TextDecoder: by a byte-order mark, or by the first meta element in its
// first 1024 bytes that names one; in lower case. A 16-bit set that such an element names is none: it is UTF-8. Empty:
// none.
std::string html_charset(std::string_view html);

}  // namespace zr
