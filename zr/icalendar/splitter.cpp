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

// Reads the next line, unfolded and not blank, into line_.
bool CalendarSplitter::read_line(std::vector<Problem>& problems) {
    if (std::exchange(again_, false)) return true;
    const auto read = [&] {
        std::string_view line;
        has_physical_ = reader_.next(line);
        if (!has_physical_) return;
        physical_ = line;
        physical_number_ = reader_.number();
        was_cut_ = was_cut_ || reader_.was_cut();
    };
    do {
        if (!has_physical_) read();
        if (!has_physical_) return false;
        line_.swap(physical_);
        number_ = physical_number_;
        for (read(); has_physical_ && (physical_.starts_with(' ') || physical_.starts_with('\t')); read()) {
            if (line_.size() <= kLargestComponent) line_.append(physical_, 1);
            was_cut_ = was_cut_ || line_.size() > kLargestComponent;
        }
    } while (trimmed(line_).empty());
    make_text(problems);
    return true;
}

// Makes the line at hand text that a store can keep.
void CalendarSplitter::make_text(std::vector<Problem>& problems) {
    if (!is_utf8(line_)) {
        if (reader_.is_utf16()) {
            line_ = to_utf8(to_utf16(line_));
            problems.push_back({number_, "half a UTF-16 character; read as U+FFFD", false});
        } else {
            line_ = decode_windows_1252(line_);
            problems.push_back({number_, "not valid UTF-8; read as Windows-1252", false});
        }
    }
    if (line_.find('\0') == std::string::npos) return;
    std::string text;
    for (const char c : line_) {
        if (c == '\0') {
            append_utf8(text, 0xFFFD);
        } else {
            text += c;
        }
    }
    line_ = std::move(text);
    problems.push_back({number_, "a zero byte; read as U+FFFD", false});
}

CalendarSplitter::Part CalendarSplitter::end_calendar() {
    in_calendar_ = stray_ = false;
    return Part::Calendar;
}

// The calendar at hand has no END.
CalendarSplitter::Part CalendarSplitter::lose_calendar(std::vector<Problem>& problems) {
    const char* reason = again_                 ? "no END:VCALENDAR before the next calendar begins"
                         : reader_.error() != 0 ? "the file could not be read further"
                                                : "the file ends inside this calendar";
    problems.push_back({calendar_number_, reason});
    return end_calendar();
}

CalendarSplitter::Part CalendarSplitter::next(RawComponent& component, std::vector<Problem>& problems) {
    component = {};
    while (read_line(problems)) {
        const std::string_view line = without_mark(line_);
        std::string begins = component_named("BEGIN", line);
        if (begins == "VCALENDAR" && in_calendar_) {
            again_ = true;
            return lose_calendar(problems);
        }
        if (begins == "VCALENDAR") {
            in_calendar_ = true;
            old_version_ = false;
            calendar_number_ = number_;
            continue;
        }
        if (in_calendar_ && component_named("END", line) == "VCALENDAR") return end_calendar();
        if (in_calendar_ && !begins.empty()) {
            component.name = std::move(begins);
            component.number = number_;
            read_body(component, problems);
            if (old_version_) damage(component, "in a calendar of version 1.0, which is not read", component.number);
            return Part::Component;
        }
        if (in_calendar_) {
            old_version_ = old_version_ || component_named("VERSION", line) == "1.0";
            continue;
        }
        if (!std::exchange(stray_, true)) {
            problems.push_back({number_, "text outside of BEGIN:VCALENDAR and END:VCALENDAR"});
            return Part::Stray;
        }
    }
    return in_calendar_ ? lose_calendar(problems) : Part::End;
}

void CalendarSplitter::read_body(RawComponent& component, std::vector<Problem>& problems) {
    component.lines.clear();
    std::vector<std::pair<std::string, long>> open = {{component.name, component.number}};
    std::size_t bytes = 0;
    was_cut_ = false;
    while (read_line(problems)) {
        std::string begins = component_named("BEGIN", line_);
        const std::string ends = begins.empty() ? component_named("END", line_) : std::string();
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
            damage(component, "END:" + ends + " without its BEGIN", number_);
        }
        bytes += line_.size();
        if (was_cut_ || bytes > kLargestComponent) damage(component, "larger than 64 MiB", number_);
        if (!begins.empty()) open.emplace_back(std::move(begins), number_);
        if (component.damage.empty()) component.lines.push_back({line_, number_});
    }
    damage(component,
           reader_.error() != 0 ? "the file could not be read further" : "the file ends inside this component",
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
