#include <chrono>
#include <cmath>

#include "calendar.h"
#include "platform/time.h"
#include "units.h"

namespace zr::platform {
namespace {

constexpr int kFirstOleYear = 100;
constexpr int kLastOleYear = 9999;
constexpr unsigned kLastDayNumber = 31;

// Two digits mean a year from 1930 to 2029.
constexpr int whole_year(int year) {
    return year >= 100 ? year : year < 30 ? year + 2000 : year + 1900;
}

// Hours, minutes and seconds that run over carry on into what is above them, backwards where they are negative.
constexpr std::int64_t signed_seconds(const SYSTEMTIME& time) {
    const auto part = [](WORD value) { return std::int64_t{static_cast<std::int16_t>(value)}; };
    return (part(time.wHour) * 60 + part(time.wMinute)) * 60 + part(time.wSecond);
}

}  // namespace
}  // namespace zr::platform

INT SystemTimeToVariantTime(SYSTEMTIME* time, DATE* date) {
    using namespace zr::platform;
    if (time == nullptr || date == nullptr) return FALSE;
    if (time->wYear > kLastOleYear || time->wMonth < 1 || time->wMonth > 12 || time->wDay > kLastDayNumber)
        return FALSE;
    // Day 0 and days behind the month's last one are days of the months beside it.
    const std::chrono::year year(whole_year(time->wYear));
    const std::chrono::sys_days first = year / std::chrono::month(time->wMonth) / 1;
    const std::chrono::sys_seconds second =
        first + std::chrono::days(time->wDay - 1) + std::chrono::seconds(signed_seconds(*time));
    const auto day = std::chrono::floor<std::chrono::days>(second);
    const auto reached = static_cast<int>(std::chrono::year_month_day(day).year());
    if (reached < kFirstOleYear || reached > kLastOleYear) return FALSE;
    const auto days = static_cast<double>((day - kOleDay).count());
    const double part = static_cast<double>((second - day).count()) / kSecondsPerDay;
    *date = days < 0 ? days - part : days + part;
    return TRUE;
}

INT VariantTimeToSystemTime(DATE date, SYSTEMTIME* time) {
    using namespace zr::platform;
    constexpr std::chrono::sys_days kFirst = std::chrono::year(kFirstOleYear) / 1 / 1;
    constexpr std::chrono::sys_days kEnd = std::chrono::year(kLastOleYear + 1) / 1 / 1;
    constexpr double kLeast = (kFirst - kOleDay).count() - 1.0;
    constexpr double kGreatest = (kEnd - kOleDay).count();
    // Written so that what is no number fails.
    if (time == nullptr || !(date > kLeast && date < kGreatest)) return FALSE;
    const double whole = std::trunc(date);
    auto second = static_cast<std::int64_t>(std::floor(std::fabs(date - whole) * kSecondsPerDay + 0.5));
    std::chrono::sys_days day = kOleDay + std::chrono::days(static_cast<int>(whole));
    if (second == kSecondsPerDay) {
        second = 0;
        day += std::chrono::days(1);
    }
    if (day >= kEnd) return FALSE;
    *time = calendar_time(day, static_cast<std::uint32_t>(second) * 1000);
    return TRUE;
}
