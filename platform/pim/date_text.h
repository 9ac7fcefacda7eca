#pragma once

#include <optional>
#include <string_view>

#include "ole_date.h"

namespace zr::platform::pim {

// The date in a text: "6/30/2024" (month first) or "2024-06-30", and a time of day behind it if there is one: "17:30",
// "17:30:05", "5:30 PM". Nothing when it is no such date.
std::optional<Moment> date_in(std::u16string_view text);

}  // namespace zr::platform::pim
