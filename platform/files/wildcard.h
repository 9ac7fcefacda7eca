#pragma once

// Patterns of file names.

#include <string>
#include <string_view>

#include "platform/types.h"

namespace zr::platform {

// '*' is any run of characters, '?' any one UTF-16 unit, letters match in either case; "*.*" is every name.
class Wildcard {
public:
    explicit Wildcard(std::u16string_view pattern);

    bool matches(std::u16string_view name) const noexcept;
    bool is_literal() const noexcept { return literal_; }  // neither '*' nor '?': names one file

private:
    std::u16string pattern_;  // in lower case
    bool everything_;
    bool literal_;
};

}  // namespace zr::platform
