// The zones of WindowsUtilities: the device's own, and those that the server has numbers for. What writes to the log is
// in WindowsUtilities.cpp, which the records name.

#include <algorithm>
#include <cstring>
#include <iterator>

#include "ZrUtility/Helpers/WindowsUtilities.h"
#include "ZrUtility/Helpers/file_time_value.h"

namespace {

constexpr LONG DAYLIGHT_MINUTES = 60;
constexpr int MONTHS = 12;

// Their codes modulo 7 are what a weekday moves on by from January to the months; the first one is for no month.
constexpr const char* WEEKDAY_OF_MONTH = "-bed=pen+mad.";
constexpr BYTE DAYS_IN_MONTH[MONTHS + 1] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

bool IsMonth(int month) {
    return month >= 1 && month <= MONTHS;
}

// When a zone changes in a year. Times come in runs of the same year, so each thread keeps the last one.
struct YearTurns {
    bool AreFor(ULONGLONG time, const TIME_ZONE_INFORMATION& tzi) const {
        return time >= begin && time < end && std::memcmp(&standard, &tzi.StandardDate, sizeof standard) == 0 &&
               std::memcmp(&daylight, &tzi.DaylightDate, sizeof daylight) == 0;
    }

    ULONGLONG begin;  // of the year; none: the same as the end
    ULONGLONG end;
    SYSTEMTIME standard;  // the rules
    SYSTEMTIME daylight;
    FILETIME standardStart;
    FILETIME daylightStart;
};
constinit thread_local YearTurns lastTurns = {};

ULONGLONG BeginOfYear(int year) {
    SYSTEMTIME date{};
    FILETIME begin{};
    date.wYear = static_cast<WORD>(year);
    date.wMonth = date.wDay = 1;
    SystemTimeToFileTime(&date, &begin);
    return FileTimeValue(begin);
}

int YearOf(const FILETIME& time) {
    SYSTEMTIME parts{};
    FileTimeToSystemTime(&time, &parts);
    return parts.wYear;
}

}  // namespace

void WindowsUtilities::CorrectLocalFileTime(const FILETIME* in, FILETIME* out, int toLocal) {
    TIME_ZONE_INFORMATION tzi{};
    const DWORD now = GetTimeZoneInformation(&tzi);
    const bool isKnown = now == TIME_ZONE_ID_STANDARD || now == TIME_ZONE_ID_DAYLIGHT;
    if (!isKnown || now == GetTimeZoneIDFromLocalTime(in, tzi)) {
        *out = *in;
        return;
    }
    const ULONGLONG delta = MinutesAsUnits(tzi.DaylightBias);
    const bool add = (now == TIME_ZONE_ID_STANDARD) != (toLocal == 1);
    *out = FileTimeOf(add ? FileTimeValue(*in) + delta : FileTimeValue(*in) - delta);
}

DWORD WindowsUtilities::GetTimeZoneIDFromLocalTime(const FILETIME* local, const TIME_ZONE_INFORMATION& tzi) {
    YearTurns& turns = lastTurns;
    if (!turns.AreFor(FileTimeValue(*local), tzi)) {
        const int year = YearOf(*local);
        turns.begin = BeginOfYear(year);
        turns.end = BeginOfYear(year + 1);
        turns.standard = tzi.StandardDate;
        turns.daylight = tzi.DaylightDate;
        ConvertTZDayInfoToFileTime(tzi, year, &turns.standardStart, &turns.daylightStart);
    }
    return GetTimeZoneIDFromLocalTime(*local, turns.standardStart, turns.daylightStart);
}

DWORD WindowsUtilities::GetTimeZoneIDFromLocalTime(FILETIME time, FILETIME standardStart, FILETIME daylightStart) {
    const ULONGLONG t = FileTimeValue(time);
    const ULONGLONG s = FileTimeValue(standardStart);
    const ULONGLONG d = FileTimeValue(daylightStart);
    if (s == 0 || d == 0) return TIME_ZONE_ID_STANDARD;
    const bool isNorth = d < s;
    const bool isDaylight = isNorth ? d <= t && t < s : t < s || t >= d;
    return isDaylight ? TIME_ZONE_ID_DAYLIGHT : TIME_ZONE_ID_STANDARD;
}

void WindowsUtilities::ConvertTZDayInfoToFileTime(const TIME_ZONE_INFORMATION& tzi, int year, FILETIME* standardStart,
                                                  FILETIME* daylightStart) {
    *standardStart = {};
    *daylightStart = {};
    if (tzi.StandardDate.wMonth == 0 || tzi.DaylightDate.wMonth == 0) return;
    const auto convert = [year](const SYSTEMTIME& rule, FILETIME* start) {
        SYSTEMTIME date{};
        date.wYear = static_cast<WORD>(year);
        date.wMonth = rule.wMonth;
        date.wDay = GetPositionDate(year, rule.wMonth, rule.wDayOfWeek, rule.wDay);
        date.wHour = rule.wHour;
        date.wMinute = rule.wMinute;
        SystemTimeToFileTime(&date, start);
    };
    convert(tzi.StandardDate, standardStart);
    convert(tzi.DaylightDate, daylightStart);
}

LONG WindowsUtilities::GetCurrentTimeZoneBias(FILETIME& localTime) {
    const LONG bias = GetCurrentTimeZoneBias();
    TIME_ZONE_INFORMATION tzi{};
    const DWORD now = GetTimeZoneInformation(&tzi);
    const bool isKnown = now == TIME_ZONE_ID_STANDARD || now == TIME_ZONE_ID_DAYLIGHT;
    if (!isKnown || now == GetTimeZoneIDFromLocalTime(&localTime, tzi)) return bias;
    return now == TIME_ZONE_ID_STANDARD ? bias + tzi.DaylightBias : bias - tzi.DaylightBias;
}

