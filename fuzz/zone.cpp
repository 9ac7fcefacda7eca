// Any text as a rule, any bytes as a zone file: what is taken for a zone has a time at every moment, changes in order,
// and becomes a rule of two dates that is right now. The first byte chooses, the second the time that it is.

#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "platform/time.h"
#include "support/input.h"
#include "time/clock.h"
#include "time/zone.h"

namespace {

using zr::fuzz::require;
using zr::platform::Zone;

constexpr std::int64_t kEpochSeconds = 11'644'473'600;
constexpr std::int64_t kDay = 86'400;
constexpr std::int64_t kFarthest = 26 * 3600;

std::uint64_t now = 0;

void check_zone(const Zone& zone) {
    std::int64_t second = -10'000 * kDay;
    for (int i = 0; i < 300; ++i) {
        const auto change = zone.next(second);
        if (!change) break;
        require(change->at > second);
        require(change->before != change->after);
        require(zone.at(change->at) == change->after);
        require(change->after.offset >= -kFarthest && change->after.offset <= kFarthest);
        second = change->at;
    }
    static_cast<void>(zone.at(INT64_MIN));
    static_cast<void>(zone.at(INT64_MAX));
    static_cast<void>(zone.next(INT64_MIN));
    static_cast<void>(zone.next(INT64_MAX));
}

void check_date(const SYSTEMTIME& date) {
    require(date.wMonth >= 1 && date.wMonth <= 12 && date.wDay >= 1 && date.wDay <= 5 && date.wDayOfWeek <= 6);
    require(date.wHour <= 23 && date.wMinute <= 59 && date.wSecond <= 59 && date.wYear == 0);
}

// What the platform makes of the zone that TZ names.
void check_told(const std::string& tz, const Zone& zone) {
    setenv("TZ", tz.c_str(), 1);
    TIME_ZONE_INFORMATION told{};
    const DWORD id = GetTimeZoneInformation(&told);
    require(id <= TIME_ZONE_ID_DAYLIGHT);
    LONG bias = told.Bias;
    if (id == TIME_ZONE_ID_DAYLIGHT) bias += told.DaylightBias;
    const std::int64_t second = static_cast<std::int64_t>(now / 10'000'000) - kEpochSeconds;
    const std::int64_t off = zone.at(second).offset + std::int64_t{bias} * 60;
    require(off >= -30 && off <= 30);
    require((told.StandardDate.wMonth == 0) == (id == TIME_ZONE_ID_UNKNOWN));
    require((told.DaylightDate.wMonth == 0) == (id == TIME_ZONE_ID_UNKNOWN));
    if (id == TIME_ZONE_ID_UNKNOWN) return;
    require(told.DaylightBias <= 0);
    check_date(told.StandardDate);
    check_date(told.DaylightDate);
}

void check_rule(const std::string& text) {
    if (text.find('\0') != text.npos) return;
    const auto zone = Zone::of_rule(text);
    if (!zone) return;
    check_zone(*zone);
    // A file of that name would be the zone instead; no zone's name has a comma.
    if (text.find(',') != text.npos) check_told(text, *zone);
}

void check_file(const std::string& bytes) {
    const auto zone = Zone::of_file(bytes);
    if (!zone) return;
    check_zone(*zone);
    static const int file = memfd_create("zone", MFD_CLOEXEC);
    if (ftruncate(file, 0) != 0 || pwrite(file, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        return;
    // Two names in turn, so that it is read anew each time.
    static bool turn = false;
    turn = !turn;
    check_told((turn ? "/proc/self/fd/" : "/proc/self/fd/./") + std::to_string(file), *zone);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    // Some time of the years 1980 to 2049.
    now = static_cast<std::uint64_t>(kEpochSeconds + 3'653 * kDay + data[1] * 100 * kDay) * 10'000'000;
    zr::platform::use_clock([]() noexcept { return now; });
    const std::string bytes(reinterpret_cast<const char*>(data + 2), size - 2);
    if (data[0] % 2 == 0)
        check_rule(bytes);
    else
        check_file(bytes);
    return 0;
}
