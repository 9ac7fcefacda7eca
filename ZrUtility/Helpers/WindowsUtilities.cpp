#include "ZrUtility/Helpers/WindowsUtilities.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>

#include "ZrLog/ZrLog.h"
#include "ZrUtility/Helpers/KeywordTable.h"
#include "ZrUtility/Helpers/file_time_value.h"
#include "platform/base.h"
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

constexpr const char* LOG_SOURCE = ".\\Helpers\\WindowsUtilities.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0x88, kZrLogFailure);
constexpr std::uint32_t LOG_INFORMATION = zrLogCategory(0x88, kZrLogInformation);

// No date stands for it.
constexpr FILETIME NO_CALENDAR_TIME = {0xFFFFFFFF, 0xFFFFFFFF};

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

enum Result : int {
    UNDECIDED = 0,
    NO_PATTERN = 101,
    FOUND = 102,
    FAILED_TO_FIND = 103,
};

struct Releaser {
    void operator()(IUnknown* object) const { object->Release(); }
};
template <typename T>
using Held = std::unique_ptr<T, Releaser>;

void LogFailure(int line, HRESULT result) {
    const DWORD error = GetLastError();
    zrKelDebugBinLog2(LOG_SOURCE, line, LOG_FAILURE, static_cast<ULONG>(result), error);
}

void LogFound(int line, LONG oid) {
    zrKelDebugBinLog1(LOG_SOURCE, line, LOG_INFORMATION, static_cast<ULONG>(oid));
}

Held<IRecurrencePattern> PatternOf(IDispatch* item) {
    void* appointment = nullptr;
    HRESULT result = item->QueryInterface(IID_IAppointment, &appointment);
    if (FAILED(result)) {
        LogFailure(__LINE__, result);
        return nullptr;
    }
    const Held<IAppointment> parent(static_cast<IAppointment*>(appointment));
    IRecurrencePattern* pattern = nullptr;
    result = parent->GetRecurrencePattern(&pattern);
    if (FAILED(result)) LogFailure(__LINE__, result);
    return Held<IRecurrencePattern>(FAILED(result) ? nullptr : pattern);
}

// What the exceptions say about the day: the appointment of the one that replaces its occurrence, a failure, or
// nothing. `deleted` counts those met on the way that only take an occurrence away.
Result LookAtExceptions(IExceptions* exceptions, double day, LONG& deleted, IAppointment** out) {
    INT count = 0;
    exceptions->get_Count(&count);
    for (INT i = 1; i <= count; ++i) {
        IException* each = nullptr;
        if (FAILED(exceptions->Item(i, &each))) continue;
        const Held<IException> exception(each);
        VARIANT_BOOL isDeleted = VARIANT_FALSE;
        DATE original = 0;
        exception->get_Deleted(&isDeleted);
        if (isDeleted != VARIANT_FALSE) {
            ++deleted;
            continue;
        }
        if (FAILED(exception->get_OriginalDate(&original)) || original != day) continue;
        const HRESULT result = exception->get_AppointmentItem(out);
        if (SUCCEEDED(result)) return FOUND;
        LogFailure(__LINE__, result);
        return FAILED_TO_FIND;
    }
    return UNDECIDED;
}

void LogZone(int line, WORD index, BYTE coarse) {
    zrKelDebugBinLog2(LOG_SOURCE, line, LOG_INFORMATION, index, coarse);
}

void LogZoneNotFound(int line, LONG bias, BYTE coarse) {
    zrKelDebugBinLog2(LOG_SOURCE, line, LOG_FAILURE, static_cast<ULONG>(bias), coarse);
}

void LogNoZone(int line) {
    const DWORD error = GetLastError();
    zrKelDebugBinLog1(LOG_SOURCE, line, LOG_FAILURE, error);
}

