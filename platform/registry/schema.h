#pragma once

// The tables of registry.db.

#include "store/store_file.h"

namespace zr::platform::registry {

extern const StoreKind kRegistryStore;

// The roots are keys 1 to 4, in the order of their handles.
inline constexpr int kRoots = 4;
inline constexpr LONGLONG kFirstRoot = 1;

}  // namespace zr::platform::registry
