#pragma once

// Heaps: where blocks get their bytes from.

#include <atomic>
#include <mutex>

#include "heap_block.h"
#include "platform/types.h"

namespace zr::platform {

class Heap {
public:
    Heap() = default;
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

// The heap of the process, which never ends.
extern Heap& the_process_heap;
inline Heap* process_heap() {
    return &the_process_heap;
}
// A private heap; null when memory is short. `maximum` 0: no limit.
Heap* create_heap(std::size_t maximum);
// False if it is not a private heap that exists.
bool destroy_heap(Heap* heap);
// The heap behind a handle; null for what is none.
Heap* find_private_heap(HANDLE handle);
inline Heap* find_heap(HANDLE handle) {
    return handle == process_heap() ? process_heap() : find_private_heap(handle);
}

// All heaps, while the process forks.
void lock_heaps() noexcept;
void unlock_heaps() noexcept;

}  // namespace zr::platform
