#include "quick_pin.h"

#include <linux/membarrier.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "at_fork.h"

namespace zr::platform {
namespace {

// Threads beyond these have no slot. Slots are taken from the front, so a closer looks at as many as were ever taken.
constexpr int kSlots = 256;
QuickSlot slots[kSlots];
std::atomic<int> slots_taken{0};

int membarrier(int command) noexcept {
    return static_cast<int>(syscall(SYS_membarrier, command, 0, 0));
}

bool register_for_barriers() noexcept {
    return membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;
}

// A barrier on every thread of this process that runs.
bool barrier_everywhere() noexcept {
    if (membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0) return true;
    return register_for_barriers() && membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0;
}

const bool have_slots = register_for_barriers();

// A thread is through with a slot after a few instructions, unless it is not running.
void await(const QuickSlot& slot, const Entry& entry) noexcept {
    constexpr int kSpins = 100;
    constexpr int kYields = 100;
    for (int i = 0; slot.entry.load(std::memory_order_acquire) == &entry; ++i) {
        if (i < kSpins) {
            cpu_relax();
        } else if (i < kSpins + kYields) {
            sched_yield();
        } else {
            const timespec pause{0, 50'000};
            nanosleep(&pause, nullptr);
        }
    }
}

}  // namespace

// What the others were looking at nobody looks at any more.
void at_fork::forget_quick_pins() noexcept {
    const QuickSlot* own = current_thread ? ThreadAccess::quick_slot(*current_thread) : nullptr;
    for (QuickSlot& slot : slots) {
        if (&slot == own) continue;
        slot.entry.store(nullptr, std::memory_order_relaxed);
        slot.used.store(false, std::memory_order_relaxed);
    }
}

QuickSlot* claim_quick_slot() noexcept {
    if (!have_slots) return nullptr;
    for (int i = 0; i < kSlots; ++i) {
        if (slots[i].used.exchange(true, std::memory_order_acq_rel)) continue;
        // Before the slot is used for the first time, so that no closer overlooks it.
        int taken = slots_taken.load(std::memory_order_relaxed);
        while (taken <= i && !slots_taken.compare_exchange_weak(taken, i + 1, std::memory_order_acq_rel)) {
        }
        return &slots[i];
    }
    return nullptr;
}

void give_back_quick_slot(QuickSlot* slot) noexcept {
    if (slot) slot->used.store(false, std::memory_order_release);
}

bool await_quick_pins(const Entry& entry) noexcept {
    if (!barrier_everywhere()) return false;
    const int taken = slots_taken.load(std::memory_order_acquire);
    for (int i = 0; i < taken; ++i) {
        await(slots[i], entry);
    }
    return true;
}

}  // namespace zr::platform
