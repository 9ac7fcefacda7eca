#pragma once

// Who waits for room in which queue.

#include "windowing/post_room.h"

namespace zr::platform {

// One lock guards all waiters. It is taken after a queue's, or alone.
struct RoomWaiters {
    static void add(MessageQueue& queue, RoomWaiter& waiter) noexcept;
    static void remove(RoomWaiter& waiter) noexcept;
    // Tells all who wait for the queue. With no lock held.
    static void tell(MessageQueue& queue) noexcept;

    static void lock() noexcept;
    static void unlock() noexcept;
    static void unlock_in_child() noexcept;
};

}  // namespace zr::platform
