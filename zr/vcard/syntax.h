#pragma once

// A property of a card, which zr carries as a line of version 3.0, in the syntax of any version: how kinds and
// preferences are written, what binary data looks like, what a day does.

#include <string>
#include <string_view>
#include <vector>

#include "zr/vcard/card.h"

namespace zr {

struct PropertySyntax {
    std::string header;  // group.NAME;PARAMETERS
    std::string value;   // as it is written behind the colon, escaped as in version 3.0
    bool base64 = false;
};

// False when the line is no property.
bool in_version(std::string_view line, CardVersion version, PropertySyntax& property);

// The texts that a value stands for, between its semicolons.
std::vector<std::string> value_parts(std::string_view value);

}  // namespace zr
