#pragma once

// One block of a heap: what stands in front of the caller's bytes.
//
// A block is [slack][header][the caller's bytes]. The header's seal binds it to its place and its heap, so that a
// foreign or freed pointer is told apart. The slack is 0 or kUnit bytes, chosen so that no block begins on a page:
// a pointer that does cannot be ours, and the page before it, which may not exist, is never read.

#include <cstddef>
#include <cstdint>

#include "platform/types.h"

namespace zr::platform {

inline constexpr std::size_t kUnit = 16;

struct alignas(kUnit) BlockHeader {
    std::size_t size;     // as asked for, shifted left by one; the lowest bit says whether there is slack
    std::uintptr_t seal;  // 0 once the block is freed
};
static_assert(sizeof(BlockHeader) == kUnit);

// Extra bytes that every block takes from the host.
inline constexpr std::size_t kBlockOverhead = sizeof(BlockHeader) + kUnit;

class Heap;

// The block's header; null for what is not a live block of `heap`.
BlockHeader* find_block(const Heap* heap, const void* block);

inline std::size_t block_size(const BlockHeader* header) {
    return header->size >> 1;
}
inline void* block_bytes(BlockHeader* header) {
    return header + 1;
}
// Where the host's allocation begins.
inline unsigned char* block_base(BlockHeader* header) {
    return reinterpret_cast<unsigned char*>(header) - ((header->size & 1) != 0 ? kUnit : 0);
}

// Makes a sealed block at `base`, an allocation of kBlockOverhead + size bytes. `moved` of the caller's bytes stand
// where a block with `old_slack` has them, and are kept.
BlockHeader* lay_block(const Heap* heap, unsigned char* base, std::size_t size, std::size_t old_slack,
                       std::size_t moved);
void unseal(BlockHeader* header);

}  // namespace zr::platform
