#pragma once

// Messages as pages that need nothing from elsewhere.

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace zr {

struct HtmlPart {
    std::string type;   // such as image/png; what is no type is taken for bytes of an unknown one
    std::string bytes;  // empty: there is no such part
};

// The HTML with the parts themselves in place of the addresses (cid:...) that name them. `part` is asked by content
// identifier, without brackets, each time one is named. What is named in vain stays, and so does everything once
// `most` bytes have been put in.
std::string with_parts(std::string_view html, const std::function<HtmlPart(const std::string& id)>& part,
                       std::size_t most);

// Plain text as a page: lines are kept, and broken where they are too long.
std::string text_page(std::string_view text);

}  // namespace zr
