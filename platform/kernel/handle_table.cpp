#include "kernel/handle_table.h"

#include <mutex>
#include <new>

#include "at_fork.h"
#include "base/live_count.h"
#include "engine.h"
#include "futex.h"
#include "kernel/thread.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "process.h"
#include "quick_pin.h"

namespace zr::platform {
namespace {

// How often a handle is used before quick pins may hold it, which makes closing it dearer.
constexpr std::uint32_t kUsesUntilQuick = 16;

HANDLE encode(const Entry& entry, std::uint64_t state) noexcept {
    const std::uintptr_t generation = static_cast<std::uintptr_t>(state >> kGenerationShift);
    const std::uintptr_t value = (generation << (kTagBits + kIndexBits)) | (std::uintptr_t{entry.index} << kTagBits);
    return reinterpret_cast<HANDLE>(value);
}

}  // namespace

constinit std::atomic<Entry*> entry_chunks[kChunks];

struct HandleTable {
    FutexLock lock;
    std::uint32_t used = 0;  // entries ever handed out
    std::uint32_t first_free =
        kNoEntry;  // reused in the order they were closed, so that a stale value stays stale long
    std::uint32_t last_free = kNoEntry;

    Entry* allocate() noexcept {
        const std::lock_guard guard(lock);
        if (first_free != kNoEntry) {
            Entry* entry = entry_at(first_free);
            first_free = entry->next_free;
            if (first_free == kNoEntry) last_free = kNoEntry;
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
            entry_chunks[used / kChunkSize].store(chunk, std::memory_order_release);
        }
        Entry* entry = entry_at(used);
        entry->index = used++;
        return entry;
    }

    void free(Entry& entry) noexcept {
        const std::lock_guard guard(lock);
        entry.next_free = kNoEntry;
        if (last_free == kNoEntry) {
            first_free = entry.index;
        } else {
            entry_at(last_free)->next_free = entry.index;
        }
        last_free = entry.index;
    }

    // Holds the entry of an open handle; NULL for every other value.
    Entry* pin(HANDLE handle) noexcept {
        DecodedHandle wanted{};
        if (!decode(handle, wanted)) return nullptr;
        Entry* entry = entry_at(wanted.index);
        if (!entry) return nullptr;
        std::uint64_t state = entry->state.load(std::memory_order_relaxed);
        do {
            if (!is_open_as(state, wanted)) return nullptr;
        } while (!entry->state.compare_exchange_weak(state, state + 1, std::memory_order_acquire,
                                                     std::memory_order_relaxed));
        return entry;
    }

    void unpin(Entry& entry) noexcept {
        const std::uint64_t state = entry.state.fetch_sub(1, std::memory_order_acq_rel);
        if ((state & kPins) != 1) return;
        vacate(entry, state);
    }

    // The entry was closed and let go by everybody: nobody gets in any more.
    void vacate(Entry& entry, std::uint64_t state) noexcept {
        Object* object = std::exchange(entry.object, nullptr);
        std::uint64_t generation = ((state >> kGenerationShift) + 1) & kGenerationMask;
        if (generation == 0) generation = 1;
        entry.uses.store(0, std::memory_order_relaxed);
        entry.state.store(generation << kGenerationShift, std::memory_order_relaxed);
        free(entry);
        object->release();
    }

    static void count_closed(Object& object) noexcept {
        count_live(ZrLiveKind::Handles, -1);
        if (object.handles_.fetch_sub(1, std::memory_order_acq_rel) == 1) object.last_handle_closed();
    }

    // Closes the handle when nothing but the handle itself holds its entry, which is what most closing is. In one step,
    // from open to closed and held by nobody; the entry is this thread's then. False: nothing has happened.
    bool close_idle(HANDLE handle, const ObjectKind* kind) noexcept {
        DecodedHandle wanted{};
        if (!decode(handle, wanted)) return false;
        Entry* entry = entry_at(wanted.index);
        if (!entry) return false;
        std::uint64_t state = entry->state.load(std::memory_order_acquire);
        if (state != (wanted.open_state | 1)) return false;
        // Whose kind this is, the exchange will tell: the entry then still is this handle's.
        if (kind && entry->kind.load(std::memory_order_relaxed) != *kind) return false;
        const std::uint64_t closed = state & ~(kOpen | kPins);
        if (!entry->state.compare_exchange_strong(state, closed, std::memory_order_acq_rel)) return false;
        count_closed(*entry->object);
        vacate(*entry, closed);
        return true;
    }

    // Takes over a reference, when it succeeds.
    HANDLE open(Object& object) noexcept {
        Entry* entry = allocate();
        if (!entry) return nullptr;
        object.handles_.fetch_add(1, std::memory_order_relaxed);
        entry->object = &object;
        entry->kind.store(object.kind(), std::memory_order_relaxed);
        const std::uint64_t state = entry->state.load(std::memory_order_relaxed) | kOpen | 1;
        const HANDLE handle = encode(*entry, state);
        entry->state.store(state, std::memory_order_release);
        count_live(ZrLiveKind::Handles, 1);
        return handle;
    }

    // Opens the entry of a handle that the caller has pinned to quick pins, unless it is closed by now.
    void make_quick(Entry& entry) noexcept {
        std::uint64_t state = entry.state.load(std::memory_order_relaxed);
        while ((state & kOpen) != 0 &&
               !entry.state.compare_exchange_weak(state, state | kQuick, std::memory_order_relaxed)) {
        }
    }

    // Closes a handle that the caller has pinned; false when another thread was first.
    bool close(Entry& entry, const DecodedHandle& handle) noexcept {
        std::uint64_t state = entry.state.load(std::memory_order_relaxed);
        do {
            if (!is_open_as(state, handle)) return false;
        } while (!entry.state.compare_exchange_weak(state, state & ~kOpen, std::memory_order_acq_rel,
                                                    std::memory_order_relaxed));
        const bool unused = (state & kQuick) == 0 || await_quick_pins(entry);
        count_closed(*entry.object);
        if (unused) unpin(entry);  // the handle's own
        return true;
    }

    bool close_if(HANDLE handle, const ObjectKind* kind) noexcept {
        if (close_idle(handle, kind)) return true;
        bool closed = false;
        if (Entry* entry = pin(handle)) {
            DecodedHandle decoded{};
            decode(handle, decoded);
            closed = (!kind || entry->object->kind() == *kind) && close(*entry, decoded);
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

void note_use(const Pin& pin) noexcept {
    Entry* entry = static_cast<Entry*>(pin.entry_);
    if (!entry) return;
    const std::uint32_t uses = entry->uses.load(std::memory_order_relaxed);
    if (uses >= kUsesUntilQuick) return;
    entry->uses.store(uses + 1, std::memory_order_relaxed);
    if (uses + 1 == kUsesUntilQuick) table.make_quick(*entry);
}

void at_fork::lock_handles() noexcept {
    table.lock.lock();
}

void at_fork::unlock_handles() noexcept {
    table.lock.unlock();
}

void report_invalid_handle() noexcept {
    SetLastError(ERROR_INVALID_HANDLE);
}

HANDLE open_handle(Object& object) noexcept {
    object.add_ref();
    const HANDLE handle = table.open(object);
    if (!handle) object.release();
    return handle;
}

HANDLE open_handle_adopting(Object& object) noexcept {
    return table.open(object);
}

bool close_handle(HANDLE handle) noexcept {
    return table.close_if(handle, nullptr);
}

bool close_handle(HANDLE handle, ObjectKind kind) noexcept {
    return table.close_if(handle, &kind);
}

}  // namespace zr::platform
