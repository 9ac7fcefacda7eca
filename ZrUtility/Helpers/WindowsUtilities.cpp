#include "ZrUtility/Helpers/WindowsUtilities.h"

#include <cmath>
#include <cstring>
#include <limits>

#include "ZrUtility/Helpers/KeywordTable.h"
#include "ZrUtility/Helpers/file_time_value.h"
#include "platform/screen.h"

constinit const ULONGLONG WindowsUtilities::SECOND_TO_FILETIME_PRECISION = 10'000'000;
constinit const ULONGLONG WindowsUtilities::ONE_MINUTE_UI64 = 600'000'000;
constinit const ULONGLONG WindowsUtilities::ONE_DAY_UI64 = 864'000'000'000;
constinit const ULONGLONG WindowsUtilities::ONE_WEEK_UI64 = 6'048'000'000'000;
constinit const ULONGLONG WindowsUtilities::THE_EPOCH_FILETIME_UI64 = 116'444'736'000'000'000;
constinit const DWORD WindowsUtilities::MINUTES_IN_ONE_HOUR = 60;
constinit const double WindowsUtilities::VARIANT_TIME_ONE_MINUTE = 1.0 / 1440;
constinit double WindowsUtilities::V_ONE_MINUTE = 1.0 / 1440;

namespace {

constexpr int MINUTES_IN_HALF_A_DAY = 720;
constexpr int MINUTES_IN_A_DAY = 1440;

// A month is this far behind its number in the keyword table.
constexpr unsigned SHORT_MONTHS = 86;
constexpr WORD LAST_YEAR_OF_MAIL = 9999;

constexpr double TWO_TO_63 = 9223372036854775808.0;
constexpr double TWO_TO_64 = 18446744073709551616.0;

double TimeOfDay(double date) {
    return date - std::floor(date);
}

ULONGLONG UnitsOfDays(double days) {
    const double units = days * static_cast<double>(WindowsUtilities::ONE_DAY_UI64);
    if (std::isnan(units)) return 0;
    if (units >= TWO_TO_64) return std::numeric_limits<ULONGLONG>::max();
    if (units >= 0) return static_cast<ULONGLONG>(units);
    if (units < -TWO_TO_63) return static_cast<ULONGLONG>(std::numeric_limits<LONGLONG>::min());
    return static_cast<ULONGLONG>(static_cast<LONGLONG>(units));
}

BYTE* WriteNumber(BYTE* out, unsigned number, int digits) {
    for (int i = digits - 1; i >= 0; --i, number /= 10)
        out[i] = static_cast<BYTE>('0' + number % 10);
    return out + digits;
}

BYTE* WriteText(BYTE* out, const char* text) {
    const std::size_t length = std::strlen(text);
    std::memcpy(out, text, length);
    return out + length;
}

}  // namespace

void WindowsUtilities::KelDateToFileTime(BYTE* date, int, FILETIME* out) {
    const ULONGLONG seconds = ULONGLONG{date[0]} << 24 | ULONGLONG{date[1]} << 16 | ULONGLONG{date[2]} << 8 | date[3];
    *out = FileTimeOf(seconds * SECOND_TO_FILETIME_PRECISION + THE_EPOCH_FILETIME_UI64);
}

void WindowsUtilities::FileTimeToKelDate(FILETIME& time, BYTE* out, int) {
    const ULONGLONG seconds = (FileTimeValue(time) - THE_EPOCH_FILETIME_UI64) / SECOND_TO_FILETIME_PRECISION;
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<BYTE>(seconds >> (24 - 8 * i));
}

void WindowsUtilities::KelDateToVariantTime(BYTE* date, int len, double* out) {
    FILETIME time{};
    KelDateToFileTime(date, len, &time);
    FileTimeToVariantTime(&time, out);
}

void WindowsUtilities::FileTimeToVariantTime(FILETIME* time, double* out) {
    SYSTEMTIME parts{};
    if (FileTimeToSystemTime(time, &parts)) SystemTimeToVariantTime(&parts, out);
}

int WindowsUtilities::VariantTimeToFileTime(double& date, FILETIME* out) {
    SYSTEMTIME parts{};
    if (VariantTimeToSystemTime(date, &parts)) SystemTimeToFileTime(&parts, out);
    return 0;
}

void WindowsUtilities::FileTimeToLocalVariantTime(FILETIME* utc, double* out) {
    FILETIME local{};
    if (!FileTimeToLocalFileTime(utc, &local)) return;
    CorrectLocalFileTime(&local, &local, 1);
    FileTimeToVariantTime(&local, out);
}

void WindowsUtilities::LocalVariantTimeToFileTime(double& local, FILETIME* utc) {
    FILETIME time{};
    VariantTimeToFileTime(local, &time);
    WULocalFileTimeToFileTime(&time, utc);
}

void WindowsUtilities::LocalVariantTimeToVariantTime(double& local, double* utc) {
    FILETIME time{};
    VariantTimeToFileTime(local, &time);
    CorrectLocalFileTime(&time, &time, 0);
    if (LocalFileTimeToFileTime(&time, &time)) FileTimeToVariantTime(&time, utc);
}

void WindowsUtilities::VariantTimeToLocalVariantTime(double& utc, double* local) {
    FILETIME time{};
    VariantTimeToFileTime(utc, &time);
    FileTimeToLocalVariantTime(&time, local);
}

FILETIME WindowsUtilities::GetTimeOfDayFromVariantTime(double& date) {
    return FileTimeOf(UnitsOfDays(TimeOfDay(date)));
}

