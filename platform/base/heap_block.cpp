#include "heap_block.h"

#include <cstring>

namespace zr::platform {

namespace {

constexpr std::uintptr_t kPage = 4096;
constexpr std::uintptr_t kSealMark = static_cast<std::uintptr_t>(0x9E3779B97F4A7C15u);

std::uintptr_t seal_of(const Heap* heap, const void* block) {
    return kSealMark ^ reinterpret_cast<std::uintptr_t>(block) ^ (reinterpret_cast<std::uintptr_t>(heap) << 3);
}

// Reads in front of a pointer that may be anyone's: that is the point, and no address sanitizer should stop it.
__attribute__((no_sanitize("address", "thread"))) std::uintptr_t seal_before(const void* block) {
    return (static_cast<const volatile BlockHeader*>(block) - 1)->seal;
}

}  // namespace

BlockHeader* find_block(const Heap* heap, const void* block) {
    const auto address = reinterpret_cast<std::uintptr_t>(block);
    if (address < kPage || address % kUnit != 0 || address % kPage == 0) return nullptr;
    if (seal_before(block) != seal_of(heap, block)) return nullptr;
    return const_cast<BlockHeader*>(static_cast<const BlockHeader*>(block) - 1);
}

BlockHeader* lay_block(const Heap* heap, unsigned char* base, std::size_t size, std::size_t old_slack,
                       std::size_t moved) {
    unsigned char* const unslacked = base + sizeof(BlockHeader);
    const std::size_t slack = reinterpret_cast<std::uintptr_t>(unslacked) % kPage == 0 ? kUnit : 0;
    if (slack != old_slack) std::memmove(unslacked + slack, unslacked + old_slack, moved);
    auto* const header = reinterpret_cast<BlockHeader*>(base + slack);
    header->size = size << 1 | (slack != 0 ? 1 : 0);
    header->seal = seal_of(heap, block_bytes(header));
    return header;
}

void unseal(BlockHeader* header) {
    static_cast<volatile BlockHeader*>(header)->seal = 0;
}

}  // namespace zr::platform
