#include "zr/icalendar/splitter.h"

#include <utility>

#include "zr/base/content_line.h"
#include "zr/base/text.h"

namespace zr {
namespace {

// Components that stand in a calendar itself and in no other component.
bool is_outermost(std::string_view name) {
    return name == "VEVENT" || name == "VTODO" || name == "VJOURNAL" || name == "VFREEBUSY" || name == "VTIMEZONE" ||
           name == "VCALENDAR";
}

std::string_view without_mark(std::string_view line) {
    // Files that were joined carry the byte-order marks of their parts.
    if (line.starts_with("\xEF\xBB\xBF")) line.remove_prefix(3);
    return line;
}

}  // namespace

// Makes the next line that is not blank the one at hand.
bool CalendarSplitter::read_line(std::vector<Problem>& problems) {
    if (std::exchange(again_, false)) return true;
    do {
        if (!lines_.next()) return false;
    } while (trimmed(lines_.line()).empty());
    make_text(problems);
    return true;
}

// Makes the line at hand text that a store can keep.
void CalendarSplitter::make_text(std::vector<Problem>& problems) {
    std::string& line = lines_.line();
    if (!is_utf8(line)) {
        if (lines_.reader().is_utf16()) {
            line = to_utf8(to_utf16(line));
            problems.push_back({lines_.number(), "half a UTF-16 character; read as U+FFFD", false});
        } else {
            line = decode_windows_1252(line);
            problems.push_back({lines_.number(), "not valid UTF-8; read as Windows-1252", false});
        }
    }
    const bool zero = line.find('\0') != std::string::npos;
    if (!zero && line.find('\r') == std::string::npos) return;
    std::string text;
    for (const char c : line) {
        if (c == '\0') {
            append_utf8(text, 0xFFFD);
        } else if (c == '\r') {
            text += "\\n";  // it would end the line for other readers
        } else {
            text += c;
        }
    }
    line = std::move(text);
    if (zero) problems.push_back({lines_.number(), "a zero byte; read as U+FFFD", false});
}

CalendarSplitter::Part CalendarSplitter::end_calendar() {
    in_calendar_ = stray_ = false;
    return Part::Calendar;
}

// The calendar at hand has no END.
CalendarSplitter::Part CalendarSplitter::lose_calendar(std::vector<Problem>& problems) {
    const char* reason = again_     ? "no END:VCALENDAR before the next calendar begins"
                         : failed() ? "the file could not be read further"
                                    : "the file ends inside this calendar";
    problems.push_back({calendar_number_, reason});
    return end_calendar();
}

CalendarSplitter::Part CalendarSplitter::next(RawComponent& component, std::vector<Problem>& problems) {
    component = {};
    while (read_line(problems)) {
        const std::string_view line = without_mark(lines_.line());
        std::string begins = component_named("BEGIN", line);
        if (begins == "VCALENDAR" && in_calendar_) {
            again_ = true;
            return lose_calendar(problems);
        }
        if (begins == "VCALENDAR") {
            in_calendar_ = true;
            old_version_ = false;
            calendar_number_ = lines_.number();
            continue;
        }
        if (in_calendar_ && component_named("END", line) == "VCALENDAR") return end_calendar();
        if (in_calendar_ && !begins.empty()) {
            component.name = std::move(begins);
            component.number = lines_.number();
            read_body(component, problems);
            if (old_version_) damage(component, "in a calendar of version 1.0, which is not read", component.number);
            return Part::Component;
        }
        if (in_calendar_) {
            old_version_ = old_version_ || component_named("VERSION", line) == "1.0";
            continue;
        }
        if (!std::exchange(stray_, true)) {
            problems.push_back({lines_.number(), "text outside of BEGIN:VCALENDAR and END:VCALENDAR"});
            return Part::Stray;
        }
    }
    return in_calendar_ ? lose_calendar(problems) : Part::End;
}

void CalendarSplitter::read_body(RawComponent& component, std::vector<Problem>& problems) {
    component.lines.clear();
    std::vector<std::pair<std::string, long>> open = {{component.name, component.number}};
    std::size_t bytes = 0;
    while (read_line(problems)) {
        const std::string_view line = lines_.line();
        std::string begins = component_named("BEGIN", line);
        const std::string ends = begins.empty() ? component_named("END", line) : std::string();
        if (is_outermost(begins) || ends == "VCALENDAR") {
            again_ = true;
            return damage(component, "no END:" + component.name + " before the next component begins",
                          component.number);
        }
        if (!ends.empty() && ends == open.back().first) {
            open.pop_back();
            if (open.empty()) return;
        } else if (ends == component.name) {
            return damage(component, "no END:" + open.back().first, open.back().second);
        } else if (!ends.empty()) {
            damage(component, "END:" + ends + " without its BEGIN", lines_.number());
        }
        bytes += line.size();
        if (lines_.was_cut() || bytes > kLargestComponent) damage(component, "larger than 64 MiB", lines_.number());
        if (!begins.empty()) open.emplace_back(std::move(begins), lines_.number());
        if (component.damage.empty()) component.lines.push_back({std::string(line), lines_.number()});
    }
    damage(component, failed() ? "the file could not be read further" : "the file ends inside this component",
           component.number);
}

// Nothing of a damaged component is used, so that memory stays bound.
void CalendarSplitter::damage(RawComponent& component, std::string why, long line) {
    component.lines.clear();
    if (!component.damage.empty()) return;
    component.damage = std::move(why);
    component.damage_line = line;
}

}  // namespace zr
