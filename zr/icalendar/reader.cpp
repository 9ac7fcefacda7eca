#include "zr/icalendar/reader.h"

#include <algorithm>
#include <utility>

#include "zr/icalendar/component_reader.h"
#include "zr/icalendar/recurrence.h"

namespace zr {

// The problems of a series come with its first occurrence.
bool CalendarReader::next_of_expanded(Item& item) {
    if (expanded_.empty()) return false;
    Held& held = expanded_.front();
    const std::vector<OccurrenceTime>& occurrences = *held.read.occurrences;
    item = {};
    item.problems = std::exchange(held.problems, {});
    if (next_occurrence_ < occurrences.size()) {
        item.kind = Kind::Event;
        item.of_series = true;
        item.event = held.read.event_at(occurrences[next_occurrence_++]);
    }
    if (next_occurrence_ < occurrences.size()) return true;
    expanded_.pop_front();
    next_occurrence_ = 0;
    if (expanded_.empty()) zones_.clear();
    return true;
}

bool CalendarReader::next(Item& item) {
    while (ready_.empty()) {
        if (next_of_expanded(item)) return true;
        RawComponent raw;
        std::vector<Problem> problems;
        switch (splitter_.next(raw, problems)) {
            case CalendarSplitter::Part::End:
                return false;
            case CalendarSplitter::Part::Component:
                take(raw, problems);
                break;
            case CalendarSplitter::Part::Calendar:
                any_calendar_ = true;
                end_calendar();
                leave_out(problems);
                break;
            case CalendarSplitter::Part::Stray:
                leave_out(problems);
        }
    }
    item = std::move(ready_.front());
    ready_.pop_front();
    return true;
}

void CalendarReader::leave_out(std::vector<Problem>& problems) {
    if (problems.empty()) return;
    Item item;
    item.problems = std::move(problems);
    ready_.push_back(std::move(item));
}

void CalendarReader::take(RawComponent& raw, std::vector<Problem>& problems) {
    if (!raw.damage.empty()) {
        problems.push_back({raw.damage_line, raw.name + ": " + raw.damage});
        leave_out(problems);
    } else if (raw.name == "VTIMEZONE") {
        zones_.add(raw, problems);
        leave_out(problems);
    } else if (raw.name != "VEVENT" && raw.name != "VTODO") {
        problems.push_back({raw.number, raw.name + ": the contact store keeps nothing of this kind"});
        leave_out(problems);
    } else if (waits_for_zone(raw)) {
        waiting_.push_back({std::move(raw), std::move(problems)});
    } else {
        read(raw, problems);
    }
}

bool CalendarReader::waits_for_zone(const RawComponent& raw) const {
    return std::any_of(raw.lines.begin(), raw.lines.end(), [this](const RawComponent::Line& line) {
        ContentLine content;
        std::string why;
        if (line.text.find(';') > line.text.find(':') || !split_content_line(line.text, content, why)) return false;
        const std::optional<std::string> id = content.parameter("TZID");
        return id && !zones_.has(*id);
    });
}

void CalendarReader::read(const RawComponent& raw, std::vector<Problem>& problems) {
    if (raw.name == "VTODO") {
        Item item;
        item.kind = read_task(raw, zones_, item.task, problems) ? Kind::Task : Kind::LeftOut;
        item.problems = std::move(problems);
        ready_.push_back(std::move(item));
        return;
    }
    Held held;
    if (!read_event(raw, zones_, held.read, problems, span_)) return leave_out(problems);
    const bool single = !held.read.recurrence_id && !held.read.event.pattern && !held.read.occurrences;
    if (single) return add_event(held.read.event, problems);
    held.problems = std::move(problems);
    if (held.read.recurrence_id) {
        overrides_.push_back(std::move(held));
        return;
    }
    if (!held.read.event.uid.empty()) series_by_uid_.emplace(held.read.event.uid, series_.size());
    series_.push_back(std::move(held));
}

void CalendarReader::add_event(Event& event, std::vector<Problem>& problems) {
    Item item;
    item.kind = Kind::Event;
    item.event = std::move(event);
    item.problems = std::move(problems);
    ready_.push_back(std::move(item));
}

// Nothing more can change what waits.
void CalendarReader::end_calendar() {
    for (Waiting& waiting : std::exchange(waiting_, {})) {
        read(waiting.raw, waiting.problems);
    }
    for (Held& change : overrides_) {
        apply(change);
    }
    for (Held& held : series_) {
        if (held.read.occurrences) {
            expanded_.push_back(std::move(held));
        } else {
            add_event(held.read.event, held.problems);
        }
    }
    overrides_.clear();
    series_.clear();
    series_by_uid_.clear();
    if (expanded_.empty()) zones_.clear();
}

// Makes an override a change of its series. One that belongs to none is an appointment of its own.
void CalendarReader::apply(Held& change) {
    const ZonedTime& time = *change.read.recurrence_id;
    const auto [begin, end] = series_by_uid_.equal_range(change.read.event.uid);
    for (auto entry = begin; entry != end; ++entry) {
        Held& held = series_[entry->second];
        if (held.read.occurrences) return apply_to_expanded(held, change);
        Event& series = held.read.event;
        const CalendarDay day = held.read.day_of(time);
        if (!occurs_on(*series.pattern, std::chrono::floor<std::chrono::days>(series.start), day)) continue;
        const auto at = std::lower_bound(series.changes.begin(), series.changes.end(), day,
                                         [](const Change& one, CalendarDay wanted) { return one.day < wanted; });
        const bool exists = at != series.changes.end() && at->day == day;
        if (exists && !at->deleted) continue;
        Change made = {day, false, std::move(change.read.event)};
        if (exists) {
            *at = std::move(made);
        } else {
            series.changes.insert(at, std::move(made));
        }
        held.problems.insert(held.problems.end(), change.problems.begin(), change.problems.end());
        return;
    }
    change.read.event.extras += recurrence_line(time);
    change.problems.push_back({change.read.line,
                               "VEVENT " + change.read.event.uid +
                                   ": RECURRENCE-ID: no series has this day; imported as an appointment of its own",
                               false});
    add_event(change.read.event, change.problems);
}

// What takes the place of one occurrence is an appointment of its own as they all are.
void CalendarReader::apply_to_expanded(Held& series, Held& change) {
    const ZonedTime& time = *change.read.recurrence_id;
    std::erase_if(*series.read.occurrences,
                  [&](const OccurrenceTime& one) { return recurrence_line(one.time) == recurrence_line(time); });
    change.read.event.extras += recurrence_line(time);
    add_event(change.read.event, change.problems);
}

}  // namespace zr
