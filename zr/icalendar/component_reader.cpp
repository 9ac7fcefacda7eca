#include "zr/icalendar/component_reader.h"

#include <algorithm>
#include <charconv>

#include "zr/base/text.h"
#include "zr/icalendar/libical.h"

namespace zr {
namespace {

using namespace std::chrono;

int as_number(std::string_view text) {
    int number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

bool opens(std::string_view line) {
    return !component_named("BEGIN", line).empty();
}
bool closes(std::string_view line) {
    return !component_named("END", line).empty();
}

// The parts of a list, split at commas that are not escaped.
std::vector<std::string_view> list_of(std::string_view value) {
    std::vector<std::string_view> parts;
    std::size_t begin = 0;
    for (std::size_t i = 0; i <= value.size(); ++i) {
        if (i < value.size() && value[i] == '\\') {
            ++i;
        } else if (i == value.size() || value[i] == ',') {
            parts.push_back(value.substr(begin, i - begin));
            begin = i + 1;
        }
    }
    return parts;
}

}  // namespace

void ComponentReader::walk() {
    // The identifier first, so that what is told of the others names it.
    for (const RawComponent::Line& line : raw_.lines) {
        ContentLine content;
        std::string why;
        if (opens(line.text)) break;
        if (split_content_line(line.text, content, why) && content.is("UID")) {
            uid_ = unescaped_text(trimmed(content.value));
            break;
        }
    }
    for (std::size_t at = 0; at < raw_.lines.size(); ++at) {
        const RawComponent::Line& line = raw_.lines[at];
        if (opens(line.text)) {
            take_component(at);
            continue;
        }
        Property property = {{}, line.text, line.number};
        std::string why;
        const bool is_property = split_content_line(line.text, property.content, why);
        if (!is_property || property.content.is("BEGIN") || property.content.is("END")) {
            tell(line.number, {}, is_property ? "a BEGIN or END of nothing" : why, true);
            continue;
        }
        if (property.content.is("UID") && unescaped_text(trimmed(property.content.value)) == uid_) continue;
        // An empty value says nothing, but for names of other programs, who knows.
        if (property.content.value.empty() && !property.content.name.starts_with("X-")) continue;
        if (!take(property)) keep(line.text);
    }
}

// `at` is the BEGIN of a component and becomes its END. The splitter saw to it that they match.
void ComponentReader::take_component(std::size_t& at) {
    const std::size_t begin = at;
    int depth = 0;
    for (; at < raw_.lines.size(); ++at) {
        if (opens(raw_.lines[at].text)) ++depth;
        if (closes(raw_.lines[at].text) && --depth == 0) break;
    }
    const Part part = {begin, at};
    if (component_named("BEGIN", raw_.lines[begin].text) == "VALARM") {
        alarms_.push_back(part);
    } else {
        keep_part(part);
    }
}

void ComponentReader::keep_part(const Part& part) {
    for (std::size_t i = part.begin; i <= part.end && i < raw_.lines.size(); ++i) {
        kept_components_ += raw_.lines[i].text + '\n';
    }
}

void ComponentReader::keep(std::string_view line) {
    kept_properties_ += line;
    kept_properties_ += '\n';
}

void ComponentReader::go_back(const Mark& mark) {
    kept_properties_.resize(mark.kept);
    problems_.resize(mark.told);
}

void ComponentReader::tell(long line, std::string_view what, const std::string& why, bool is_lost) {
    std::string reason = raw_.name;
    if (!uid_.empty()) reason += " " + uid_;
    if (!what.empty()) reason += ": " + upper(what);
    problems_.push_back({line, reason + ": " + why, is_lost});
}

bool ComponentReader::take_first(const Property& property, std::string_view name, std::optional<Property>& field) {
    if (!property.content.is(name)) return false;
    if (field) {
        lost(property, "given twice");
    } else {
        field = property;
    }
    return true;
}

bool ComponentReader::take_text(const Property& property, std::string_view name, std::string& field) {
    if (!property.content.is(name)) return false;
    // A second one, in another language perhaps, is kept.
    if (std::find(seen_.begin(), seen_.end(), name) != seen_.end()) return false;
    seen_.emplace_back(name);
    field = unescaped_text(property.content.value);
    return true;
}

bool ComponentReader::take_categories(const Property& property, std::string& field) {
    if (!property.content.is("CATEGORIES")) return false;
    for (const std::string_view category : list_of(property.content.value)) {
        if (has_categories_) field += ", ";
        has_categories_ = true;
        field += unescaped_text(category);
    }
    return true;
}

bool ComponentReader::take_class(const Property& property, int& sensitivity) {
    static constexpr const char* names[] = {"PUBLIC", "X-PERSONAL", "PRIVATE", "CONFIDENTIAL"};
    if (!property.content.is("CLASS")) return false;
    for (int i = 0; i < 4; ++i) {
        if (!equal_ignoring_case(trimmed(property.content.value), names[i])) continue;
        sensitivity = i;
        return true;
    }
    // One that is not known is to be treated as private.
    sensitivity = 2;
    warn(property, "not known; imported as private");
    return true;
}

bool ComponentReader::take_own(const Property& property, int& reminder_options, std::string& reminder_sound) {
    if (property.content.is("X-ZRUTILITY-REMINDER-OPTIONS")) {
        reminder_options = as_number(property.content.value);
        return true;
    }
    return take_text(property, "X-ZRUTILITY-REMINDER-SOUND", reminder_sound);
}

Zone ComponentReader::zone_of(const Property& property, const std::string& id) {
    Zone zone;
    if (!zones_.find(id, zone)) lost(property, "no VTIMEZONE for TZID " + id + "; read as the device's time");
    return zone;
}

std::optional<ZonedTime> ComponentReader::time_of(const Property& property) {
    return time_of(property, std::string(trimmed(property.content.value)));
}

std::optional<ZonedTime> ComponentReader::time_of(const Property& property, const std::string& value) {
    ZonedTime time;
    if (!parse_time(value, time)) {
        lost(property, value.substr(0, 40) + " is no date from 1601 to 4500");
        return std::nullopt;
    }
    const std::optional<std::string> id = property.content.parameter("TZID");
    if (id && !time.is_day && time.zone.kind == Zone::Kind::Floating) time.zone = zone_of(property, *id);
    if (!is_storable(device_time(time))) {
        lost(property, value + " is no date from 1601 to 4500 on the device");
        return std::nullopt;
    }
    return time;
}

namespace {

std::optional<seconds> read_duration(const std::string& value, days& nominal) {
    const icaldurationtype span = icaldurationtype_from_string(value.c_str());
    if (icaldurationtype_is_bad_duration(span)) return std::nullopt;
    const int sign = span.is_neg ? -1 : 1;
    const std::int64_t all_days = std::int64_t{span.days} + std::int64_t{span.weeks} * 7;
    if (all_days > 2000000) return std::nullopt;
    nominal = days(static_cast<int>(all_days) * sign);
    return (hours(span.hours) + minutes(span.minutes) + seconds(span.seconds)) * sign;
}

}  // namespace

std::optional<ZonedTime> ComponentReader::time_after(const ZonedTime& start, const Property& duration) {
    days nominal{};
    const std::optional<seconds> exact = read_duration(std::string(trimmed(duration.content.value)), nominal);
    if (!exact) {
        lost(duration, "no duration that can be read");
        return std::nullopt;
    }
    ZonedTime end = start;
    end.wall += nominal;
    if (*exact != seconds(0)) end.wall = wall_of(utc_of(end.wall, end.zone) + *exact, end.zone);
    if (is_storable(device_time(end))) return end;
    lost(duration, "ends outside of the years 1601 to 4500");
    return std::nullopt;
}

ComponentReader::Trigger ComponentReader::trigger_of(const Part& alarm) {
    Trigger trigger;
    trigger.line = raw_.lines[alarm.begin].number;
    bool shown = false;
    for (std::size_t i = alarm.begin + 1; i < alarm.end && i < raw_.lines.size(); ++i) {
        Property property = {{}, raw_.lines[i].text, raw_.lines[i].number};
        std::string why;
        if (!split_content_line(property.text, property.content, why)) continue;
        const std::string value(trimmed(property.content.value));
        if (property.content.is("ACTION")) {
            shown = equal_ignoring_case(value, "DISPLAY") || equal_ignoring_case(value, "AUDIO");
            trigger.wanted = !equal_ignoring_case(value, "NONE");
        }
        if (!property.content.is("TRIGGER")) continue;
        days nominal{};
        ZonedTime time;
        if (parse_time(value, time)) {
            trigger.at = time;
        } else if (const std::optional<seconds> exact = read_duration(value, nominal)) {
            trigger.span = *exact + nominal;
            const std::optional<std::string> related = property.content.parameter("RELATED");
            trigger.from_end = related && equal_ignoring_case(*related, "END");
        }
    }
    if (!shown) trigger.at.reset(), trigger.span.reset();
    return trigger;
}

std::string portable_time(const ZonedTime& time) {
    if (time.is_day) return day_text(floor<days>(time.wall));
    return time_text(Moment(utc_of(time.wall, time.zone).time_since_epoch())) + "Z";
}

}  // namespace zr
