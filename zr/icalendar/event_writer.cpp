#include "zr/icalendar/event_writer.h"

#include <platform/platform.h>

#include <algorithm>
#include <charconv>
#include <string_view>
#include <vector>

#include "zr/base/content_line.h"
#include "zr/base/text.h"
#include "zr/icalendar/component_reader.h"
#include "zr/icalendar/device_zone.h"
#include "zr/icalendar/recurrence.h"

namespace zr {
namespace {

using namespace std::chrono;

std::string utc_value(sys_seconds utc) {
    return time_text(Moment(utc.time_since_epoch())) + "Z";
}

// The instant behind which a series has no occurrence: late on its last day, as the clock shows it.
sys_seconds until_of(CalendarDay day, seconds clock) {
    for (const seconds time : {seconds(days(1)) - seconds(1), clock}) {
        const sys_seconds utc = device_utc(day + time);
        if (floor<days>(device_time(utc)) == day && device_time(utc) >= day + clock) return utc;
    }
    return device_utc(day + clock);
}

std::vector<std::string_view> lines_of(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        if (end > 0) lines.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

bool names(std::string_view line, std::string_view property) {
    return line.size() > property.size() && equal_ignoring_case(line.substr(0, property.size()), property) &&
           (line[property.size()] == ':' || line[property.size()] == ';');
}

std::string_view value_of(std::string_view line) {
    ContentLine content;
    std::string why;
    return split_content_line(line, content, why) ? content.value : std::string_view();
}

}  // namespace

// One component in the making.
class CalendarWriter::Component {
public:
    Component(const CalendarWriter& writer, const char* name, std::string& out)
        : writer_(writer), name_(name), out_(out) {
        append_folded(out_, std::string("BEGIN:") + name_);
    }

    void line(std::string_view text) { append_folded(out_, text); }
    void text(const char* name, std::string_view value) {
        if (value.empty()) return;
        std::string line = std::string(name) + ":";
        append_escaped_text(line, value);
        append_folded(out_, line);
    }
    void time(const char* name, Moment time, bool is_day) {
        append_folded(out_, is_day ? std::string(name) + ";VALUE=DATE:" + day_text(floor<days>(time))
                                   : name + writer_.zone_ + ":" + time_text(time) + (writer_.utc_ ? "Z" : ""));
    }
    void categories(std::string_view all);
    void sensitivity(int value);
    void identity(const std::string& uid, std::string_view extras);
    void reminder(int options, const std::string& sound);
    void alarm(const std::string& trigger, const std::string& subject);
    // Kept lines: the properties, and behind all properties the components.
    void kept_properties(std::string_view extras) { kept(extras, false); }
    void finish(std::string_view extras) {
        kept(extras, true);
        append_folded(out_, std::string("END:") + name_);
    }

private:
    void kept(std::string_view extras, bool components);