bool AreEqual(const _TZDayInfo& left, const _TZDayInfo& right) {
    return left.month == right.month && left.week == right.week && left.day == right.day && left.hour == right.hour;
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
    const auto day = [](FILETIME* utc, SYSTEMTIME* parts) {
        FILETIME local = NO_CALENDAR_TIME;
        WUFileTimeToLocalFileTime(utc, &local);
        return FileTimeToSystemTime(&local, parts);
    };
    SYSTEMTIME left{};
    SYSTEMTIME right{};
    if (!day(a, &left) || !day(b, &right)) return -1;
    return left.wYear == right.wYear && left.wMonth == right.wMonth && left.wDay == right.wDay ? 0 : -1;
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

LONG WindowsUtilities::GetCurrentTimeZoneBias() {
    TIME_ZONE_INFORMATION tzi{};
    switch (GetTimeZoneInformation(&tzi)) {
        case TIME_ZONE_ID_UNKNOWN:
            return tzi.Bias;
        case TIME_ZONE_ID_STANDARD:
            return tzi.Bias + tzi.StandardBias;
        case TIME_ZONE_ID_DAYLIGHT:
            return tzi.Bias + tzi.DaylightBias;
        default:
            LogNoZone(__LINE__);
            return 0;
    }
}

WORD WindowsUtilities::GetCurrentTZIndex(BYTE coarse) {
    TIME_ZONE_INFORMATION tzi{};
    if (GetTimeZoneInformation(&tzi) == TIME_ZONE_ID_INVALID) {
        LogNoZone(__LINE__);
        return 0;
    }
    if (coarse == 1) {
        const LONG hasDaylight = tzi.StandardDate.wMonth != 0;
        for (const _TZMapElement& row : m_tzMap) {
            if (row.offset != -tzi.Bias || row.daylight != hasDaylight) continue;
            LogZone(__LINE__, row.index, coarse);
            return row.index;
        }
    } else {
        _TZDayInfo toStandard{};
        _TZDayInfo toDaylight{};
        ConvertTZInfo(&tzi.StandardDate, &toStandard);
        ConvertTZInfo(&tzi.DaylightDate, &toDaylight);
        for (const _TZInfo& row : m_tzList) {
            if (row.offset != -tzi.Bias || !AreEqual(row.standard, toStandard) || !AreEqual(row.daylight, toDaylight))
                continue;
            LogZone(__LINE__, row.index, coarse);
            return row.index;
        }
    }
    LogZoneNotFound(__LINE__, tzi.Bias, coarse);
    return 0;
}

int WindowsUtilities::GetChildAppointmentFromParent(IPOutlookApp* app, LONG oid, FILETIME* instance,
                                                    IAppointment** out) {
    *out = nullptr;
    IDispatch* object = nullptr;
    HRESULT result = app->GetItemFromOid(oid, &object);
    if (FAILED(result)) {
        LogFailure(__LINE__, result);
        return FAILED_TO_FIND;
    }
    const Held<IDispatch> item(object);
    const Held<IRecurrencePattern> pattern = PatternOf(object);
    if (!pattern) return NO_PATTERN;
    double local = 0;
    FileTimeToLocalVariantTime(instance, &local);
    IExceptions* all = nullptr;
    result = pattern->get_Exceptions(&all);
    if (FAILED(result)) {
        LogFailure(__LINE__, result);
        return NO_PATTERN;
    }
    const Held<IExceptions> exceptions(all);
    LONG occurrences = 0;
    pattern->get_Occurrences(&occurrences);
    LONG deleted = 0;
    const Result found = LookAtExceptions(all, std::floor(local), deleted, out);
    if (found == FOUND) LogFound(__LINE__, oid);
    if (found != UNDECIDED) return found;
    if (deleted == occurrences) {
        LogFailure(__LINE__, S_FALSE);
        return FAILED_TO_FIND;
    }
    result = pattern->GetOccurrence(local, out);
    if (FAILED(result)) LogFailure(__LINE__, result);
    return FAILED(result) ? FAILED_TO_FIND : FOUND;
}

FILETIME WindowsUtilities::getRecurrenceId(IAppointment* parent, IException* exception) {
    DATE start = 0;
    DATE original = 0;
    parent->get_Start(&start);
    exception->get_OriginalDate(&original);
    double local = original + (start - std::floor(start));
    FILETIME utc{};
    LocalVariantTimeToFileTime(local, &utc);
    return utc;
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
