#pragma once

// The contact store's file, for looks behind the store's back.

#include <filesystem>

#include "support/sandbox.h"
#include "support/sql.h"

namespace zr::test {

inline std::filesystem::path store_path() {
    return sandbox_home() / "pim.db";
}

}  // namespace zr::test
