#pragma once

namespace zr::platform {

// The locks of all interlocked lists, while the process forks.
void lock_interlocked_lists() noexcept;
void unlock_interlocked_lists() noexcept;

}  // namespace zr::platform
