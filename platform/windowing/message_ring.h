#pragma once

// Posted messages in order: a ring that grows by doubling and then is reused, so that a steady flow allocates nothing.

#include <cstddef>
#include <memory>
#include <new>

#include "platform/windowing.h"

namespace zr::platform {

class MessageRing {
public:
    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    MSG& operator[](std::size_t index) noexcept { return slots_[(first_ + index) & mask_]; }

    // False when memory is short.
    bool push(const MSG& message) noexcept {
        if (size_ == capacity() && !grow()) return false;
        slots_[(first_ + size_++) & mask_] = message;
        return true;
    }

    // Moves the shorter side of the gap.
    void erase(std::size_t index) noexcept {
        if (index < size_ / 2) {
            for (std::size_t i = index; i > 0; --i)
                (*this)[i] = (*this)[i - 1];
            first_ = (first_ + 1) & mask_;
        } else {
            for (std::size_t i = index; i + 1 < size_; ++i)
                (*this)[i] = (*this)[i + 1];
        }
        --size_;
    }

    void erase_window(HWND window) noexcept {
        std::size_t kept = 0;
        for (std::size_t i = 0; i < size_; ++i) {
            if ((*this)[i].hwnd != window) (*this)[kept++] = (*this)[i];
        }
        size_ = kept;
    }

    void clear() noexcept { size_ = 0; }

private:
    static constexpr std::size_t kFirstCapacity = 16;

    std::size_t capacity() const noexcept { return slots_ ? mask_ + 1 : 0; }

    bool grow() noexcept {
        const std::size_t wanted = slots_ ? 2 * capacity() : kFirstCapacity;
        std::unique_ptr<MSG[]> larger(new (std::nothrow) MSG[wanted]);
        if (!larger) return false;
        for (std::size_t i = 0; i < size_; ++i)
            larger[i] = (*this)[i];
        slots_ = std::move(larger);
        mask_ = wanted - 1;
        first_ = 0;
        return true;
    }

    std::unique_ptr<MSG[]> slots_;
    std::size_t mask_ = 0;  // capacity - 1, a power of two less one
    std::size_t first_ = 0;
    std::size_t size_ = 0;
};

}  // namespace zr::platform
