#include "time/clock.h"

#include <time.h>

#include <atomic>

#include "coarse_clock.h"
#include "current_zone.h"
#include "platform/time.h"
#include "units.h"

namespace zr::platform {
namespace {

constinit std::atomic<UtcClock> other_clock = nullptr;

// The coarse clocks are late by at most a tick of the kernel, 10 ms.
constexpr std::uint64_t kTickUnits = 5 * kUnitsPerMillisecond;

std::uint64_t read_clock(clockid_t id) noexcept {
    timespec now{};
    clock_gettime(id, &now);
    return static_cast<std::uint64_t>((now.tv_sec + kEpochSeconds) * kUnitsPerSecond + now.tv_nsec / 100);
}

}  // namespace

std::uint64_t utc_now() noexcept {
    const UtcClock clock = other_clock.load(std::memory_order_acquire);
    return clock != nullptr ? clock() : read_clock(CLOCK_REALTIME);
}

CoarseTime coarse_now() noexcept {
    const UtcClock clock = other_clock.load(std::memory_order_acquire);
    const std::uint64_t real = read_clock(CLOCK_REALTIME_COARSE);
    return {clock != nullptr ? clock() : real, real / kTickUnits};
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

void GetLocalTime(SYSTEMTIME* time) {
    using namespace zr::platform;
    if (time == nullptr) return;
    const CurrentZone& zone = current_zone();
    const std::int64_t ahead = zone.error == 0 ? -zone.now.bias * 60 * kUnitsPerSecond : 0;
    const FILETIME now = file_time_of(utc_now() + static_cast<std::uint64_t>(ahead));
    FileTimeToSystemTime(&now, time);
}
