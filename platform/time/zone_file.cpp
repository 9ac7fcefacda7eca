#include "zone_file.h"

#include <cstdlib>

namespace zr::platform {

std::string zone_file() {
    const char* const other = std::getenv("ZR_ZONE_FILE");
    return other != nullptr && other[0] == '/' ? other : "/etc/localtime";
}

}  // namespace zr::platform
