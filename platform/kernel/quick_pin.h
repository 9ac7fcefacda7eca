#pragma once

// Holding an open handle's object for a few instructions, without a read-modify-write.
//
// Each thread has a slot that says which entry it is looking at. Who closes a handle marks the entry closed first and
// looks through the slots then, so either the thread finds the entry closed or the closer finds the slot and waits
// until the thread is through. That needs a full barrier between the two steps on both sides; the closer has the kernel
// make the threads' barriers for them (membarrier), so theirs cost nothing. Where the kernel does not, there are no
// slots, and all pins are counted ones.
//
// An entry is opened to quick pins (kQuick) when its handle has been used a while: closing others costs nothing more.

#include "engine.h"
#include "handle_entry.h"

namespace zr::platform {

struct alignas(64) QuickSlot {
    std::atomic<const Entry*> entry{nullptr};
    std::atomic<bool> used{false};
};

// A slot for the calling thread; NULL when there is none. It is given back with nothing in it.
QuickSlot* claim_quick_slot() noexcept;
void give_back_quick_slot(QuickSlot* slot) noexcept;

// Returns once no thread has the entry, which is closed already, in its slot. False when that cannot be found out: then
// the entry must be kept as it is for good.
bool await_quick_pins(const Entry& entry) noexcept;

// Counts a use of the handle, that the caller has pinned, by a call that tries a quick pin first.
void note_use(const Pin& pin) noexcept;

// While it lives: no system call, no lock, nothing that could wait or end the thread, and no second one.
class QuickPin {
public:
    // Empty when the handle is not open, and in all cases in which only a counted pin helps.
    QuickPin(Thread& self, HANDLE handle) noexcept : slot_(ThreadAccess::quick_slot(self)) {
        DecodedHandle wanted{};
        if (!slot_ || !decode(handle, wanted)) return;
        const Entry* entry = entry_at(wanted.index);
        if (!entry) return;
        // Each store a release, so that a closer who finds a later one has all that was done under an earlier one.
        slot_->entry.store(entry, std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if ((entry->state.load(std::memory_order_acquire) & ~kPins) == (wanted.open_state | kQuick)) {
            object_ = entry->object;
        } else {
            slot_->entry.store(nullptr, std::memory_order_release);
        }
    }
    ~QuickPin() {
        if (object_) slot_->entry.store(nullptr, std::memory_order_release);
    }
    QuickPin(const QuickPin&) = delete;
    QuickPin& operator=(const QuickPin&) = delete;

    template <class T>
    T* get() const noexcept {
        return object_ && object_->kind() == T::kKind ? static_cast<T*>(object_) : nullptr;
    }

private:
    QuickSlot* slot_;
    Object* object_ = nullptr;
};

}  // namespace zr::platform
