#pragma once

// Posted messages in order: a ring that grows by doubling and then is reused, so that a steady flow allocates nothing.
// It counts them by number, so that a look for one that is not there need not pass all that wait.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

#include "platform/windowing.h"

namespace zr::platform {

class MessageRing {
public:
    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    const MSG& operator[](std::size_t index) const noexcept { return slots_[(first_ + index) & mask_]; }

    // False: no message with this number is in it.
    bool may_hold(UINT message) const noexcept { return counts_[message % kCounts] != 0; }

    // False when memory is short.
    bool push(const MSG& message) noexcept {
        if (size_ == capacity() && !grow()) return false;
        at(size_++) = message;
        ++counts_[message.message % kCounts];
        return true;
    }

    // Moves the shorter side of the gap.
    void erase(std::size_t index) noexcept {
        --counts_[at(index).message % kCounts];
        if (index < size_ / 2) {
            for (std::size_t i = index; i > 0; --i)
                at(i) = at(i - 1);
            first_ = (first_ + 1) & mask_;
        } else {
            for (std::size_t i = index; i + 1 < size_; ++i)
                at(i) = at(i + 1);
        }
        --size_;
    }

    void erase_window(HWND window) noexcept {
        std::size_t kept = 0;
        for (std::size_t i = 0; i < size_; ++i) {
            if (at(i).hwnd != window)
                at(kept++) = at(i);
            else
                --counts_[at(i).message % kCounts];
        }
        size_ = kept;
    }

    void clear() noexcept {
        size_ = 0;
        counts_ = {};
    }

private:
    static constexpr std::size_t kFirstCapacity = 16;
    static constexpr std::size_t kCounts = 64;

    MSG& at(std::size_t index) noexcept { return slots_[(first_ + index) & mask_]; }

    std::size_t capacity() const noexcept { return slots_ ? mask_ + 1 : 0; }

    bool grow() noexcept {
        const std::size_t wanted = slots_ ? 2 * capacity() : kFirstCapacity;
        std::unique_ptr<MSG[]> larger(new (std::nothrow) MSG[wanted]);
        if (!larger) return false;
        for (std::size_t i = 0; i < size_; ++i)
            larger[i] = at(i);
        slots_ = std::move(larger);
        mask_ = wanted - 1;
        first_ = 0;
        return true;
    }

    std::unique_ptr<MSG[]> slots_;
    std::size_t mask_ = 0;  // capacity - 1, a power of two less one
    std::size_t first_ = 0;
    std::size_t size_ = 0;
    std::array<std::uint32_t, kCounts> counts_{};  // by the number's remainder
};

}  // namespace zr::platform
