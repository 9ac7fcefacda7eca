#pragma once

#include <string>
#include <string_view>

#include "fields.h"

namespace zr::platform::pim {

// The file-as name that follows from the other fields.
std::u16string file_as_from(const std::u16string_view (&columns)[kColumns]);

}  // namespace zr::platform::pim
