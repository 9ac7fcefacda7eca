#pragma once

#include "kernel/waitable.h"

namespace zr::platform {

// A semaphore: the word is its count.
class Semaphore final : public Waitable {
public:
    static constexpr ObjectKind kKind = ObjectKind::Semaphore;

    Semaphore(LONG initial, LONG most) noexcept : Waitable(kKind), most_(static_cast<std::uint32_t>(most)) {
        word_.store(static_cast<std::uint32_t>(initial), std::memory_order_relaxed);
    }

    // Gives `count`, which is positive; false, and nothing is done, when there would be too many.
    bool release_count(LONG count, LONG* before) noexcept;
    // The lock-free attempts of that and of a wait; otherwise nothing is done and the answer is false, or No.
    bool try_release(LONG count, LONG* before) noexcept;
    Attempt try_take() noexcept;

protected:
    ~Semaphore() override = default;
    bool is_signalled(const Thread& waiter) const noexcept override;
    bool acquire(Thread& waiter) noexcept override;
    bool is_exhausted() const noexcept override;
    Attempt try_acquire(Thread& self) noexcept override;

private:
    bool fits(std::uint32_t now, LONG more) const noexcept { return static_cast<std::uint32_t>(more) <= most_ - now; }

    const std::uint32_t most_;
};

}  // namespace zr::platform
