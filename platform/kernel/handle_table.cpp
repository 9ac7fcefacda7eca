#include "handle_table.h"

#include <mutex>
#include <new>

#include "engine.h"
#include "futex.h"
#include "live_count.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "process.h"
#include "thread.h"

namespace zr::platform {
namespace {

// A handle value is the generation of its entry, the entry's index and two zero bits. Pseudo handles have these bits
// set, as has INVALID_HANDLE_VALUE.
constexpr int kTagBits = 2;
constexpr int kIndexBits = sizeof(void*) == 8 ? 20 : 18;
constexpr int kGenerationBits = sizeof(void*) == 8 ? 31 : 12;
constexpr std::uint32_t kGenerationMask = (std::uint32_t{1} << kGenerationBits) - 1;
constexpr std::uint32_t kChunkSize = 1024;
constexpr std::uint32_t kChunks = (std::uint32_t{1} << kIndexBits) / kChunkSize;
constexpr std::uint32_t kNone = 0xFFFFFFFF;

// An entry's state: generation, whether it is open, and the pins, of which an open handle itself is one. All in one
// word, so that a lookup is one compare-and-swap that fails for every handle but the open one. The memory of entries is
// never given back, which is what makes looking at a stale one safe.
constexpr std::uint64_t kOpen = std::uint64_t{1} << 32;
constexpr std::uint64_t kPins = kOpen - 1;
constexpr int kGenerationShift = 33;

struct Entry {
    std::atomic<std::uint64_t> state{std::uint64_t{1} << kGenerationShift};
    Object* object = nullptr;
    std::uint32_t index = 0;
    std::uint32_t next_free = kNone;
};

struct Decoded {
    std::uint32_t index;
    std::uint64_t open_state;  // what the entry's state is, but for the pins, while this handle is open
};

bool decode(HANDLE handle, Decoded& out) noexcept {
    const std::uintptr_t value = reinterpret_cast<std::uintptr_t>(handle);
    if ((value & ((1u << kTagBits) - 1)) != 0) return false;
    out.index = static_cast<std::uint32_t>(value >> kTagBits) & ((std::uint32_t{1} << kIndexBits) - 1);
    const std::uintptr_t generation = value >> (kTagBits + kIndexBits);
    if (generation == 0 || generation > kGenerationMask) return false;
    out.open_state = (std::uint64_t{generation} << kGenerationShift) | kOpen;
    return true;
}

HANDLE encode(const Entry& entry, std::uint64_t state) noexcept {
    const std::uintptr_t generation = static_cast<std::uintptr_t>(state >> kGenerationShift);
    const std::uintptr_t value = (generation << (kTagBits + kIndexBits)) | (std::uintptr_t{entry.index} << kTagBits);
    return reinterpret_cast<HANDLE>(value);
}

}  // namespace

struct HandleTable {
    std::atomic<Entry*> chunks[kChunks];

    FutexLock lock;
    std::uint32_t used = 0;            // entries ever handed out
    std::uint32_t first_free = kNone;  // reused in the order they were closed, so that a stale value stays stale long
    std::uint32_t last_free = kNone;

    Entry* at(std::uint32_t index) noexcept {
        Entry* chunk = chunks[index / kChunkSize].load(std::memory_order_acquire);
        return chunk ? &chunk[index % kChunkSize] : nullptr;
    }

    Entry* allocate() noexcept {
        const std::lock_guard guard(lock);
        if (first_free != kNone) {
            Entry* entry = at(first_free);
            first_free = entry->next_free;
            if (first_free == kNone) last_free = kNone;
            return entry;
        }
        if (used == kChunks * kChunkSize) {
            SetLastError(ERROR_TOO_MANY_OPEN_FILES);
            return nullptr;
        }
        if (used % kChunkSize == 0) {
            Entry* chunk = new (std::nothrow) Entry[kChunkSize];
            if (!chunk) {
                SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return nullptr;
            }
            chunks[used / kChunkSize].store(chunk, std::memory_order_release);
        }
        Entry* entry = at(used);
        entry->index = used++;
        return entry;
    }

