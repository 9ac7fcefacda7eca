#pragma once

// Bookkeeping behind the counts of diagnostics.h: each family counts what it hands out, or lost.

#include <atomic>

#include "platform/diagnostics.h"

namespace zr::platform {

inline constexpr int kLiveKinds = 8;
extern std::atomic<LONGLONG> live_counts[kLiveKinds];

inline void count_live(ZrLiveKind kind, LONGLONG change) {
    live_counts[static_cast<int>(kind)].fetch_add(change, std::memory_order_relaxed);
}

extern std::atomic<LONGLONG> file_change_losses;

inline void count_lost_file_changes() {
    file_change_losses.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace zr::platform
