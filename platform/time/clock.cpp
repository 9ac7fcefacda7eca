#include "clock.h"

#include <time.h>

#include <atomic>

#include "platform/time.h"
#include "units.h"

namespace zr::platform {
namespace {

constinit std::atomic<UtcClock> other_clock = nullptr;

}  // namespace

std::uint64_t utc_now() noexcept {
    if (const UtcClock clock = other_clock.load(std::memory_order_acquire); clock != nullptr) return clock();
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>((now.tv_sec + kEpochSeconds) * kUnitsPerSecond + now.tv_nsec / 100);
}

void use_clock(UtcClock clock) noexcept {
    other_clock.store(clock, std::memory_order_release);
}

}  // namespace zr::platform

void GetSystemTimeAsFileTime(FILETIME* time) {
    if (time != nullptr) *time = zr::platform::file_time_of(zr::platform::utc_now());
}

void GetSystemTime(SYSTEMTIME* time) {
    if (time == nullptr) return;
    const FILETIME now = zr::platform::file_time_of(zr::platform::utc_now());
    FileTimeToSystemTime(&now, time);
}
