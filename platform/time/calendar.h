#pragma once

// SYSTEMTIME and its parts.

#include <chrono>
#include <cstdint>

#include "platform/types.h"

namespace zr::platform {

// A date that is not ok() when the parts are none: chrono keeps only a byte of a month and of a day.
constexpr std::chrono::year_month_day date_of(const SYSTEMTIME& time) noexcept {
    const unsigned month = time.wMonth <= 12 ? time.wMonth : 0;
    const unsigned day = time.wDay <= 31 ? time.wDay : 0;
    return {std::chrono::year(time.wYear), std::chrono::month(month), std::chrono::day(day)};
}

constexpr bool is_time_of_day(const SYSTEMTIME& time) noexcept {
    return time.wHour <= 23 && time.wMinute <= 59 && time.wSecond <= 59;
}

constexpr std::int64_t seconds_of_day(const SYSTEMTIME& time) noexcept {
    return (time.wHour * 60 + time.wMinute) * 60 + time.wSecond;
}

// The day, of a year that a SYSTEMTIME holds, and a millisecond of it.
constexpr SYSTEMTIME calendar_time(std::chrono::sys_days day, std::uint32_t millisecond) noexcept {
    const std::chrono::year_month_day date(day);
    const std::uint32_t second = millisecond / 1000;
    SYSTEMTIME time{};
    time.wYear = static_cast<WORD>(static_cast<int>(date.year()));
    time.wMonth = static_cast<WORD>(static_cast<unsigned>(date.month()));
    time.wDayOfWeek = static_cast<WORD>(std::chrono::weekday(day).c_encoding());
    time.wDay = static_cast<WORD>(static_cast<unsigned>(date.day()));
    time.wHour = static_cast<WORD>(second / 3600);
    time.wMinute = static_cast<WORD>(second / 60 % 60);
    time.wSecond = static_cast<WORD>(second % 60);
    time.wMilliseconds = static_cast<WORD>(millisecond % 1000);
    return time;
}

}  // namespace zr::platform
