#pragma once

// What a fork finds free.

namespace zr::platform {

void lock_searches() noexcept;
void unlock_searches() noexcept;

void lock_share_modes() noexcept;
void unlock_share_modes() noexcept;
void forget_calls_sharing() noexcept;  // in the child: of other threads, which are not in it

}  // namespace zr::platform
