#pragma once

// A lock that processes share, whatever the width of their addresses, and that does not stay behind with a thread that
// ends while it holds it: the kernel then marks it and calls one of those who wait.
//
// The C library's robust mutexes do that as well, but are laid out otherwise in 32-bit processes. Here all that is
// shared is the word that the kernel knows: the holder's thread identifier, FUTEX_WAITERS, FUTEX_OWNER_DIED. The kernel
// learns of it from the list of robust locks that each thread has anyway, namely as the one that the thread is about to
// take or to give back; so a thread can hold one such lock at a time, and must not touch robust mutexes of the C
// library meanwhile. Where there are no such lists (in a process that is emulated), nobody notices that a holder ended.

#include <linux/futex.h>

#include <atomic>
#include <cstdint>

namespace zr::platform::named {

class RobustLock {
public:
    enum class Found { Free, Left };

    // Left: whoever held it ended in the middle of what the lock guards.
    Found take() noexcept;
    void give_back() noexcept;

    // Lets all who sleep on the lock try again, who will see to it that one of them is called when it is free.
    void wake_waiters() const noexcept;

private:
    bool try_take(std::uint32_t holder, Found& found) noexcept;

    std::atomic<std::uint32_t> word_;
};
static_assert(sizeof(RobustLock) == 4);

// A lock that one thread holds for as long as it lives. The thread begins that with a list of robust locks of its own,
// so it must not have used one before. `this` is there for as long as the thread.
class LifeHold {
public:
    // The word holds 0 so far.
    void begin(std::atomic<std::uint32_t>& word) noexcept;

private:
    robust_list_head head_{};
    robust_list entry_{};
};

// For a thread that has become that of a forked child: the kernel knows it by another identifier now.
void forget_thread() noexcept;

}  // namespace zr::platform::named
