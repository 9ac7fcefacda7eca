#pragma once

// Heaps: where blocks get their bytes from.

#include <atomic>
#include <cstdlib>
#include <limits>

#include "base/live_count.h"
#include "heap_block.h"
#include "platform/types.h"

namespace zr::platform {

extern std::atomic<LONGLONG> heap_successes_left;  // ZrFailHeapAfter; negative: no failure is asked for
bool may_allocate_counted() noexcept;
inline bool may_allocate() noexcept {
    return heap_successes_left.load(std::memory_order_relaxed) < 0 || may_allocate_counted();
}

inline constexpr std::size_t kMostBytes = std::numeric_limits<std::size_t>::max() / 4;

class Heap {
public:
    constexpr Heap() = default;
    virtual ~Heap() = default;
    Heap(const Heap&) = delete;
    Heap& operator=(const Heap&) = delete;

    // Null when memory is short; `block` must be one of this heap's.
    void* allocate(std::size_t bytes, bool zero);
    void* reallocate(BlockHeader* block, std::size_t bytes, bool zero);
    void free(BlockHeader* block);

protected:
    virtual void* obtain(std::size_t bytes, bool zero) = 0;
    virtual void* resize(void* base, std::size_t bytes) = 0;  // null leaves `base` as it was
    virtual void release(void* base) = 0;
};

class ProcessHeap final : public Heap {
public:
    void* obtain(std::size_t bytes, bool zero) override { return zero ? std::calloc(1, bytes) : std::malloc(bytes); }
    void* resize(void* base, std::size_t bytes) override { return std::realloc(base, bytes); }
    void release(void* base) override { std::free(base); }
};
// Never destroyed: blocks are freed while the process ends, too.
union EndlessHeap {
    constexpr EndlessHeap() : heap() {}
    ~EndlessHeap() {}
    ProcessHeap heap;
};
extern constinit EndlessHeap the_process_heap;
inline ProcessHeap* process_heap() {
    return &the_process_heap.heap;
}
// A private heap; null when memory is short. `maximum` 0: no limit.
Heap* create_heap(std::size_t maximum);
// False if it is not a private heap that exists.
bool destroy_heap(Heap* heap);
// The heap behind a handle; null for what is none.
Heap* find_private_heap(HANDLE handle);
inline Heap* find_heap(HANDLE handle) {
    if (handle == process_heap()) [[likely]]
        return process_heap();
    return find_private_heap(handle);
}

// The process's heap is nearly always the one, and then nothing virtual is called.
inline void* Heap::allocate(std::size_t bytes, bool zero) {
    if (bytes > kMostBytes || !may_allocate()) [[unlikely]]
        return nullptr;
    const std::size_t total = bytes + kBlockOverhead;
    void* const base = this == process_heap() ? process_heap()->obtain(total, zero) : obtain(total, zero);
    if (base == nullptr) [[unlikely]]
        return nullptr;
    count_live(ZrLiveKind::HeapBlocks, 1);
    return block_bytes(lay_block(this, static_cast<unsigned char*>(base), bytes, 0, 0));
}

inline void Heap::free(BlockHeader* block) {
    unseal(block);
    void* const base = block_base(block);
    this == process_heap() ? process_heap()->release(base) : release(base);
    count_live(ZrLiveKind::HeapBlocks, -1);
}

// All heaps, while the process forks.
void lock_heaps() noexcept;
void unlock_heaps() noexcept;

}  // namespace zr::platform
