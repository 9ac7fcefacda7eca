#include "base/live_count.h"

namespace zr::platform {

std::atomic<LONGLONG> live_counts[kLiveKinds];
std::atomic<LONGLONG> file_change_losses;

}  // namespace zr::platform

LONGLONG ZrLiveObjects(ZrLiveKind kind) {
    return zr::platform::live_counts[static_cast<int>(kind)].load(std::memory_order_relaxed);
}

LONGLONG ZrFileChangeLosses() {
    return zr::platform::file_change_losses.load(std::memory_order_relaxed);
}
