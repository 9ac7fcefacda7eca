#include "zr/commands/require_zone.h"

#include <cstdlib>

#include "zr/base/failure.h"
#include "zr/base/text.h"

namespace zr {
namespace {

Failure no_zone(const std::string& name, DWORD error) {
    const std::string subject = std::getenv("TZ") != nullptr ? "TZ=" + name : "the system's zone, " + name;
    switch (error) {
        case ERROR_FILE_NOT_FOUND:
            return {Exit::NoZone, subject + ": there is no such zone"};
        case ERROR_FILE_CORRUPT:
            return {Exit::NoZone, subject + ": this is no zone data"};
        case ERROR_ACCESS_DENIED:
            return {Exit::NoZone, subject + ": the zone data may not be read"};
        default:
            return {Exit::NoZone, subject + ": the zone data cannot be read: error " + std::to_string(error)};
    }
}

}  // namespace

std::string zone_name() {
    std::u16string name(ZrGetZoneName(nullptr, 0) + 1, u'\0');
    ZrGetZoneName(name.data(), static_cast<DWORD>(name.size()));
    name.resize(std::char_traits<char16_t>::length(name.c_str()));
    return to_utf8(name);
}

DWORD require_zone(TIME_ZONE_INFORMATION& information) {
    const DWORD id = GetTimeZoneInformation(&information);
    if (id == TIME_ZONE_ID_INVALID) throw no_zone(zone_name(), GetLastError());
    return id;
}

void require_zone() {
    TIME_ZONE_INFORMATION information{};
    require_zone(information);
}

}  // namespace zr
