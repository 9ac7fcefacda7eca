#pragma once

// The clock, calendar dates, OLE dates and the device's time zone.
//
// Times. A FILETIME counts 100-nanosecond units since 1 January 1601; it is UTC unless a function says local. Calendar
// dates are those of the Gregorian calendar, carried on backwards. An OLE date (DATE) counts days since 30 December
// 1899 with the time of day as the fraction; before that day the fraction still counts forwards, so -1.25 is 06:00 on
// the 29th.
//
// The zone is the one that TZ names, or the system's: the file /etc/localtime, UTC where there is none. docs/time.md
// tells how a TIME_ZONE_INFORMATION is made of a zone's data. A change of TZ is noticed by the next call, a change of
// the file within 20 milliseconds. As in the C library, the environment must not be changed while another thread
// calls. When TZ or the file names no zone that can be read, the functions that need one fail.
//
// Functions that return a truth value fail with ERROR_INVALID_PARAMETER, for a null pointer too, unless they say more;
// a failure leaves the output as it was. Any thread.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

// --- the clock ------------------------------------------------------------------------------------------------------

// The time now, in UTC; nothing is done for NULL.
ZRPLATFORM_API void GetSystemTime(SYSTEMTIME* time);
ZRPLATFORM_API void GetSystemTimeAsFileTime(FILETIME* time);
// The time now by the device's zone; UTC when there is no zone.
ZRPLATFORM_API void GetLocalTime(SYSTEMTIME* time);

// --- file times -----------------------------------------------------------------------------------------------------

// The day of the week is not looked at. Fails for what is no date or time of day and for years before 1601 and after
// 30827; the second 60 is no second.
ZRPLATFORM_API BOOL SystemTimeToFileTime(const SYSTEMTIME* time, FILETIME* file_time);
// Rounds down to milliseconds. Fails for the times from 2^63 units on (14 September 30828).
ZRPLATFORM_API BOOL FileTimeToSystemTime(const FILETIME* file_time, SYSTEMTIME* time);
// -1, 0 or 1: earlier, equal or later, as unsigned numbers. The pointers are good ones.
ZRPLATFORM_API LONG CompareFileTime(const FILETIME* left, const FILETIME* right);

// These use the bias that is in force now, not the one at the time that is converted. The sum is taken modulo 2^64, so
// that 0 ("no time") becomes something west of UTC too, which the reverse makes 0 again. They fail for other times from
// 2^63 units on, which FileTimeToSystemTime takes for none either, and with GetTimeZoneInformation's error when there
// is no zone.
ZRPLATFORM_API BOOL FileTimeToLocalFileTime(const FILETIME* file_time, FILETIME* local);
ZRPLATFORM_API BOOL LocalFileTimeToFileTime(const FILETIME* local, FILETIME* file_time);

// --- OLE dates ------------------------------------------------------------------------------------------------------

// For the years 100 to 9999; 0 to 29 are 2000 to 2029, and 30 to 99 are 1930 to 1999. Milliseconds and the day of the
// week are not looked at. Days are set right within 0 to 31: 0 is the last day of the month before, and 30 February
// becomes 1 or 2 March. Hours, minutes and seconds that run over carry on, as signed numbers: hour 25 is 01:00 of the
// next day. A month that is none, and what ends outside of the years, fails. These set no last error, as they are
// COM's.
ZRPLATFORM_API INT SystemTimeToVariantTime(SYSTEMTIME* time, DATE* date);
// To the nearest second, halves up; milliseconds are 0. Fails outside of the years 100 to 9999 and for what is no
// number.
ZRPLATFORM_API INT VariantTimeToSystemTime(DATE date, SYSTEMTIME* time);

// --- the zone -------------------------------------------------------------------------------------------------------

inline constexpr DWORD TIME_ZONE_ID_UNKNOWN = 0;   // the zone has no daylight saving
inline constexpr DWORD TIME_ZONE_ID_STANDARD = 1;  // standard time is in force
inline constexpr DWORD TIME_ZONE_ID_DAYLIGHT = 2;  // daylight time is in force
inline constexpr DWORD TIME_ZONE_ID_INVALID = 0xFFFFFFFF;

// A zone: UTC = local time + Bias + StandardBias or DaylightBias, in minutes. The dates say when standard and daylight
// time begin: month, weekday and time of day by the clock that is shown until then, with wDay 1 to 4 for the first to
// fourth such weekday in the month and 5 for the last, and wYear 0. Without daylight saving both wMonth are 0.
struct TIME_ZONE_INFORMATION {
    LONG Bias;
    WCHAR StandardName[32];
    SYSTEMTIME StandardDate;
    LONG StandardBias;
    WCHAR DaylightName[32];
    SYSTEMTIME DaylightDate;
    LONG DaylightBias;
};
using PTIME_ZONE_INFORMATION = TIME_ZONE_INFORMATION*;
using LPTIME_ZONE_INFORMATION = TIME_ZONE_INFORMATION*;

// The zone's rule in the current year, and which of the two times is in force. Daylight time is always the one that is
// further ahead of UTC. The names are the short ones of the zone's data, such as CET and CEST. TIME_ZONE_ID_INVALID on
// failure: ERROR_FILE_NOT_FOUND (TZ names nothing that there is), ERROR_FILE_CORRUPT (what it names is no zone data),
// ERROR_ACCESS_DENIED and what else keeps a file from being read, ERROR_NOT_ENOUGH_MEMORY.
ZRPLATFORM_API DWORD GetTimeZoneInformation(TIME_ZONE_INFORMATION* information);

// This system's additions: what the zone's data say beyond one year's rule.

// A change of the zone's bias, or of the name of its time.
struct ZR_ZONE_TRANSITION {
    FILETIME When;  // the first instant of the new time
    LONG BiasBefore;
    LONG Bias;  // UTC = local time + Bias, in seconds
    WCHAR NameBefore[32];
    WCHAR Name[32];
};
// The first change of the zone after a time. Fails with ERROR_NO_MORE_ITEMS when there is none, and as
// GetTimeZoneInformation does.
ZRPLATFORM_API BOOL ZrGetNextZoneTransition(const FILETIME* after, ZR_ZONE_TRANSITION* transition);

// What the device's zone is called: TZ as it is, or the name that the system's file links to below a zoneinfo folder
// ("Europe/Berlin"), else that file's path; "UTC" when there is neither. Also for a zone that cannot be read. Cut to
// `size` characters with the terminator, when that is not 0. Returns the whole length without the terminator.
ZRPLATFORM_API DWORD ZrGetZoneName(LPWSTR name, DWORD size);
