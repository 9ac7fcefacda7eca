#pragma once

// The handle table's entries, and how a handle value finds its own.

#include <atomic>
#include <cstdint>

#include "kernel/handle_table.h"

namespace zr::platform {

// A handle value is the generation of its entry, the entry's index and two zero bits. Pseudo handles have these bits
// set, as has INVALID_HANDLE_VALUE.
inline constexpr int kTagBits = 2;
inline constexpr int kIndexBits = sizeof(void*) == 8 ? 20 : 18;
inline constexpr int kGenerationBits = sizeof(void*) == 8 ? 31 : 12;
inline constexpr std::uint32_t kGenerationMask = (std::uint32_t{1} << kGenerationBits) - 1;
inline constexpr std::uint32_t kChunkSize = 1024;
inline constexpr std::uint32_t kChunks = (std::uint32_t{1} << kIndexBits) / kChunkSize;
inline constexpr std::uint32_t kNoEntry = 0xFFFFFFFF;

// An entry's state: generation, whether it is open, whether quick pins may hold it (quick_pin.h), and the counted pins,
// of which an open handle itself is one. All in one word, so that a lookup is one compare-and-swap that fails for every
// handle but the open one. The memory of entries is never given back, which is what makes looking at a stale one safe.
inline constexpr std::uint64_t kOpen = std::uint64_t{1} << 32;
inline constexpr std::uint64_t kQuick = std::uint64_t{1} << 31;
inline constexpr std::uint64_t kPins = kQuick - 1;
inline constexpr int kGenerationShift = 33;

struct Entry {
    std::atomic<std::uint64_t> state{std::uint64_t{1} << kGenerationShift};
    Object* object = nullptr;
    std::atomic<ObjectKind> kind{};  // the object's, to be looked at without a pin
    std::uint32_t index = 0;
    std::uint32_t next_free = kNoEntry;
    std::atomic<std::uint32_t> uses{0};  // calls that quick pins would have served, as far as that was counted
};

struct DecodedHandle {
    std::uint32_t index;
    std::uint64_t open_state;  // what the entry's state is, but for kQuick and the pins, while this handle is open
};

inline bool decode(HANDLE handle, DecodedHandle& out) noexcept {
    const std::uintptr_t value = reinterpret_cast<std::uintptr_t>(handle);
    if ((value & ((1u << kTagBits) - 1)) != 0) return false;
    out.index = static_cast<std::uint32_t>(value >> kTagBits) & ((std::uint32_t{1} << kIndexBits) - 1);
    const std::uintptr_t generation = value >> (kTagBits + kIndexBits);
    if (generation == 0 || generation > kGenerationMask) return false;
    out.open_state = (std::uint64_t{generation} << kGenerationShift) | kOpen;
    return true;
}

inline bool is_open_as(std::uint64_t state, const DecodedHandle& wanted) noexcept {
    return (state & ~(kPins | kQuick)) == wanted.open_state;
}

extern constinit std::atomic<Entry*> entry_chunks[kChunks];

inline Entry* entry_at(std::uint32_t index) noexcept {
    Entry* chunk = entry_chunks[index / kChunkSize].load(std::memory_order_acquire);
    return chunk ? &chunk[index % kChunkSize] : nullptr;
}

}  // namespace zr::platform
