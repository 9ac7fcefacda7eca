#include "base/live_count.h"

#include <pthread.h>

#include <utility>

namespace zr::platform {

std::atomic<LONGLONG> file_change_losses;

constinit thread_local LiveTally* live_tally [[gnu::tls_model("initial-exec")]] = nullptr;

namespace {

constexpr int kTallies = 256;
constinit LiveTally tallies[kTallies];
constinit std::atomic<bool> taken[kTallies];
constinit LiveTally shared_tally;

// Acquire and release: who takes a tally goes on from what its last owner wrote.
LiveTally* take_tally() noexcept {
    for (int i = 0; i < kTallies; ++i) {
        if (!taken[i].load(std::memory_order_relaxed) && !taken[i].exchange(true, std::memory_order_acq_rel)) {
            return &tallies[i];
        }
    }
    return nullptr;
}

// A thread asks for one once, so that what counts after its end, or beyond the last tally, does not look for one.
constinit thread_local bool asked [[gnu::tls_model("initial-exec")]] = false;

void give_back(void* own) noexcept {
    live_tally = nullptr;
    taken[static_cast<LiveTally*>(own) - tallies].store(false, std::memory_order_release);
}

bool make_key(pthread_key_t& key) noexcept {
    return pthread_key_create(&key, give_back) == 0;
}

// A tally that will be given back when the thread ends; none where that cannot be promised.
void begin_tally() noexcept {
    static pthread_key_t key;
    static const bool have_key = make_key(key);
    LiveTally* const tally = have_key ? take_tally() : nullptr;
    if (tally == nullptr) return;
    live_tally = tally;
    if (pthread_setspecific(key, tally) != 0) give_back(tally);
}

}  // namespace

void count_live_slowly(ZrLiveKind kind, LONGLONG change) noexcept {
    if (!std::exchange(asked, true)) begin_tally();
    if (live_tally != nullptr) return count_live(kind, change);
    shared_tally.counts[static_cast<int>(kind)].fetch_add(change, std::memory_order_relaxed);
}

void free_live_tallies_of_others() noexcept {
    for (int i = 0; i < kTallies; ++i) {
        taken[i].store(&tallies[i] == live_tally, std::memory_order_relaxed);
    }
}

}  // namespace zr::platform

LONGLONG ZrLiveObjects(ZrLiveKind kind) {
    using namespace zr::platform;
    const int which = static_cast<int>(kind);
    LONGLONG sum = shared_tally.counts[which].load(std::memory_order_relaxed);
    for (const LiveTally& tally : tallies) {
        sum += tally.counts[which].load(std::memory_order_relaxed);
    }
    return sum;
}

LONGLONG ZrFileChangeLosses() {
    return zr::platform::file_change_losses.load(std::memory_order_relaxed);
}
