#pragma once

#include <string>

namespace zr::platform {

// The file that says which zone the system is in. ZR_ZONE_FILE, an absolute path, names another one.
std::string zone_file();

}  // namespace zr::platform
