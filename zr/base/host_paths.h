#pragma once

// Paths as the user writes them, and as the library wants them.

#include <string>

namespace zr {

// The handheld path of a folder of the host. Throws Failure when there is no such folder, or the library cannot have
// it.
std::u16string handheld_folder(const std::string& path);

// The host path of a handheld path, byte by byte; names that are not valid UTF-8 come out as they are.
std::string host_path(const std::u16string& path);

}  // namespace zr
