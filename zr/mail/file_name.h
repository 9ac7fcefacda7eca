#pragma once

#include <string>

namespace zr {

// The name of a file as somebody else wrote it, as one that can be made in any folder: no path, no hidden file, no
// control or reordering characters, at most 200 bytes. `otherwise` where nothing is left of it.
std::string safe_file_name(const std::string& name, const std::string& otherwise);

}  // namespace zr
