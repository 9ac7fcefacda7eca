#pragma once

// Bookkeeping behind ZrLiveObjects: each family counts what it hands out.

#include <atomic>

#include "platform/diagnostics.h"

namespace zr::platform {

inline constexpr int kLiveKinds = 6;
extern std::atomic<LONGLONG> live_counts[kLiveKinds];

inline void count_live(ZrLiveKind kind, LONGLONG change) {
    live_counts[static_cast<int>(kind)].fetch_add(change, std::memory_order_relaxed);
}

}  // namespace zr::platform
