#include "zone_name.h"

#include <algorithm>
#include <iterator>

#include "base/utf.h"

namespace zr::platform {

void copy_zone_name(std::string_view name, WCHAR (&out)[kZoneNameRoom]) noexcept {
    std::ranges::fill(out, u'\0');
    // No byte becomes more than one unit.
    host_to_wide(name.substr(0, kZoneNameRoom - 1), out);
}

}  // namespace zr::platform
