#pragma once

// The views of file mappings that this process has.

#include <cstddef>
#include <cstdint>

#include "kernel/mapped_files.h"
#include "platform/types.h"
#include "regions.h"

namespace zr::platform {

struct ViewFacts {
    std::size_t size;
    int host_protection;
    bool copies;
    MappedFileHold hold = {};  // of the file behind it, which counts as mapped while the view is there
};

// Keeps account of what `map` maps, which munmap(2) is to unmap. NULL with the last error set.
void* keep_view(const ViewFacts& facts, void* (*map)(const void* context), const void* context) noexcept;

template <class Map>
void* keep_view(const ViewFacts& facts, const Map& map) noexcept {
    return keep_view(
        facts, [](const void* context) { return (*static_cast<const Map*>(context))(); }, &map);
}

struct ViewRecord {
    Range pages;
    int host_protection;  // as it was mapped
    bool copies;
};
// The view that has the page at that address; false when none does.
bool find_view(std::uintptr_t page, ViewRecord& out) noexcept;

}  // namespace zr::platform
