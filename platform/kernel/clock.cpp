#include <time.h>

#include "kernel/waitable.h"
#include "platform/kernel.h"

namespace zr::platform {

std::int64_t Deadline::now() noexcept {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

Deadline Deadline::after(DWORD milliseconds) noexcept {
    if (milliseconds == 0) return at_once();
    if (milliseconds == INFINITE) return never();
    return {now() + std::int64_t{milliseconds} * 1'000'000};
}

}  // namespace zr::platform

DWORD GetTickCount() {
    return static_cast<DWORD>(zr::platform::Deadline::now() / 1'000'000);
}

BOOL QueryPerformanceCounter(LARGE_INTEGER* count) {
    if (!count) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    count->QuadPart = zr::platform::Deadline::now();
    return TRUE;
}

BOOL QueryPerformanceFrequency(LARGE_INTEGER* frequency) {
    if (!frequency) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    frequency->QuadPart = 1'000'000'000;
    return TRUE;
}
