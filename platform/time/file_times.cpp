#include <chrono>

#include "calendar.h"
#include "platform/base.h"
#include "platform/time.h"
#include "units.h"

namespace zr::platform {
namespace {

constexpr WORD kFirstYear = 1601;
constexpr WORD kLastYear = 30827;

BOOL refuse() {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
}

}  // namespace
}  // namespace zr::platform

BOOL SystemTimeToFileTime(const SYSTEMTIME* time, FILETIME* file_time) {
    using namespace zr::platform;
    if (time == nullptr || file_time == nullptr) return refuse();
    const std::chrono::year_month_day date = date_of(*time);
    if (time->wYear < kFirstYear || time->wYear > kLastYear || !date.ok()) return refuse();
    if (!is_time_of_day(*time) || time->wMilliseconds > 999) return refuse();
    const std::int64_t days = (std::chrono::sys_days(date) - kFileTimeDay).count();
    const std::int64_t milliseconds = (days * kSecondsPerDay + seconds_of_day(*time)) * 1000 + time->wMilliseconds;
    *file_time = file_time_of(static_cast<std::uint64_t>(milliseconds * kUnitsPerMillisecond));
    return TRUE;
}

BOOL FileTimeToSystemTime(const FILETIME* file_time, SYSTEMTIME* time) {
    using namespace zr::platform;
    if (file_time == nullptr || time == nullptr) return refuse();
    const std::uint64_t units = units_of(*file_time);
    if (units > kLastUnits) return refuse();
    const std::uint64_t milliseconds = units / kUnitsPerMillisecond;
    const auto day = static_cast<std::int32_t>(milliseconds / kMillisecondsPerDay);
    *time = calendar_time(kFileTimeDay + std::chrono::days(day),
                          static_cast<std::uint32_t>(milliseconds % kMillisecondsPerDay));
    return TRUE;
}

LONG CompareFileTime(const FILETIME* left, const FILETIME* right) {
    const std::uint64_t first = zr::platform::units_of(*left);
    const std::uint64_t second = zr::platform::units_of(*right);
    return static_cast<LONG>(first > second) - static_cast<LONG>(first < second);
}
