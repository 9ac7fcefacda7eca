#include "heap_store.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace zr::platform {

namespace {

// Keeps its blocks in a ring, so that they can go with it.
class PrivateHeap final : public Heap {
public:
    explicit PrivateHeap(std::size_t maximum) : maximum_(maximum) {}
    ~PrivateHeap() override {
        while (ring_.next != &ring_) {
            count_live(ZrLiveKind::HeapBlocks, -1);
            release(ring_.next + 1);
        }
    }

    PrivateHeap* next_heap = nullptr;

    void lock() noexcept { mutex_.lock(); }
    void unlock() noexcept { mutex_.unlock(); }

protected:
    void* obtain(std::size_t bytes, bool zero) override {
        const std::lock_guard lock(mutex_);
        if (!fits(bytes)) return nullptr;
        const std::size_t total = bytes + sizeof(Node);
        return enter(static_cast<Node*>(zero ? std::calloc(1, total) : std::malloc(total)), bytes);
    }
    void* resize(void* base, std::size_t bytes) override {
        const std::lock_guard lock(mutex_);
        Node* const old = static_cast<Node*>(base) - 1;
        const std::size_t old_bytes = old->bytes;
        if (bytes > old_bytes && !fits(bytes - old_bytes)) return nullptr;
        leave(old);
        auto* const moved = static_cast<Node*>(std::realloc(old, bytes + sizeof(Node)));
        if (moved == nullptr) {
            enter(old, old_bytes);
            return nullptr;
        }
        return enter(moved, bytes);
    }
    void release(void* base) override {
        const std::lock_guard lock(mutex_);
        Node* const node = static_cast<Node*>(base) - 1;
        leave(node);
        std::free(node);
    }

private:
    struct alignas(kUnit) Node {
        Node* next;
        Node* previous;
        std::size_t bytes;
    };

    bool fits(std::size_t bytes) const { return maximum_ == 0 || bytes <= maximum_ - used_; }

    void* enter(Node* node, std::size_t bytes) {
        if (node == nullptr) return nullptr;
        node->bytes = bytes;
        node->next = ring_.next;
        node->previous = &ring_;
        node->next->previous = node;
        ring_.next = node;
        used_ += bytes;
        return node + 1;
    }
    void leave(Node* node) {
        node->previous->next = node->next;
        node->next->previous = node->previous;
        used_ -= node->bytes;
    }

    std::mutex mutex_;
    Node ring_{&ring_, &ring_, 0};
    std::size_t maximum_;
    std::size_t used_ = 0;
};

std::mutex heaps_mutex;
PrivateHeap* first_heap = nullptr;

// The link that points at a private heap; the list's last link if there is none. Under the mutex.
PrivateHeap** link_to(const Heap* heap) {
    PrivateHeap** link = &first_heap;
    while (*link != nullptr && *link != heap) {
        link = &(*link)->next_heap;
    }
    return link;
}

}  // namespace

constinit EndlessHeap the_process_heap;
std::atomic<LONGLONG> heap_successes_left{-1};

bool may_allocate_counted() noexcept {
    LONGLONG left = heap_successes_left.load(std::memory_order_relaxed);
    while (left > 0 && !heap_successes_left.compare_exchange_weak(left, left - 1)) {
    }
    return left != 0;
}

void* Heap::reallocate(BlockHeader* block, std::size_t bytes, bool zero) {
    if (bytes > kMostBytes || !may_allocate()) return nullptr;
    const std::size_t old_size = block_size(block);
    const std::size_t slack = slack_of(block);
    const std::uintptr_t seal = block->seal;
    unseal(block);
    auto* const base = static_cast<unsigned char*>(resize(block_base(block), bytes + kBlockOverhead));
    if (base == nullptr) {
        block->seal = seal;
        return nullptr;
    }
    void* const result = block_bytes(lay_block(this, base, bytes, slack, std::min(old_size, bytes)));
    if (zero && bytes > old_size) std::memset(static_cast<unsigned char*>(result) + old_size, 0, bytes - old_size);
    return result;
}

Heap* create_heap(std::size_t maximum) {
    auto* const heap = new (std::nothrow) PrivateHeap(maximum);
    if (heap == nullptr) return nullptr;
    const std::lock_guard lock(heaps_mutex);
    heap->next_heap = first_heap;
    first_heap = heap;
    return heap;
}

bool destroy_heap(Heap* heap) {
    PrivateHeap* found = nullptr;
    {
        const std::lock_guard lock(heaps_mutex);
        PrivateHeap** const link = link_to(heap);
        found = *link;
        if (found != nullptr) *link = found->next_heap;
    }
    delete found;
    return found != nullptr;
}

Heap* find_private_heap(HANDLE handle) {
    const std::lock_guard lock(heaps_mutex);
    return *link_to(static_cast<Heap*>(handle));
}

void lock_heaps() noexcept {
    heaps_mutex.lock();
    for (PrivateHeap* heap = first_heap; heap != nullptr; heap = heap->next_heap) {
        heap->lock();
    }
}

void unlock_heaps() noexcept {
    for (PrivateHeap* heap = first_heap; heap != nullptr; heap = heap->next_heap) {
        heap->unlock();
    }
    heaps_mutex.unlock();
}

}  // namespace zr::platform

void ZrFailHeapAfter(LONGLONG successes) {
    zr::platform::heap_successes_left.store(successes < 0 ? -1 : successes);
}
