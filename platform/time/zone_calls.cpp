#include <algorithm>
#include <new>

#include "base/fail.h"
#include "base/utf.h"
#include "current_zone.h"
#include "platform/base.h"
#include "platform/time.h"
#include "units.h"
#include "zone_name.h"
#include "zone_source.h"

namespace zr::platform {
namespace {

// What no time (0) becomes west of UTC: less than a day before 2^64.
constexpr std::uint64_t kFirstBeforeNoTime = UINT64_MAX - kUnitsPerSecond * kSecondsPerDay;

// Adds the bias now, or takes it off. 0 or an error code. The sum is taken modulo 2^64.
DWORD shift(const FILETIME* time, int sign, FILETIME* shifted) {
    if (time == nullptr || shifted == nullptr) return ERROR_INVALID_PARAMETER;
    const CurrentZone& zone = current_zone();
    if (zone.error != 0) return zone.error;
    const auto bias = static_cast<std::uint64_t>(sign * zone.now.bias * 60 * kUnitsPerSecond);
    *shifted = file_time_of(units_of(*time) + bias);
    return 0;
}

constexpr FILETIME file_time_of_second(std::int64_t second) {
    return file_time_of(static_cast<std::uint64_t>((second + kEpochSeconds) * kUnitsPerSecond));
}

// Behind the last change that a file time can say there is none.
constexpr std::int64_t kLastSecond = static_cast<std::int64_t>(kLastUnits / kUnitsPerSecond) - kEpochSeconds;

void fill(const ZoneChange& change, ZR_ZONE_TRANSITION& transition) {
    transition.When = file_time_of_second(change.at);
    transition.BiasBefore = -change.before.offset;
    transition.Bias = -change.after.offset;
    copy_zone_name(change.before.name, transition.NameBefore);
    copy_zone_name(change.after.name, transition.Name);
}

}  // namespace
}  // namespace zr::platform

BOOL FileTimeToLocalFileTime(const FILETIME* file_time, FILETIME* local) {
    using namespace zr::platform;
    const bool late = file_time != nullptr && units_of(*file_time) > kLastUnits;
    const DWORD error = late ? ERROR_INVALID_PARAMETER : shift(file_time, -1, local);
    return error == 0 ? TRUE : fail(error, FALSE);
}

BOOL LocalFileTimeToFileTime(const FILETIME* local, FILETIME* file_time) {
    using namespace zr::platform;
    const bool late = local != nullptr && units_of(*local) > kLastUnits && units_of(*local) < kFirstBeforeNoTime;
    const DWORD error = late ? ERROR_INVALID_PARAMETER : shift(local, 1, file_time);
    return error == 0 ? TRUE : fail(error, FALSE);
}

DWORD GetTimeZoneInformation(TIME_ZONE_INFORMATION* information) {
    using namespace zr::platform;
    const CurrentZone& zone = current_zone();
    const DWORD error = information == nullptr ? ERROR_INVALID_PARAMETER : zone.error;
    if (error != 0) {
        SetLastError(error);
        return TIME_ZONE_ID_INVALID;
    }
    *information = zone.now.information;
    return zone.now.id;
}

BOOL ZrGetNextZoneTransition(const FILETIME* after, ZR_ZONE_TRANSITION* transition) {
    using namespace zr::platform;
    if (after == nullptr || transition == nullptr || units_of(*after) > kLastUnits)
        return fail(ERROR_INVALID_PARAMETER, FALSE);
    const auto second = static_cast<std::int64_t>(units_of(*after) / kUnitsPerSecond) - kEpochSeconds;
    bool found = false;
    try {
        const DWORD error = with_zone([&](const Zone& zone) {
            const std::optional<ZoneChange> change = zone.next(second);
            found = change && change->at <= kLastSecond;
            if (found) fill(*change, *transition);
        });
        if (error != 0) return fail(error, FALSE);
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
    }
    return found ? TRUE : fail(ERROR_NO_MORE_ITEMS, FALSE);
}

DWORD ZrGetZoneName(LPWSTR name, DWORD size) {
    using namespace zr::platform;
    std::u16string whole;
    try {
        whole = host_to_wide(ZoneSource::from_environment().name());
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    if (name != nullptr && size > 0) {
        const std::size_t length = std::min<std::size_t>(whole.size(), size - 1);
        std::copy_n(whole.begin(), length, name);
        name[length] = u'\0';
    }
    return static_cast<DWORD>(whole.size());
}
