#pragma once

#include "thread.h"

namespace zr::platform {

// A mutex: the word holds its owner's thread identifier, 0 when it is free. While it is owned it has one reference more
// and hangs in its owner's list, which only the owner touches.
class Mutex final : public Waitable {
public:
    static constexpr ObjectKind kKind = ObjectKind::Mutex;

    Mutex() noexcept : Waitable(kKind) {}

    // Gives up one hold; false when the calling thread is not the owner.
    bool unlock(Thread& self) noexcept;

    // The calling thread ends and leaves all that it owns to others.
    static void abandon_all(Thread& self) noexcept;

    void take_initially(Thread& self) noexcept;  // a new mutex that nobody else knows

protected:
    ~Mutex() override = default;
    bool is_signalled(const Thread& waiter) const noexcept override;
    bool acquire(Thread& waiter) noexcept override;
    bool is_exhausted() const noexcept override;
    void acquired(Thread& self) noexcept override;
    Attempt try_acquire(Thread& self) noexcept override;
    void last_handle_closed() noexcept override;

private:
    DWORD owner() const noexcept { return word_.load(std::memory_order_acquire) & ~kHasWaiters; }
    void give_up(Thread& self, bool abandoned) noexcept;

    // Written by the owner, or for it while it sleeps.
    DWORD holds_ = 0;
    bool listed_ = false;
    bool abandoned_ = false;
    Mutex* previous_ = nullptr;
    Mutex* next_ = nullptr;
};

}  // namespace zr::platform
