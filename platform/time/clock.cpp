#include "clock.h"

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
constexpr std::int64_t kTickNanoseconds = 5'000'000;

std::uint64_t read_clock(clockid_t id) noexcept {
    if (const UtcClock clock = other_clock.load(std::memory_order_acquire); clock != nullptr) return clock();
    timespec now{};
    clock_gettime(id, &now);
    return static_cast<std::uint64_t>((now.tv_sec + kEpochSeconds) * kUnitsPerSecond + now.tv_nsec / 100);
}

}  // namespace

std::uint64_t utc_now() noexcept {
    return read_clock(CLOCK_REALTIME);
}

std::uint64_t coarse_utc_now() noexcept {
    return read_clock(CLOCK_REALTIME_COARSE);
}

std::int64_t coarse_tick() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return (now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec) / kTickNanoseconds;
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
