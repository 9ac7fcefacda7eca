#include "clock_timer.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <limits>

#include "base/host_error.h"
#include "base/host_fd.h"

namespace zr::platform {

DWORD ClockTimer::open() {
    descriptor_ = above_standard(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
    if (descriptor_ >= 0 && arm()) return 0;
    const DWORD error = error_from_errno(errno);
    close();
    return error;
}

void ClockTimer::close() noexcept {
    if (descriptor_ >= 0) ::close(descriptor_);
    descriptor_ = -1;
}

// A timer that never fires, but is cancelled when the clock is set.
bool ClockTimer::arm() const {
    itimerspec never = {};
    never.it_value.tv_sec = std::numeric_limits<time_t>::max();
    return timerfd_settime(descriptor_, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr) == 0;
}

bool ClockTimer::read_change() {
    std::uint64_t expirations = 0;
    const bool set = read(descriptor_, &expirations, sizeof expirations) < 0 && errno == ECANCELED;
    if (set) arm();
    return set;
}

}  // namespace zr::platform
