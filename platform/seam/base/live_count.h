#pragma once

// Bookkeeping behind the counts of diagnostics.h: each family counts what it hands out, or lost.
//
// Each thread has a tally that only it writes, so that counting is no read-modify-write that the processor has to lock;
// what is alive is the sum of all. A tally goes on to another thread with what it says. Threads beyond the last tally,
// and those past their end, count in one that they share.

#include <atomic>

#include "platform/diagnostics.h"

namespace zr::platform {

inline constexpr int kLiveKinds = 8;

struct alignas(64) LiveTally {
    std::atomic<LONGLONG> counts[kLiveKinds];
};
extern constinit thread_local LiveTally* live_tally [[gnu::tls_model("initial-exec")]];

// For a thread without a tally, which gets one if there is one.
void count_live_slowly(ZrLiveKind kind, LONGLONG change) noexcept;

inline void count_live(ZrLiveKind kind, LONGLONG change) noexcept {
    LiveTally* const tally = live_tally;
    if (tally == nullptr) [[unlikely]]
        return count_live_slowly(kind, change);
    std::atomic<LONGLONG>& count = tally->counts[static_cast<int>(kind)];
    count.store(count.load(std::memory_order_relaxed) + change, std::memory_order_relaxed);
}

// The tallies of threads that stayed behind in the parent are free in a forked child; what they say counts on.
void free_live_tallies_of_others() noexcept;

extern std::atomic<LONGLONG> file_change_losses;

inline void count_lost_file_changes() {
    file_change_losses.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace zr::platform