    void free(Entry& entry) noexcept {
        const std::lock_guard guard(lock);
        entry.next_free = kNone;
        if (last_free == kNone) {
            first_free = entry.index;
        } else {
            at(last_free)->next_free = entry.index;
        }
        last_free = entry.index;
    }

    // Holds the entry of an open handle; NULL for every other value.
    Entry* pin(HANDLE handle) noexcept {
        Decoded wanted{};
        if (!decode(handle, wanted)) return nullptr;
        Entry* entry = at(wanted.index);
        if (!entry) return nullptr;
        std::uint64_t state = entry->state.load(std::memory_order_relaxed);
        do {
            if ((state & ~kPins) != wanted.open_state) return nullptr;
        } while (!entry->state.compare_exchange_weak(state, state + 1, std::memory_order_acquire,
                                                     std::memory_order_relaxed));
        return entry;
    }

    void unpin(Entry& entry) noexcept {
        const std::uint64_t state = entry.state.fetch_sub(1, std::memory_order_acq_rel);
        if ((state & kPins) != 1) return;
        // Closed and let go by everybody: nobody gets in any more.
        Object* object = std::exchange(entry.object, nullptr);
        std::uint64_t generation = ((state >> kGenerationShift) + 1) & kGenerationMask;
        if (generation == 0) generation = 1;
        entry.state.store(generation << kGenerationShift, std::memory_order_relaxed);
        free(entry);
        object->release();
    }

    HANDLE open(Object& object) noexcept {
        Entry* entry = allocate();
        if (!entry) return nullptr;
        object.add_ref();
        object.handles_.fetch_add(1, std::memory_order_relaxed);
        entry->object = &object;
        const std::uint64_t state = entry->state.load(std::memory_order_relaxed) | kOpen | 1;
        const HANDLE handle = encode(*entry, state);
        entry->state.store(state, std::memory_order_release);
        count_live(ZrLiveKind::Handles, 1);
        return handle;
    }

    // Closes a handle that the caller has pinned; false when another thread was first.
    bool close(Entry& entry, std::uint64_t open_state) noexcept {
        std::uint64_t state = entry.state.load(std::memory_order_relaxed);
        do {
            if ((state & ~kPins) != open_state) return false;
        } while (!entry.state.compare_exchange_weak(state, state & ~kOpen, std::memory_order_acq_rel,
                                                    std::memory_order_relaxed));
        Object* object = entry.object;
        count_live(ZrLiveKind::Handles, -1);
        if (object->handles_.fetch_sub(1, std::memory_order_acq_rel) == 1) object->last_handle_closed();
        unpin(entry);  // the handle's own
        return true;
    }

    bool close_if(HANDLE handle, const ObjectKind* kind) noexcept {
        bool closed = false;
        if (Entry* entry = pin(handle)) {
            Decoded decoded{};
            decode(handle, decoded);
            closed = (!kind || entry->object->kind() == *kind) && close(*entry, decoded.open_state);
            unpin(*entry);
        }
        if (!closed) report_invalid_handle();
        return closed;
    }
};

namespace {

constinit HandleTable table;

}  // namespace

Pin::Pin(HANDLE handle) noexcept {
    if (Entry* entry = table.pin(handle)) {
        entry_ = entry;
        object_ = entry->object;
    } else if (handle == GetCurrentThread()) {
        object_ = &Thread::current();
    } else if (handle == GetCurrentProcess()) {
        object_ = &this_process();
    }
}

void Pin::unpin() noexcept {
    table.unpin(*static_cast<Entry*>(entry_));
}

void lock_handles() noexcept {
    table.lock.lock();
}

void unlock_handles() noexcept {
    table.lock.unlock();
}

void report_invalid_handle() noexcept {
    SetLastError(ERROR_INVALID_HANDLE);
}

HANDLE open_handle(Object& object) noexcept {
    return table.open(object);
}

bool close_handle(HANDLE handle) noexcept {
    return table.close_if(handle, nullptr);
}

bool close_handle(HANDLE handle, ObjectKind kind) noexcept {
    return table.close_if(handle, &kind);
}

}  // namespace zr::platform
