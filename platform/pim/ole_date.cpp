#include "ole_date.h"

#include <chrono>
#include <cmath>
#include <ctime>

namespace zr::platform::pim {
namespace {

constexpr std::chrono::sys_days kFirstDay = std::chrono::year(1899) / 12 / 30;

}  // namespace

Moment moment_of(DATE date) {
    // Before the first day the fraction still counts forwards.
    const double day = std::trunc(date);
    const auto second = static_cast<LONG>(std::lround(std::fabs(date - day) * kSecondsPerDay));
    return later({static_cast<LONG>(day), 0}, second);
}

DATE date_of(Moment moment) {
    const double time = static_cast<double>(moment.second) / kSecondsPerDay;
    return moment.day < 0 ? moment.day - time : moment.day + time;
}

Moment later(Moment moment, LONGLONG seconds) {
    const LONGLONG total = moment.second + seconds;
    LONGLONG days = total / kSecondsPerDay;
    if (total % kSecondsPerDay < 0) --days;
    return {static_cast<LONG>(moment.day + days), static_cast<LONG>(total - days * kSecondsPerDay)};
}

bool date_to_parts(DATE date, SYSTEMTIME& parts) {
    if (!is_date(date)) return false;
    const auto [day, second] = moment_of(date);
    const std::chrono::sys_days when = kFirstDay + std::chrono::days(day);
    const std::chrono::year_month_day civil(when);
    if (static_cast<int>(civil.year()) > 9999) return false;
    parts = {};
    parts.wYear = static_cast<WORD>(static_cast<int>(civil.year()));
    parts.wMonth = static_cast<WORD>(static_cast<unsigned>(civil.month()));
    parts.wDay = static_cast<WORD>(static_cast<unsigned>(civil.day()));
    parts.wDayOfWeek = static_cast<WORD>(std::chrono::weekday(when).c_encoding());
    parts.wHour = static_cast<WORD>(second / 3600);
    parts.wMinute = static_cast<WORD>(second / 60 % 60);
    parts.wSecond = static_cast<WORD>(second % 60);
    return true;
}

bool parts_to_date(const SYSTEMTIME& parts, DATE& date) {
    const std::chrono::year_month_day civil{std::chrono::year(parts.wYear), std::chrono::month(parts.wMonth),
                                            std::chrono::day(parts.wDay)};
    if (parts.wYear < 100 || parts.wYear > 9999 || !civil.ok()) return false;
    if (parts.wHour > 23 || parts.wMinute > 59 || parts.wSecond > 59) return false;
    date = date_of({static_cast<LONG>((std::chrono::sys_days(civil) - kFirstDay).count()),
                    parts.wHour * 3600 + parts.wMinute * 60 + parts.wSecond});
    return true;
}

DATE today() {
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    localtime_r(&now, &local);
    SYSTEMTIME parts = {};
    parts.wYear = static_cast<WORD>(local.tm_year + 1900);
    parts.wMonth = static_cast<WORD>(local.tm_mon + 1);
    parts.wDay = static_cast<WORD>(local.tm_mday);
    DATE date = 0;
    parts_to_date(parts, date);
    return date;
}

}  // namespace zr::platform::pim
