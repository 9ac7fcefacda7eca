#pragma once

// What the exception table of a 32-bit ARM function says of a place in it. There the C++ library's own answer cannot be
// asked for beforehand: it would unwind the frame.

#include <unwind.h>

#include <cstdint>

#if defined(__ARM_EABI_UNWINDER__)

namespace zr::platform {

class FrameTable {
public:
    // The table of the frame that the unwinder is at.
    explicit FrameTable(const _Unwind_Control_Block& unwound) noexcept
        : function_(unwound.pr_cache.fnstart), words_(unwound.pr_cache.ehtp) {}

    // Whether a call there is within a catch (...), or under an exception specification.
    bool stops(std::uintptr_t place) const noexcept;

private:
    bool actions_stop(const std::uint8_t* actions, std::uintptr_t first, const std::uint32_t* types) const noexcept;

    const std::uintptr_t function_;
    const std::uint32_t* const words_;
};

}  // namespace zr::platform

#endif
