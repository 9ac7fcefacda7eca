#pragma once

#include "ZrUtility/Export.h"
#include "platform/pim.h"
#include "platform/time.h"
#include "platform/types.h"

// When a zone changes to daylight time or back, packed into 16 bits from the lowest on; all bits 0: never.
struct _TZDayInfo {
    WORD month : 4;  // 1 to 12; 0: no change
    WORD week : 3;   // 1 to 4: the first to fourth such weekday of the month, 5: the last; 0: a fixed date
    WORD day : 5;    // the weekday from 0, Sunday; of a fixed date the day of the month
    WORD hour : 4;   // local, 0 to 15
};

// A zone as the server numbers them.
struct _TZInfo {
    WORD index;
    SHORT offset;  // minutes east of UTC in standard time
    _TZDayInfo standard;
    _TZDayInfo daylight;
};

// The number of a zone for those whose exact rules do not matter.
struct _TZMapElement {
    WORD index;
    LONG offset;    // minutes east of UTC
    LONG daylight;  // 1: there is daylight time, 0: there is none
};

// What MakeWindowsCompatible does, as bits.
enum WIN_COMPATIBLE : int {
    WIN_COMPATIBLE_NONE = 0,
    WIN_COMPATIBLE_AMPERSAND = 1,
};

// Conversions between the times that meet in the client: file times in UTC and local, OLE dates (DATE, days since 30
// December 1899), the server's 4-byte dates, dates of mail headers, and the server's numbers for time zones.
//
// "Local" is the device's local time. The platform's own conversions use the bias that is in force now; the ones here
// add or take off the zone's daylight bias where daylight time begins or ends between now and the converted time. They
// do so by the rule of the current year: docs/time.md lists where that differs from what clocks really showed.
//
// Nothing fails visibly. Where a platform conversion fails (a time that no calendar date stands for, a zone that is not
// there), an output keeps its value, unless stated. Where a file time is only the way from a DATE to something else, a
// DATE that is out of range counts as 1 January 1601 in UTC. Functions of the type int return 0 unless stated. Pointers
// are valid ones. Inputs and outputs may be the same. Any thread.
class ZRUTILITY_API WindowsUtilities {
public:
    static const ULONGLONG SECOND_TO_FILETIME_PRECISION;  // in 100-nanosecond units, as the following
    static const ULONGLONG ONE_MINUTE_UI64;
    static const ULONGLONG ONE_DAY_UI64;
    static const ULONGLONG ONE_WEEK_UI64;
    static const ULONGLONG THE_EPOCH_FILETIME_UI64;  // 1 January 1970
    static const DWORD MINUTES_IN_ONE_HOUR;
    static const double VARIANT_TIME_ONE_MINUTE;  // in days
    static double V_ONE_MINUTE;

    // ---- The server's dates: unsigned seconds since 1970 in UTC, 4 bytes, the highest first. `len` is not looked at.

    static void KelDateToFileTime(BYTE* date, int len, FILETIME* out);
    // Rounds down to seconds and keeps the low 32 bits of them.
    static void FileTimeToKelDate(FILETIME& time, BYTE* out, int len);
    static void KelDateToVariantTime(BYTE* date, int len, double* out);

    // ---- OLE dates

    // Without conversion between zones; to the second.
    static void FileTimeToVariantTime(FILETIME* time, double* out);
    static int VariantTimeToFileTime(double& date, FILETIME* out);
    static void FileTimeToLocalVariantTime(FILETIME* utc, double* out);
    static void LocalVariantTimeToFileTime(double& local, FILETIME* utc);
    static void LocalVariantTimeToVariantTime(double& local, double* utc);
    static void VariantTimeToLocalVariantTime(double& utc, double* local);
    // The time of day, as a span of file time. 0 for what is no number.
    static FILETIME GetTimeOfDayFromVariantTime(double& date);
    // A span of days as one of file time, cut to whole units. A negative span is the number that takes it off when it
    // is added; spans that do not fit become the nearest that does, what is no number becomes 0.
    static FILETIME GetFileTimeIntervalFromVariantTimeInterval(double& interval);

    // ---- Local file times

    static void WUFileTimeToLocalFileTime(const FILETIME* utc, FILETIME* local);
    static void WULocalFileTimeToFileTime(const FILETIME* local, FILETIME* utc);

    // ---- Dates of mail headers

    // "05 Mar 2009 07:08:09 GMT", with a terminator; *len is the length without it. `out` has room for 25 bytes. A time
    // that needs more (the year 10000) or has no date (2^63 and later) gives an empty text.
    static int FileTimeToRFC822Date(FILETIME* utc, BYTE* out, int* len);
    static int VariantTimeToRFC822Date(double& date, BYTE* out, int* len);

    // ---- File times as numbers

    static void Int64ToFileTime(FILETIME* out, ULONGLONG& value);
    static void FileTimeToInt64(ULONGLONG* out, FILETIME& time);
    static void GetCurrentFileTime(FILETIME* out);
    static void GetCurrentFileTimeAsInt64(ULONGLONG* out);
    // Modulo 2^64.
    static FILETIME FileTimeAdd(FILETIME& a, FILETIME& b);
    static FILETIME FileTimeSubtract(FILETIME& a, FILETIME& b);

