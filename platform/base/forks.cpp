#include "base/forks.h"

#include <pthread.h>

#include <cerrno>
#include <cstddef>

namespace zr::platform {

constinit std::atomic<std::uint32_t> forks_behind{0};
constinit std::atomic<bool> resume_wanted{false};

namespace {

constexpr std::size_t kRanks = static_cast<std::size_t>(ForkRank::Count);

// Filled while the library is loaded; from then on only read.
constinit ForkHandlers families[kRanks] = {};

void before_fork() {
    for (std::size_t rank = kRanks; rank-- > 0;) {
        if (families[rank].prepare) families[rank].prepare();
    }
}

void after_fork_in_parent() {
    for (const ForkHandlers& family : families) {
        if (family.parent) family.parent();
    }
}

void after_fork_in_child() {
    forks_behind.fetch_add(1, std::memory_order_relaxed);
    resume_wanted.store(true, std::memory_order_relaxed);
    for (const ForkHandlers& family : families) {
        if (family.child) family.child();
    }
}

// When the library is loaded. Fails only where there is no memory to load a library in either.
[[maybe_unused]] const int host_handlers = pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);

}  // namespace

AtFork::AtFork(ForkRank rank, const ForkHandlers& handlers) noexcept {
    families[static_cast<std::size_t>(rank)] = handlers;
}

void resume_families() noexcept {
    if (!resume_wanted.exchange(false, std::memory_order_acq_rel)) return;
    const int error_before = errno;
    for (const ForkHandlers& family : families) {
        if (family.resume) family.resume();
    }
    errno = error_before;
}

}  // namespace zr::platform
