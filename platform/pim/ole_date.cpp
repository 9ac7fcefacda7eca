#include "ole_date.h"

#include <cmath>
#include <tuple>

#include "platform/time.h"

namespace zr::platform::pim {

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
    return VariantTimeToSystemTime(date, &parts) != FALSE;
}

// The platform's conversion sets right what is no date or time of day; here it stays none.
bool parts_to_date(const SYSTEMTIME& parts, DATE& date) {
    SYSTEMTIME wanted = parts;
    SYSTEMTIME meant = {};
    DATE found = 0;
    if (!SystemTimeToVariantTime(&wanted, &found) || !VariantTimeToSystemTime(found, &meant)) return false;
    const auto fields = [](const SYSTEMTIME& time) {
        return std::tie(time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond);
    };
    if (fields(meant) != fields(parts)) return false;
    date = found;
    return true;
}

DATE today() {
    SYSTEMTIME now = {};
    GetLocalTime(&now);
    now.wHour = now.wMinute = now.wSecond = 0;
    DATE date = 0;
    SystemTimeToVariantTime(&now, &date);
    return date;
}

}  // namespace zr::platform::pim
