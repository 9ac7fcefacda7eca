#pragma once

// One block of a heap: what stands in front of the caller's bytes.
//
// A block is [slack][header][the caller's bytes]. The header's seal binds it to its place and its heap, so that a
// foreign or freed pointer is told apart. The slack is 0 or kUnit bytes, chosen so that no block begins on a page:
// a pointer that does cannot be ours, and the page before it, which may not exist, is never read.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/types.h"

namespace zr::platform {

// As malloc aligns, at least.
inline constexpr std::size_t kUnit = std::max(2 * sizeof(void*), alignof(std::max_align_t));

struct alignas(kUnit) BlockHeader {
    std::size_t size;     // as asked for, shifted left by one; the lowest bit says whether there is slack
    std::uintptr_t seal;  // 0 once the block is freed
};
static_assert(sizeof(BlockHeader) == kUnit);

// Extra bytes that every block takes from the host.
inline constexpr std::size_t kBlockOverhead = sizeof(BlockHeader) + kUnit;

class Heap;

inline std::size_t block_size(const BlockHeader* header) {
    return header->size >> 1;
}
inline void* block_bytes(BlockHeader* header) {
    return header + 1;
}
inline constexpr std::uintptr_t kPage = 4096;

// The slack before a block's header. Only a block that stands kUnit behind the beginning of a page can have any, so the
// header is rarely read for it: freeing need not wait until what allocating wrote there can be read.
inline std::size_t slack_of(const BlockHeader* header) {
    if (reinterpret_cast<std::uintptr_t>(header) % kPage != 0) [[likely]]
        return 0;
    return (header->size & 1) != 0 ? kUnit : 0;
}
// Where the host's allocation begins.
inline unsigned char* block_base(BlockHeader* header) {
    return reinterpret_cast<unsigned char*>(header) - slack_of(header);
}

inline constexpr std::uintptr_t kSealMark = static_cast<std::uintptr_t>(0x9E3779B97F4A7C15u);

inline std::uintptr_t seal_of(const Heap* heap, const void* block) {
    return kSealMark ^ reinterpret_cast<std::uintptr_t>(block) ^ (reinterpret_cast<std::uintptr_t>(heap) << 3);
}

// Reads in front of a pointer that may be anyone's: that is the point, and no address sanitizer should stop it.
__attribute__((no_sanitize("address", "thread"))) inline std::uintptr_t seal_before(const void* block) {
    return (static_cast<const volatile BlockHeader*>(block) - 1)->seal;
}

// The block's header; null for what is not a live block of `heap`.
inline BlockHeader* find_block(const Heap* heap, const void* block) {
    const auto address = reinterpret_cast<std::uintptr_t>(block);
    if (address < kPage || address % kUnit != 0 || address % kPage == 0) return nullptr;
    if (seal_before(block) != seal_of(heap, block)) return nullptr;
    return const_cast<BlockHeader*>(static_cast<const BlockHeader*>(block) - 1);
}

// Makes a sealed block at `base`, an allocation of kBlockOverhead + size bytes. `moved` of the caller's bytes stand
// where a block with `old_slack` has them, and are kept.
inline BlockHeader* lay_block(const Heap* heap, unsigned char* base, std::size_t size, std::size_t old_slack,
                              std::size_t moved) {
    unsigned char* const unslacked = base + sizeof(BlockHeader);
    const std::size_t slack = reinterpret_cast<std::uintptr_t>(unslacked) % kPage == 0 ? kUnit : 0;
    if (slack != old_slack && moved != 0) std::memmove(unslacked + slack, unslacked + old_slack, moved);
    auto* const header = reinterpret_cast<BlockHeader*>(base + slack);
    header->size = size << 1 | (slack != 0 ? 1 : 0);
    header->seal = seal_of(heap, block_bytes(header));
    return header;
}

inline void unseal(BlockHeader* header) {
    static_cast<volatile BlockHeader*>(header)->seal = 0;
}

}  // namespace zr::platform
