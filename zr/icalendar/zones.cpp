#include "zr/icalendar/zones.h"

#include <unicode/ucal.h>

#include <algorithm>
#include <utility>

#include "zr/base/content_line.h"
#include "zr/icalendar/device_zone.h"
#include "zr/icalendar/libical.h"

namespace zr {
namespace {

using namespace std::chrono;

// Zones with more observances are none, and expanding their rules would take for ever.
constexpr int kMostObservances = 1000;

icaltimetype to_ical(Moment time) {
    const auto day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    icaltimetype out = icaltime_null_time();
    // Four hundred years on, the calendar is the same, and the zones' rules are expanded up to a year of their own.
    out.year = int(date.year());
    if (out.year >= 2400) out.year = 2000 + out.year % 400;
    out.month = static_cast<int>(unsigned(date.month()));
    out.day = static_cast<int>(unsigned(date.day()));
    out.hour = static_cast<int>(clock.hours().count());
    out.minute = static_cast<int>(clock.minutes().count());
    out.second = static_cast<int>(clock.seconds().count());
    return out;
}

template <typename Array>
bool is_given(const Array& by) {
    return by[0] != ICAL_RECURRENCE_ARRAY_MAX;
}

// A yearly rule that changes the clock some times a year at most.
bool is_zone_rule(const icalrecurrencetype& rule) {
    return rule.freq == ICAL_YEARLY_RECURRENCE && !is_given(rule.by_second) && !is_given(rule.by_minute) &&
           !is_given(rule.by_hour) && !is_given(rule.by_week_no) && !is_given(rule.by_year_day) &&
           (!is_given(rule.by_month) || rule.by_month[1] == ICAL_RECURRENCE_ARRAY_MAX) &&
           (is_given(rule.by_month) || !is_given(rule.by_day));
}

// Why the component is no zone; empty when it is one.
std::string fault_of(icalcomponent* component) {
    int observances = 0;
    for (icalcomponent* part = icalcomponent_get_first_component(component, ICAL_ANY_COMPONENT); part;
         part = icalcomponent_get_next_component(component, ICAL_ANY_COMPONENT)) {
        const icalcomponent_kind kind = icalcomponent_isa(part);
        if (kind != ICAL_XSTANDARD_COMPONENT && kind != ICAL_XDAYLIGHT_COMPONENT) continue;
        ++observances;
        if (!icalcomponent_get_first_property(part, ICAL_DTSTART_PROPERTY) ||
            !icalcomponent_get_first_property(part, ICAL_TZOFFSETTO_PROPERTY)) {
            return "an observance without DTSTART or TZOFFSETTO";
        }
        int rules = 0;
        for (icalproperty* rule = icalcomponent_get_first_property(part, ICAL_RRULE_PROPERTY); rule;
             rule = icalcomponent_get_next_property(part, ICAL_RRULE_PROPERTY)) {
            if (++rules > 1 || !is_zone_rule(icalproperty_get_rrule(rule))) return "an RRULE that is not yearly";
        }
    }
    if (observances == 0) return "neither STANDARD nor DAYLIGHT";
    return observances > kMostObservances ? "too many observances" : "";
}

// ICU's functions carry its version in their names.
#define ZR_NAME_OF(call) #call
#define ZR_NAME_IN_LIBRARY(call) ZR_NAME_OF(call)
decltype(&ucal_getTimeZoneIDForWindowsID) zone_of_windows() {
    static const auto found = [] {
        const LoadedLibrary library(ZR_ICU_LIBRARY, "finding the zones of Windows needs the package libicu");
        decltype(&ucal_getTimeZoneIDForWindowsID) call = nullptr;
        library.find(ZR_NAME_IN_LIBRARY(ucal_getTimeZoneIDForWindowsID), call);
        return call;
    }();
    return found;
}

// The system's name of a zone that Windows calls so; empty when it calls none so.
std::string name_of_windows_zone(const std::string& id) {
    constexpr std::size_t kLongest = 128;
    if (id.size() > kLongest || !std::all_of(id.begin(), id.end(), [](unsigned char c) { return c < 0x80; })) return {};
    const std::u16string wanted(id.begin(), id.end());
    char16_t name[kLongest] = {};
    UErrorCode error = U_ZERO_ERROR;
    const int32_t length =
        zone_of_windows()(wanted.data(), static_cast<int32_t>(wanted.size()), nullptr, name, kLongest, &error);
    if (U_FAILURE(error) || length <= 0 || static_cast<std::size_t>(length) > kLongest) return {};
    return {name, name + length};
}

bool find_in_system(const std::string& id, Zone& zone) {
    icaltimezone* rules = icaltimezone_get_builtin_timezone(id.c_str());
    if (!rules) rules = icaltimezone_get_builtin_timezone_from_tzid(id.c_str());
    if (rules) zone = {Zone::Kind::Other, rules};
    return rules != nullptr;
}

}  // namespace

void CalendarZones::Free::operator()(_icaltimezone* zone) const {
    icaltimezone_free(zone, 1);
}

CalendarZones::CalendarZones() : device_id_(device_zone_id()) {
    start_libical();
}
CalendarZones::~CalendarZones() = default;

void CalendarZones::add(const RawComponent& raw, std::vector<Problem>& problems) {
    std::string id;
    std::string text = "BEGIN:VTIMEZONE\r\n";
    for (const RawComponent::Line& line : raw.lines) {
        ContentLine content;
        std::string why;
        if (!split_content_line(line.text, content, why)) {
            problems.push_back({line.number, "VTIMEZONE: " + why});
            continue;
        }
        if (id.empty() && content.is("TZID")) id = unescaped_text(content.value);
        append_folded(text, line.text);
    }
    text += "END:VTIMEZONE\r\n";
    if (id.empty()) {
        problems.push_back({raw.number, "VTIMEZONE: no TZID"});
        return;
    }
    icalcomponent* component = icalparser_parse_string(text.c_str());
    const std::string fault = component ? fault_of(component) : "not readable";
    std::unique_ptr<_icaltimezone, Free> zone;
    if (fault.empty()) {
        zone.reset(icaltimezone_new());
        // On success the component is the zone's.
        if (!icaltimezone_set_component(zone.get(), component)) zone.reset();
    }
    if (zone) {
        zones_[id] = std::move(zone);
        return;
    }
    if (component) icalcomponent_free(component);
    problems.push_back({raw.number, "VTIMEZONE " + id + ": " + (fault.empty() ? "not readable" : fault)});
}

void CalendarZones::clear() {
    zones_.clear();
}

bool CalendarZones::has(const std::string& id) const {
    return id == device_id_ || zones_.contains(id);
}

bool CalendarZones::find(const std::string& id, Zone& zone) {
    zone = {};
    if (is_clock_of_device_or_utc(id, zone)) return true;
    if (const auto own = zones_.find(id); own != zones_.end()) {
        zone = {Zone::Kind::Other, own->second.get()};
        return true;
    }
    if (find_in_system(id, zone)) return true;
    const std::string name = name_of_windows_zone(id);
    return !name.empty() && (is_clock_of_device_or_utc(name, zone) || find_in_system(name, zone));
}

bool CalendarZones::is_clock_of_device_or_utc(const std::string& id, Zone& zone) const {
    if (id == device_id_) return true;
    if (id != "UTC" && id != "Etc/UTC" && id != "GMT") return false;
    zone.kind = Zone::Kind::Utc;
    return true;
}

sys_seconds utc_of(Moment wall, Zone zone) {
    if (zone.kind == Zone::Kind::Floating) return device_utc(wall);
    const sys_seconds same(wall.time_since_epoch());
    if (zone.kind == Zone::Kind::Utc) return same;
    icaltimetype time = to_ical(wall);
    int daylight = 0;
    return same - seconds(icaltimezone_get_utc_offset(zone.rules, &time, &daylight));
}

Moment wall_of(sys_seconds utc, Zone zone) {
    if (zone.kind == Zone::Kind::Floating) return device_time(utc);
    const Moment same(utc.time_since_epoch());
    if (zone.kind == Zone::Kind::Utc) return same;
    icaltimetype time = to_ical(same);
    int daylight = 0;
    return same + seconds(icaltimezone_get_utc_offset_of_utc_time(zone.rules, &time, &daylight));
}

Moment device_time(const ZonedTime& time) {
    if (time.is_day || time.zone.kind == Zone::Kind::Floating) return time.wall;
    return device_time(utc_of(time.wall, time.zone));
}

bool parse_time(const std::string& value, ZonedTime& time) {
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    const bool day = value.size() == 8 && std::all_of(value.begin(), value.end(), is_digit);
    const bool utc = value.size() == 16 && value[15] == 'Z';
    const bool clock = (value.size() == 15 || utc) && value[8] == 'T' &&
                       std::all_of(value.begin(), value.begin() + 8, is_digit) &&
                       std::all_of(value.begin() + 9, value.begin() + 15, is_digit);
    if (!day && !clock) return false;
    start_libical();
    const icaltimetype parts = icaltime_from_string(value.c_str());
    const year_month_day date(year(parts.year), month(static_cast<unsigned>(parts.month)),
                              std::chrono::day(static_cast<unsigned>(parts.day)));
    // The 60th second is a leap second, which no clock of ours shows.
    if (!date.ok() || parts.hour > 23 || parts.minute > 59 || parts.second > 60) return false;
    time.wall = local_days(date) + hours(parts.hour) + minutes(parts.minute) + seconds(std::min(parts.second, 59));
    time.is_day = day;
    if (utc) time.zone = {Zone::Kind::Utc};
    return is_storable(time.wall);
}

}  // namespace zr