WORD WindowsUtilities::GetPositionDate(int year, int month, int dayOfWeek, int week) {
    const int first = GetDayOfWeek(year, month, 1);
    const int count = GetWeekdaysInMonth(GetDaysInMonth(year, month), first, dayOfWeek);
    LONGLONG firstDay = LONGLONG{dayOfWeek} - first + 1;
    if (firstDay < 1) firstDay += 7;
    return static_cast<WORD>(firstDay + (LONGLONG{std::min(count, week)} - 1) * 7);
}

int WindowsUtilities::GetDayOfWeek(int year, int month, int day) {
    const LONGLONG y = month < 3 ? LONGLONG{year} - 1 : year;
    const int ofMonth = WEEKDAY_OF_MONTH[IsMonth(month) ? month : 0];
    return static_cast<int>((y + y / 4 - y / 100 + y / 400 + ofMonth + day) % 7);
}

BYTE WindowsUtilities::GetDaysInMonth(int year, int month) {
    const BYTE days = DAYS_IN_MONTH[IsMonth(month) ? month : 0];
    return static_cast<BYTE>(month == 2 && IsLeapYear(year) ? days + 1 : days);
}

bool WindowsUtilities::IsLeapYear(int year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

int WindowsUtilities::GetWeekdaysInMonth(int daysInMonth, int firstDayOfWeek, int dayOfWeek) {
    const LONGLONG offset = (LONGLONG{dayOfWeek} - firstDayOfWeek + 7) % 7;
    return offset < 3 && offset < daysInMonth % 7 ? 5 : 4;
}

void WindowsUtilities::ConvertTZInfo(SYSTEMTIME* st, _TZDayInfo* info) {
    *info = {};
    if (st->wMonth == 0) return;
    info->month = st->wMonth & 0xF;
    info->hour = st->wHour & 0xF;
    const bool isFixedDate = st->wYear != 0;
    info->week = isFixedDate ? 0 : st->wDay & 0x7;
    info->day = (isFixedDate ? st->wDay : st->wDayOfWeek) & 0x1F;
}

int WindowsUtilities::TZDayInfoToSystemTime(_TZDayInfo info, SYSTEMTIME& st) {
    st = {};
    st.wMonth = info.month;
    st.wHour = info.hour;
    if (info.week == 0) {
        st.wDay = info.day;
        return 1;
    }
    st.wDay = info.week;
    st.wDayOfWeek = info.day;
    return 0;
}

// A number that is not in the list gives a row of zeros.
_TZInfo WindowsUtilities::FindZone(int index) {
    const auto row = std::ranges::find_if(m_tzList, [index](const _TZInfo& each) { return each.index == index; });
    return row == std::end(m_tzList) ? _TZInfo{} : *row;
}

void WindowsUtilities::GetTimeZoneInfoFromTZIndex(int index, TIME_ZONE_INFORMATION& tzi) {
    const _TZInfo zone = FindZone(index);
    tzi.Bias = -zone.offset;
    tzi.StandardBias = 0;
    tzi.DaylightBias = -DAYLIGHT_MINUTES;
    TZDayInfoToSystemTime(zone.daylight, tzi.DaylightDate);
    TZDayInfoToSystemTime(zone.standard, tzi.StandardDate);
}

LONG WindowsUtilities::GetTimeZoneBias(int index, FILETIME localTime) {
    const _TZInfo zone = FindZone(index);
    const int year = YearOf(localTime);
    FILETIME standardStart{};
    FILETIME daylightStart{};
    if (zone.daylight.month != 0) {
        TIME_ZONE_INFORMATION tzi{};
        const int isDaylightFixed = TZDayInfoToSystemTime(zone.daylight, tzi.DaylightDate);
        const int isStandardFixed = TZDayInfoToSystemTime(zone.standard, tzi.StandardDate);
        if (!isDaylightFixed && !isStandardFixed) {
            ConvertTZDayInfoToFileTime(tzi, year, &standardStart, &daylightStart);
        } else {
            tzi.DaylightDate.wYear = tzi.StandardDate.wYear = static_cast<WORD>(year);
            SystemTimeToFileTime(&tzi.DaylightDate, &daylightStart);
            SystemTimeToFileTime(&tzi.StandardDate, &standardStart);
        }
    }
    const DWORD id = GetTimeZoneIDFromLocalTime(localTime, standardStart, daylightStart);
    return id == TIME_ZONE_ID_DAYLIGHT ? zone.offset + DAYLIGHT_MINUTES : zone.offset;
}

void WindowsUtilities::TzSpecificFileTimeToFileTime(int index, const FILETIME* local, FILETIME* utc) {
    *utc = FileTimeOf(FileTimeValue(*local) - MinutesAsUnits(GetTimeZoneBias(index, *local)));
}

void WindowsUtilities::TzSpecificVariantTimeToFileTime(int index, double& local, FILETIME* utc) {
    FILETIME time{};
    VariantTimeToFileTime(local, &time);
    TzSpecificFileTimeToFileTime(index, &time, utc);
}

void WindowsUtilities::CorrectRecurrenceFileTime(FILETIME* in, LONG minutes, FILETIME* out, int add) {
    const ULONGLONG delta = MinutesAsUnits(minutes);
    *out = FileTimeOf(add ? FileTimeValue(*in) + delta : FileTimeValue(*in) - delta);
}
