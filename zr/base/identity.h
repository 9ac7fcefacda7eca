#pragma once

// Identifiers that stay, of things that come without one.

#include <string>
#include <string_view>

namespace zr {

// One that nothing else has: "urn:uuid:" and a random UUID.
std::string new_identifier();
// One that the same bytes have each time: `prefix` and half of their SHA-256, in hexadecimal.
std::string identifier_of(std::string_view prefix, std::string_view bytes);

}  // namespace zr
