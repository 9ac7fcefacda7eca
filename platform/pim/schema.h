#pragma once

// The tables of pim.db.

#include "store/store_file.h"

namespace zr::platform::pim {

extern const StoreKind kContactStore;

}  // namespace zr::platform::pim
