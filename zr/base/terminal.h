#pragma once

// What is printed for a person at a terminal, and not for a program that reads along.

#include <string>
#include <string_view>

namespace zr {

// Whether standard output is a terminal that shows more than plain text; NO_COLOR and TERM=dumb say no.
bool shows_colour();
// The text emphasised there, else as it is.
std::string strong(std::string_view text);

}  // namespace zr
