#pragma once

// Posting to a window whose queue may be full, without asking over and over whether it still is.

#include <cstdint>

#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

class MessageQueue;

enum class Posted {
    Yes,
    Full,   // the waiter will be told of room
    Gone,   // there is no such window any more
    Later,  // no memory: worth another try after a while
};

// Told that a queue has room again, or that there is nothing to wait for any more: post again, and see.
class ZRPLATFORM_API RoomWaiter {
public:
    RoomWaiter() = default;
    RoomWaiter(const RoomWaiter&) = delete;
    RoomWaiter& operator=(const RoomWaiter&) = delete;

    // Called once for each Full, on the thread that takes messages out of the queue, with no lock held. That thread is
    // the program's: wake somebody and return. Not to be posted from.
    virtual void room() noexcept = 0;

protected:
    virtual ~RoomWaiter() = default;

private:
    friend struct RoomWaiters;
    enum class State { Idle, Listed, Calling };

    // Guarded by the lock of all waiters.
    State state_ = State::Idle;
    std::uint32_t generation_ = 0;  // of the process that calls it
    MessageQueue* queue_ = nullptr;
    RoomWaiter* next_ = nullptr;
};

// Posts the message. A waiter waits for one window at a time: what it waited for before is forgotten. The last error
// stays as it was.
ZRPLATFORM_API Posted post_or_wait(HWND window, UINT message, WPARAM wparam, LPARAM lparam,
                                   RoomWaiter& waiter) noexcept;

// When this returns the waiter is not being told of anything, and will not be. Not for room() itself.
ZRPLATFORM_API void forget_room(RoomWaiter& waiter) noexcept;

}  // namespace zr::platform
