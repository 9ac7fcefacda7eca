#pragma once

#include <string>

#include "zr/base/line_reader.h"

namespace zr {

// The SHA-256 of all that can be read, in hexadecimal.
std::string sha256_of(const ReadFunction& read);

}  // namespace zr