    // ---- Comparisons

    // -1, 0 or 1: a is earlier, the same or later.
    static int FileTimeCompare(FILETIME& a, FILETIME& b);
    // 0 when both UTC times fall on the same local day, otherwise -1, whichever is the later; -1 also when one of them
    // falls on none.
    static int FileTimeCompareDate(FILETIME* a, FILETIME* b);
    // 0, -1 or 1 by the time of day alone.
    static int VariantTimeCompareTimeOfDay(double& a, double& b);
    // Whether less than `n` whole minutes lie between. A negative `n` stands for 2^64 units less so many minutes: two
    // times that have a date are never so far apart, others may be.
    static bool isDifferenceLessThanNMinutes(FILETIME& a, FILETIME& b, int n);
    static bool isDifferenceLessThanOneHalfDay(FILETIME& a, FILETIME& b);
    static bool isDifferenceLessThanOneDay(FILETIME& a, FILETIME& b);

    // ---- Time zones

    // The server's number for the device's zone. With `coarse` 1 by offset and whether there is daylight time, else by
    // the exact rules. 0 when there is none, which is also a zone's number; the log tells them apart.
    static WORD GetCurrentTZIndex(BYTE coarse);
    // Fills in everything but the names. The daylight bias is an hour, always. A number that no zone has gives a zone
    // at UTC without daylight time.
    static void GetTimeZoneInfoFromTZIndex(int index, TIME_ZONE_INFORMATION& tzi);
    // 1 for a fixed date, 0 for a weekday of a month.
    static int TZDayInfoToSystemTime(_TZDayInfo info, SYSTEMTIME& st);
    // Minutes east of UTC of a zone at its own local time; the shift of daylight time is an hour, always. 0 for a
    // number that no zone has.
    static LONG GetTimeZoneBias(int index, FILETIME localTime);
    static void TzSpecificFileTimeToFileTime(int index, const FILETIME* local, FILETIME* utc);
    static void TzSpecificVariantTimeToFileTime(int index, double& local, FILETIME* utc);
    // Moves a time by minutes: on when `add` is not 0, else back.
    static void CorrectRecurrenceFileTime(FILETIME* in, LONG minutes, FILETIME* out, int add);
    // Minutes that UTC is ahead of the device's local time: now, and at a local time. 0 and a record in the log when
    // there is no zone.
    static LONG GetCurrentTimeZoneBias();
    static LONG GetCurrentTimeZoneBias(FILETIME& localTime);
    // 1 for standard time, 2 for daylight time.
    static DWORD GetTimeZoneIDFromLocalTime(const FILETIME* local, const TIME_ZONE_INFORMATION& tzi);
    // The day of the month on which a weekday (from 0, Sunday) comes for the `week`-th time; the last time if the month
    // has not so many.
    static WORD GetPositionDate(int year, int month, int dayOfWeek, int week);

    // ---- Occurrences of appointments

    // The occurrence of the series `oid` at a UTC time: 102 and the occurrence, which the caller releases. Else *out is
    // NULL: 101 when `oid` is no appointment or its pattern cannot be read, 103 when there is no such item or no such
    // occurrence. Failures are logged.
    static int GetChildAppointmentFromParent(IPOutlookApp* app, LONG oid, FILETIME* instance, IAppointment** out);
    // The UTC time of the occurrence that an exception replaces.
    static FILETIME getRecurrenceId(IAppointment* parent, IException* exception);

    // ---- Others

    // Whether the screen is wider than high.
    static int IsSystemInLandscapeMode();
    // Copies a text with each '&' written twice, so that a menu shows it. No terminator is written: `dst` is filled
    // with zeros and has room for twice the length and one more. Nothing is written without WIN_COMPATIBLE_AMPERSAND.
    static void MakeWindowsCompatible(WCHAR* src, WCHAR* dst, WIN_COMPATIBLE flags);

private:
    WindowsUtilities() {}

    static void CorrectLocalFileTime(const FILETIME* in, FILETIME* out, int toLocal);
    static DWORD GetTimeZoneIDFromLocalTime(FILETIME time, FILETIME standardStart, FILETIME daylightStart);
    static void ConvertTZDayInfoToFileTime(const TIME_ZONE_INFORMATION& tzi, int year, FILETIME* standardStart,
                                           FILETIME* daylightStart);
    static void ConvertTZInfo(SYSTEMTIME* st, _TZDayInfo* info);
    static int GetDayOfWeek(int year, int month, int day);
    static BYTE GetDaysInMonth(int year, int month);
    static bool IsLeapYear(int year);
    static int GetWeekdaysInMonth(int daysInMonth, int firstDayOfWeek, int dayOfWeek);
    static _TZInfo FindZone(int index);

    static const _TZInfo m_tzList[75];
    static const _TZMapElement m_tzMap[58];
};
