#pragma once

// The change notifications at a fork: both processes tell their windows of what changes.

namespace zr::platform {

void lock_notifications() noexcept;
void unlock_notifications() noexcept;
void resume_notifications() noexcept;

}  // namespace zr::platform