FILETIME WindowsUtilities::GetFileTimeIntervalFromVariantTimeInterval(double& interval) {
    return FileTimeOf(UnitsOfDays(interval));
}

void WindowsUtilities::WUFileTimeToLocalFileTime(const FILETIME* utc, FILETIME* local) {
    if (FileTimeToLocalFileTime(utc, local)) CorrectLocalFileTime(local, local, 1);
}

void WindowsUtilities::WULocalFileTimeToFileTime(const FILETIME* local, FILETIME* utc) {
    FILETIME time{};
    CorrectLocalFileTime(local, &time, 0);
    LocalFileTimeToFileTime(&time, utc);
}

int WindowsUtilities::FileTimeToRFC822Date(FILETIME* utc, BYTE* out, int* len) {
    SYSTEMTIME parts{};
    BYTE* end = out;
    if (FileTimeToSystemTime(utc, &parts) && parts.wYear <= LAST_YEAR_OF_MAIL) {
        end = WriteNumber(end, parts.wDay, 2);
        end = WriteText(end, " ");
        end = WriteText(end, GetKeyword(SHORT_MONTHS + parts.wMonth));
        end = WriteText(end, " ");
        end = WriteNumber(end, parts.wYear, 4);
        end = WriteText(end, " ");
        end = WriteNumber(end, parts.wHour, 2);
        end = WriteText(end, ":");
        end = WriteNumber(end, parts.wMinute, 2);
        end = WriteText(end, ":");
        end = WriteNumber(end, parts.wSecond, 2);
        end = WriteText(end, " GMT");
    }
    *end = 0;
    *len = static_cast<int>(end - out);
    return 0;
}

int WindowsUtilities::VariantTimeToRFC822Date(double& date, BYTE* out, int* len) {
    FILETIME time{};
    VariantTimeToFileTime(date, &time);
    return FileTimeToRFC822Date(&time, out, len);
}

void WindowsUtilities::Int64ToFileTime(FILETIME* out, ULONGLONG& value) {
    *out = FileTimeOf(value);
}

void WindowsUtilities::FileTimeToInt64(ULONGLONG* out, FILETIME& time) {
    *out = FileTimeValue(time);
}

void WindowsUtilities::GetCurrentFileTime(FILETIME* out) {
    SYSTEMTIME now{};
    GetSystemTime(&now);
    SystemTimeToFileTime(&now, out);
}

void WindowsUtilities::GetCurrentFileTimeAsInt64(ULONGLONG* out) {
    FILETIME now{};
    GetCurrentFileTime(&now);
    *out = FileTimeValue(now);
}

FILETIME WindowsUtilities::FileTimeAdd(FILETIME& a, FILETIME& b) {
    return FileTimeOf(FileTimeValue(a) + FileTimeValue(b));
}

FILETIME WindowsUtilities::FileTimeSubtract(FILETIME& a, FILETIME& b) {
    return FileTimeOf(FileTimeValue(a) - FileTimeValue(b));
}

int WindowsUtilities::FileTimeCompare(FILETIME& a, FILETIME& b) {
    const ULONGLONG left = FileTimeValue(a);
    const ULONGLONG right = FileTimeValue(b);
    return static_cast<int>(left > right) - static_cast<int>(left < right);
}

int WindowsUtilities::FileTimeCompareDate(FILETIME* a, FILETIME* b) {
    FILETIME local[2] = {};
    SYSTEMTIME parts[2] = {};
    WUFileTimeToLocalFileTime(a, &local[0]);
    WUFileTimeToLocalFileTime(b, &local[1]);
    FileTimeToSystemTime(&local[0], &parts[0]);
    FileTimeToSystemTime(&local[1], &parts[1]);
    const bool same =
        parts[0].wYear == parts[1].wYear && parts[0].wMonth == parts[1].wMonth && parts[0].wDay == parts[1].wDay;
    return same ? 0 : -1;
}

int WindowsUtilities::VariantTimeCompareTimeOfDay(double& a, double& b) {
    const double left = TimeOfDay(a);
    const double right = TimeOfDay(b);
    if (left == right) return 0;
    return left < right ? -1 : 1;
}

bool WindowsUtilities::isDifferenceLessThanNMinutes(FILETIME& a, FILETIME& b, int n) {
    const ULONGLONG left = FileTimeValue(a);
    const ULONGLONG right = FileTimeValue(b);
    return (left > right ? left - right : right - left) < MinutesAsUnits(n);
}

bool WindowsUtilities::isDifferenceLessThanOneHalfDay(FILETIME& a, FILETIME& b) {
    return isDifferenceLessThanNMinutes(a, b, MINUTES_IN_HALF_A_DAY);
}

bool WindowsUtilities::isDifferenceLessThanOneDay(FILETIME& a, FILETIME& b) {
    return isDifferenceLessThanNMinutes(a, b, MINUTES_IN_A_DAY);
}

int WindowsUtilities::IsSystemInLandscapeMode() {
    return GetSystemMetrics(SM_CXSCREEN) > GetSystemMetrics(SM_CYSCREEN);
}

void WindowsUtilities::MakeWindowsCompatible(WCHAR* src, WCHAR* dst, WIN_COMPATIBLE flags) {
    if ((flags & WIN_COMPATIBLE_AMPERSAND) == 0 || src == nullptr) return;
    for (; *src != 0; ++src) {
        *dst++ = *src;
        if (*src == u'&') *dst++ = u'&';
    }
}
