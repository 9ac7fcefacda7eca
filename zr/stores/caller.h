#pragma once

// Whose telephone number it is.

#include <string>
#include <string_view>

#include "zr/vcard/card.h"

namespace zr {

// Whether the contact has the number, in a field or in what is kept of its card.
bool has_number(const Card& card, const std::string& number);

// The name of the first contact that has the number; empty when there is none, or no number. Throws Failure.
std::string name_of_caller(const std::string& number);

}  // namespace zr
