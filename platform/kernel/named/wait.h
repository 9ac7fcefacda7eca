#pragma once

// Waits that have a named object among theirs.

#include "engine.h"
#include "named/session.h"

namespace zr::platform::named {

// What a named event and a named mutex of this process have in common: a Waitable whose state lies in the region.
class Shared : public Waitable {
public:
    Member& member() noexcept { return member_; }

protected:
    using Waitable::Waitable;
    ~Shared() override = default;

    // With the region's lock held.
    bool is_signalled(const Thread& waiter) const noexcept override;
    bool acquire(Thread& waiter) noexcept override;
    void last_handle_closed() noexcept override { member_.close(*this); }

    std::atomic<std::uint64_t>& word() const noexcept { return member_.object().word; }

    Member member_;
};

// The rest of a wait, after the first attempts without a lock.
WaitResult wait(Thread& self, std::span<Waitable* const> objects, WaitMode mode, Deadline deadline);

// An object of this process has changed, for which a thread waits along with named ones. With the engine's lock held;
// `index` is the object's place in the thread's list.
void serve_mixed(Thread& thread, Waitable& object, std::uint32_t index, Wakeups& wakeups) noexcept;

// The thread ends and waits no more.
void forget_sleeper(Thread& self) noexcept;

}  // namespace zr::platform::named
