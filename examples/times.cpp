// Times: from the server's date to a mail header, to a local calendar date and back, and the device's zone.
//
//   TZ=Europe/Berlin times
//
// A FILETIME is UTC; local times are made of it for people only, and with the library's conversions, which know that a
// day in July is in daylight time although it is January now.

#include <ZrUtility/ZrUtility.h>
#include <platform/platform.h>

#include <cstdio>

namespace {

void print(const char* what, const SYSTEMTIME& time) {
    std::printf("%-10s %04u-%02u-%02u %02u:%02u\n", what, time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute);
}

void print(const char* what, const FILETIME& time) {
    SYSTEMTIME parts;
    if (FileTimeToSystemTime(&time, &parts)) print(what, parts);
}

int show_zone() {
    TIME_ZONE_INFORMATION zone;
    if (GetTimeZoneInformation(&zone) == TIME_ZONE_ID_INVALID) {
        std::fprintf(stderr, "there is no time zone: error %u\n", GetLastError());
        return 1;
    }
    std::printf("zone       %d minutes from UTC to local, the server's number for it is %u\n", -zone.Bias,
                WindowsUtilities::GetCurrentTZIndex(0));
    return 0;
}

}  // namespace

int main() {
    // A message's date as the server sends it: seconds since 1970, the highest byte first.
    BYTE date[4] = {0x4A, 0x5E, 0x02, 0x00};
    FILETIME sent;
    WindowsUtilities::KelDateToFileTime(date, sizeof date, &sent);
    print("sent", sent);

    BYTE header[25];
    int length = 0;
    WindowsUtilities::FileTimeToRFC822Date(&sent, header, &length);
    std::printf("%-10s %s\n", "header", reinterpret_cast<const char*>(header));

    FILETIME local;
    WindowsUtilities::WUFileTimeToLocalFileTime(&sent, &local);
    print("local", local);
    FILETIME back;
    WindowsUtilities::WULocalFileTimeToFileTime(&local, &back);
    std::printf("%-10s %s\n", "and back", WindowsUtilities::FileTimeCompare(sent, back) == 0 ? "the same" : "another");

    // Arithmetic is done on the value type.
    ZrFileTime later(sent);
    later += ZrFileTime(WindowsUtilities::ONE_WEEK_UI64);
    print("next week", later.InPrecision());
    return show_zone();
}
