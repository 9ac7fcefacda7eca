#pragma once

// Telephone numbers as people write them.

#include <string>
#include <string_view>

namespace zr {

// The digits of a number, without the zeros in front: what stands before a number depends on where it is dialled from.
std::string significant_digits(std::string_view number);

// A number that may be written as an address (RFC 3966), without its scheme, however often that stands there.
std::string_view without_scheme(std::string_view number);

// Whether both are the same telephone: by libphonenumber, where it is installed, which knows the countries' prefixes,
// else by their digits.
bool same_number(const std::string& a, const std::string& b);

// By their digits: they are equal, or one of at least seven ends the other.
bool same_digits(std::string_view a, std::string_view b);

// What libphonenumber says; NULL: it is not there.
using CompareNumbers = int (*)(const char* a, const char* b);  // 1: the same, 0: not, -1: no numbers that it knows
CompareNumbers number_library();

}  // namespace zr