    const CalendarWriter& writer_;
    const char* name_;
    std::string& out_;
};

// Categories are a text with commas. Where it is not what joining the parts again gives, it is written as one.
void CalendarWriter::Component::categories(std::string_view all) {
    if (all.empty()) return;
    std::string line = "CATEGORIES:";
    for (std::string_view rest = all;;) {
        const std::size_t end = std::min(rest.find(", "), rest.size());
        append_escaped_text(line, rest.substr(0, end));
        if (end == rest.size()) break;
        line += ',';
        rest.remove_prefix(end + 2);
    }
    append_folded(out_, line);
}

void CalendarWriter::Component::sensitivity(int value) {
    static constexpr const char* names[] = {"PUBLIC", "X-PERSONAL", "PRIVATE", "CONFIDENTIAL"};
    if (value > 0 && value < 4) line(std::string("CLASS:") + names[value]);
}

void CalendarWriter::Component::identity(const std::string& uid, std::string_view extras) {
    text("UID", uid);
    const std::vector<std::string_view> lines = lines_of(extras);
    const bool stamped = std::any_of(lines.begin(), lines.end(), [](auto line) { return names(line, "DTSTAMP"); });
    if (!stamped) line("DTSTAMP:" + utc_value(writer_.now_));
}

void CalendarWriter::Component::reminder(int options, const std::string& sound) {
    if (options != 0) line("X-ZRUTILITY-REMINDER-OPTIONS:" + std::to_string(options));
    text("X-ZRUTILITY-REMINDER-SOUND", sound);
}

void CalendarWriter::Component::alarm(const std::string& trigger, const std::string& subject) {
    line("BEGIN:VALARM");
    line("ACTION:DISPLAY");
    text("DESCRIPTION", subject.empty() ? "Reminder" : subject);
    line(trigger);
    line("END:VALARM");
}

void CalendarWriter::Component::kept(std::string_view extras, bool components) {
    int depth = 0;
    for (const std::string_view line : lines_of(extras)) {
        if (!component_named("BEGIN", line).empty()) ++depth;
        if ((depth > 0) == components) append_folded(out_, line);
        if (depth > 0 && !component_named("END", line).empty()) --depth;
    }
}

CalendarWriter::CalendarWriter(int first_year, sys_seconds now)
    : utc_(device_is_utc()), first_year_(first_year), now_(now) {
    if (utc_) return;
    const std::string id = device_zone_id();
    const bool plain = id.find_first_of(",;:") == std::string::npos;
    zone_ = ";TZID=" + (plain ? id : "\"" + id + "\"");
}

void CalendarWriter::begin(std::string& out) const {
    append_folded(out, "BEGIN:VCALENDAR");
    append_folded(out, "VERSION:2.0");
    append_folded(out, "PRODID:-//ZrUtility//zr//EN");
    if (!utc_) append_device_vtimezone(out, first_year_);
}

void CalendarWriter::end(std::string& out) {
    append_folded(out, "END:VCALENDAR");
}

namespace {

template <typename Component>
void write_fields(Component& component, const EventFields& event) {
    static constexpr const char* busy[] = {"FREE", "TENTATIVE", "BUSY", "OOF"};
    component.time("DTSTART", event.start, event.all_day);
    if (event.end > event.start) component.time("DTEND", event.end, event.all_day);
    component.text("SUMMARY", event.subject);
    component.text("LOCATION", event.location);
    component.text("DESCRIPTION", event.body);
    component.categories(event.categories);
    component.sensitivity(event.sensitivity);
    component.line(event.busy == olFree ? "TRANSP:TRANSPARENT" : "TRANSP:OPAQUE");
    component.line(std::string("X-MICROSOFT-CDO-BUSYSTATUS:") + busy[event.busy & 3]);
    if (event.meeting == olMeetingCanceled) {
        component.line("STATUS:CANCELLED");
    } else if (event.meeting != olNonMeeting) {
        component.line("X-ZRUTILITY-MEETING-STATUS:" + std::to_string(event.meeting));
    }
    component.reminder(event.reminder_options, event.reminder_sound);
    component.kept_properties(event.extras);
    if (event.reminder) {
        component.alarm("TRIGGER:-PT" + std::to_string(event.reminder_minutes) + "M", event.subject);
    }
}

}  // namespace

void CalendarWriter::write(const Event& event, std::string& out) const {
    const seconds clock = event.start - floor<days>(event.start);
    Component master(*this, "VEVENT", out);
    master.identity(event.uid, event.extras);
    if (event.pattern) {
        std::string rule = "RRULE:" + rule_of_pattern(*event.pattern);
        if (event.pattern->until) {
            const CalendarDay day = *event.pattern->until;
            rule += ";UNTIL=" + (event.all_day ? day_text(day) : utc_value(until_of(day, clock)));
        } else if (event.pattern->count > 0) {
            rule += ";COUNT=" + std::to_string(event.pattern->count);
        }
        master.line(rule);
    }
    for (const Change& change : event.changes) {
        if (change.deleted) master.time("EXDATE", change.day + clock, event.all_day);
    }
    write_fields(master, event);
    master.finish(event.extras);
    for (const Change& change : event.changes) {
        if (change.deleted) continue;
        Component part(*this, "VEVENT", out);
        part.identity(event.uid, change.fields.extras);
        part.time("RECURRENCE-ID", change.day + clock, event.all_day);
        write_fields(part, change.fields);
        part.finish(change.fields.extras);
    }
}

void CalendarWriter::write(const Task& task, std::string& out) const {
    Component component(*this, "VTODO", out);
    const auto is_day = [](Moment time) { return floor<days>(time) == time; };
    component.identity(task.uid, task.extras);
    // Both are days or both are times.
    const bool are_days = (!task.start || is_day(*task.start)) && (!task.due || is_day(*task.due));
    if (task.start) component.time("DTSTART", *task.start, are_days);
    if (task.due) component.time("DUE", *task.due, are_days);
    component.text("SUMMARY", task.subject);
    component.text("DESCRIPTION", task.body);
    component.categories(task.categories);
    component.sensitivity(task.sensitivity);
    // The exact priority that was imported, while the task is still as important; and no progress that is undone.
    std::string extras;
    bool has_priority = false;
    for (const std::string_view line : lines_of(task.extras)) {
        const bool priority = names(line, "PRIORITY");
        if (priority && importance_of(priority_of(value_of(line))) != task.importance) continue;
        if (!task.complete && names(line, "COMPLETED")) continue;
        has_priority = has_priority || priority;
        extras += std::string(line) + '\n';
    }
    if (!has_priority && task.importance != olImportanceNormal) {
        component.line(task.importance == olImportanceHigh ? "PRIORITY:1" : "PRIORITY:9");
    }
    if (task.complete) component.line("STATUS:COMPLETED");
    component.reminder(task.reminder_options, task.reminder_sound);
    component.kept_properties(extras);
    if (task.reminder)
        component.alarm("TRIGGER;VALUE=DATE-TIME:" + utc_value(device_utc(*task.reminder)), task.subject);
    component.finish(extras);
}

}  // namespace zr
