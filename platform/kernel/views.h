#pragma once

// The views of file mappings that this process has.

#include <cstddef>
#include <cstdint>

#include "platform/types.h"

namespace zr::platform {

// Maps `size` bytes of the open file, in place of nothing; keeps account of them. NULL with the last error set.
void* map_view(int file, std::uint64_t offset, std::size_t size, int host_protection, bool copy) noexcept;

}  // namespace zr::platform
