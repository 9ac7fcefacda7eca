#pragma once

// The views of file mappings that this process has.

#include <cstddef>
#include <cstdint>

#include "platform/types.h"

namespace zr::platform {

// Keeps account of what `map` maps, which munmap(2) is to unmap. NULL with the last error set.
void* keep_view(std::size_t size, void* (*map)(const void* context), const void* context) noexcept;

template <class Map>
void* keep_view(std::size_t size, const Map& map) noexcept {
    return keep_view(
        size, [](const void* context) { return (*static_cast<const Map*>(context))(); }, &map);
}

}  // namespace zr::platform
