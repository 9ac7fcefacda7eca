#pragma once

// The contact store's file.

#include <string>

#include "database.h"

namespace zr::platform::pim {

// Opens the store at `path`, making it what this version needs. ERROR_REVISION_MISMATCH when a newer version wrote it
// (it is left alone); ERROR_FILE_CORRUPT when it is damaged, and then it has been renamed.
HRESULT open_store(const std::string& path, Database& database);

// Opens a further connection to a store that open_store opened.
HRESULT open_connection(const std::string& path, Database& database);

}  // namespace zr::platform::pim
