#include "zr/icalendar/event_reader.h"

#include <platform/platform.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <utility>

#include "zr/base/text.h"
#include "zr/icalendar/component_reader.h"
#include "zr/icalendar/recurrence.h"

namespace zr {
namespace {

using namespace std::chrono;

constexpr std::int64_t kMostMinutes = std::int64_t{60} * 24 * 366 * 10;

bool is_true(std::string_view value) {
    return equal_ignoring_case(trimmed(value), "TRUE");
}

class EventReader final : public ComponentReader {
public:
    EventReader(const RawComponent& raw, CalendarZones& zones, ReadEvent& read, std::vector<Problem>& problems,
                const std::optional<DaySpan>& span)
        : ComponentReader(raw, zones, problems), read_(read), event_(read.event), span_(span) {}

    bool read();

private:
    // A value of an EXDATE or an RDATE.
    struct Date {
        const Property* property = nullptr;
        std::string value;
        ZonedTime time;
        std::optional<ZonedTime> end;  // of a period, where it matters
    };

    bool take(const Property& property) override;
    bool take_status(const Property& property);
    bool take_recurrence(const Property& property);
    bool read_times();
    void read_end(const ZonedTime& start);
    void make_all_day(const ZonedTime& start);
    void read_reminder();
    bool set_reminder(const Trigger& trigger);
    void read_recurrence();
    void read_rules();
    bool read_rule();
    bool keeps_its_sense(const Property& rule) const;
    bool keep_rule(const Property& rule, const std::string& why);
    CalendarDay last_day(const ZonedTime& until) const;
    void check_times();
    void read_dates();
    void read_date(const Property& property, const std::string& value);
    std::optional<ZonedTime> end_of_period(const Property& property, const ZonedTime& start, const std::string& end);
    void follow_dates();
    void follow_date(const Date& date);
    RecurrenceSet recurrence_set() const;
    void expand_within(const DaySpan& span, const Mark& before, const Event& single);

    ReadEvent& read_;
    Event& event_;
    const std::optional<DaySpan>& span_;
    bool is_held_ = true;  // the fields and the pattern say all of the recurrence
    std::optional<Property> start_;
    std::optional<Property> end_;
    std::optional<Property> duration_;
    std::optional<Property> recurrence_id_;
    std::optional<Property> rule_;
    std::vector<Property> more_rules_;  // behind it
    std::vector<Property> excluded_rules_;
    std::vector<Property> date_lists_;  // EXDATE, RDATE
    std::vector<Date> dates_;
    bool all_day_flag_ = false;
    bool has_busy_ = false;
    ZonedTime start_time_;
    std::optional<ZonedTime> end_time_;
};

bool EventReader::read() {
    read_.line = raw().number;
    walk();
    event_.uid = uid();
    if (!start_) {
        tell(raw().number, {}, "no DTSTART", true);
        return false;
    }
    if (!read_times()) return false;
    read_reminder();
    if (recurrence_id_) {
        read_.recurrence_id = time_of(*recurrence_id_);
        const auto range = recurrence_id_->content.parameter("RANGE");
        if (range) lost(*recurrence_id_, "RANGE=" + *range + "; changes this occurrence only");
        if (rule_) lost(*rule_, "in an override");
        for (const Property& rule : more_rules_) {
            lost(rule, "in an override");
        }
    }
    read_dates();
    read_recurrence();
    event_.extras = extras();
    return true;
}

void EventReader::read_recurrence() {
    const Mark before = mark();
    const Event single = event_;
    for (const Property& rule : excluded_rules_) {
        is_held_ = false;
        keep(rule.text);
        lost(rule, "kept, but not followed");
    }
    if (rule_ && !recurrence_id_) read_rules();
    follow_dates();
    if (!is_held_ && span_ && !recurrence_id_) expand_within(*span_, before, single);
}

RecurrenceSet EventReader::recurrence_set() const {
    RecurrenceSet set;
    set.start = start_time_;
    const auto value = [](const Property& rule) { return std::string(trimmed(rule.content.value)); };
    if (rule_) set.rules.push_back(value(*rule_));
    std::transform(more_rules_.begin(), more_rules_.end(), std::back_inserter(set.rules), value);
    std::transform(excluded_rules_.begin(), excluded_rules_.end(), std::back_inserter(set.excluded_rules), value);
    for (const Date& date : dates_) {
        if (date.property->content.is("RDATE")) {
            set.dates.push_back({date.time, date.end});
        } else {
            set.excluded_dates.push_back(date.time);
        }
    }
    return set;
}

// Instead of what the pattern would be, `single` at each time that the set has within the span.
void EventReader::expand_within(const DaySpan& span, const Mark& before, const Event& single) {
    const Property& first = rule_ ? *rule_ : !dates_.empty() ? *dates_.front().property : excluded_rules_.front();
    Expansion expansion = expand(recurrence_set(), span);
    if (!expansion.why.empty()) return lost(first, "not expanded: " + expansion.why);
    go_back(before);
    event_ = single;
    const std::string days = " from " + shown_time(span.from, true) + " to " + shown_time(span.to, true);
    const std::string count = std::to_string(expansion.occurrences.size());
    if (expansion.occurrences.empty()) {
        lost(first, "does not occur" + days);
    } else if (expansion.cut) {
        lost(first, "its first " + count + " occurrences" + days + " are appointments of their own; there are more");
    } else {
        warn(first, "its occurrences" + days + " are appointments of their own: " + count);
    }
    read_.occurrences = std::move(expansion.occurrences);
}

bool EventReader::take(const Property& property) {
    return take_text(property, "SUMMARY", event_.subject) || take_text(property, "LOCATION", event_.location) ||
           take_text(property, "DESCRIPTION", event_.body) || take_categories(property, event_.categories) ||
           take_class(property, event_.sensitivity) || take_first(property, "DTSTART", start_) ||
           take_first(property, "DTEND", end_) || take_first(property, "DURATION", duration_) ||
           take_first(property, "RECURRENCE-ID", recurrence_id_) || take_recurrence(property) ||
           take_status(property) || take_own(property, event_.reminder_options, event_.reminder_sound);
}

bool EventReader::take_status(const Property& property) {
    const std::string value = upper(trimmed(property.content.value));
    if (property.content.is("TRANSP")) {
        if (!has_busy_ && value == "TRANSPARENT") event_.busy = olFree;
        return true;
    }
    if (property.content.is("X-MICROSOFT-CDO-BUSYSTATUS")) {
        static constexpr const char* names[] = {"FREE", "TENTATIVE", "BUSY", "OOF"};
        const auto name = std::find(std::begin(names), std::end(names), value);
        if (name == std::end(names)) return false;
        event_.busy = static_cast<int>(name - std::begin(names));
        has_busy_ = true;
        return true;
    }
    if (property.content.is("STATUS")) {
        if (value == "CANCELLED") event_.meeting = olMeetingCanceled;
        if (value == "TENTATIVE" && !has_busy_) event_.busy = olTentative;
        return value == "CANCELLED";
    }
    if (property.content.is("X-ZRUTILITY-MEETING-STATUS")) {
        std::from_chars(value.data(), value.data() + value.size(), event_.meeting);
        return true;
    }
    if (property.content.is("X-MICROSOFT-CDO-ALLDAYEVENT")) {
        all_day_flag_ = is_true(value);
        return true;
    }
    if (property.content.is("ATTACH")) warn(property, "kept, but not shown");
    return false;
}

bool EventReader::take_recurrence(const Property& property) {
    if (property.content.is("RRULE")) {
        if (rule_) {
            more_rules_.push_back(property);
        } else {
            rule_ = property;
        }
        return true;
    }
    if (property.content.is("EXRULE")) {
        excluded_rules_.push_back(property);
        return true;
    }
    if (!property.content.is("EXDATE") && !property.content.is("RDATE")) return false;
    date_lists_.push_back(property);
    return true;
}

bool EventReader::read_times() {
    const std::optional<ZonedTime> start = time_of(*start_);
    if (!start) return false;
    start_time_ = *start;
    event_.all_day = start->is_day;
    event_.start = device_time(*start);
    read_.zone = start->is_day ? Zone() : start->zone;
    read_.shift = static_cast<int>((floor<days>(event_.start) - floor<days>(start->wall)).count());
    read_end(*start);
    if (all_day_flag_ && !event_.all_day) make_all_day(*start);
    const ZonedTime last = end_time_.value_or(*start);
    read_.length = event_.end - event_.start;
    read_.length_by_clock = event_.all_day || (duration_ && read_.length % days(1) == seconds(0));
    if (!read_.length_by_clock && read_.length != seconds(0))
        read_.length = utc_of(last.wall, last.zone) - utc_of(start->wall, start->zone);
    if (is_storable(event_.end)) return true;
    lost(*start_, "ends behind the year 4500");
    return false;
}

void EventReader::read_end(const ZonedTime& start) {
    if (end_) {
        end_time_ = time_of(*end_);
    } else if (duration_) {
        end_time_ = time_after(start, *duration_);
    }
    event_.end = end_time_ ? device_time(*end_time_) : event_.start;
    if (event_.end < event_.start) {
        lost(end_ ? *end_ : *duration_, "before DTSTART");
        event_.end = event_.start;
    }
    if (!event_.all_day) return;
    // Whole days, at least one.
    event_.end = std::max<Moment>(ceil<days>(event_.end), event_.start + days(1));
}

// Some programs write whole days as times from midnight to midnight, and say so.
void EventReader::make_all_day(const ZonedTime& start) {
    const ZonedTime end = end_time_.value_or(start);
    if (floor<days>(start.wall) != start.wall || floor<days>(end.wall) != end.wall || end.zone != start.zone) return;
    event_.all_day = true;
    event_.start = start.wall;
    event_.end = std::max<Moment>(end.wall, start.wall + days(1));
    start_time_.is_day = true;
    read_.zone = {};
    read_.shift = 0;
}

void EventReader::read_reminder() {
    for (const Part& alarm : alarms()) {
        const Trigger trigger = trigger_of(alarm);
        if (!event_.reminder && set_reminder(trigger)) continue;
        keep_part(alarm);
        if (trigger.wanted) {
            tell(trigger.line, "VALARM",
                 event_.reminder ? "a further one; kept, but nobody is reminded" : "kept, but nobody is reminded",
                 false);
        }
    }
}

// The reminder of an appointment comes whole minutes before its start.
bool EventReader::set_reminder(const Trigger& trigger) {
    seconds before{};
    if (trigger.span) {
        before = -*trigger.span - (trigger.from_end ? event_.end - event_.start : seconds(0));
    } else if (trigger.at && !rule_) {
        before = event_.start - device_time(*trigger.at);
    } else {
        return false;
    }
    if (before < seconds(0) || before % minutes(1) != seconds(0) || before > minutes(kMostMinutes)) return false;
    event_.reminder = true;
    event_.reminder_minutes = static_cast<int>(duration_cast<minutes>(before).count());
    return true;
}

// Whether the text of a rule says the same on the device.
bool EventReader::keeps_its_sense(const Property& rule) const {
    if (start_time_.is_day || start_time_.zone.kind == Zone::Kind::Floating) return true;
    const std::string text = upper(rule.content.value);
    return read_.shift == 0 && text.find("BYHOUR") == std::string::npos && text.find("BYMINUTE") == std::string::npos;
}

// The appointment is a single one. The rule is kept as text, if it may be.
bool EventReader::keep_rule(const Property& rule, const std::string& why) {
    const bool kept = keeps_its_sense(rule);
    is_held_ = false;
    if (kept) keep(rule.text);
    lost(rule, why + (kept ? "; kept, but the appointment is a single one" : "; the appointment is a single one"));
    return kept;
}

// Whoever reads what is kept follows the first rule. So a later one is kept only behind it.
void EventReader::read_rules() {
    const bool first_stays = read_rule();
    for (const Property& rule : more_rules_) {
        is_held_ = false;
        const bool kept = first_stays && keeps_its_sense(rule);
        if (kept) keep(rule.text);
        lost(rule, kept ? "a second rule; kept, but not followed" : "a second rule; not followed");
    }
}

// The last day, in DTSTART's zone, on which an occurrence is not behind UNTIL.
CalendarDay EventReader::last_day(const ZonedTime& until) const {
    if (until.is_day) return floor<days>(until.wall);
    if (start_time_.is_day) return floor<days>(until.wall);
    Moment wall = until.wall;
    if (until.zone.kind == Zone::Kind::Utc) wall = wall_of(utc_of(until.wall, until.zone), start_time_.zone);
    const CalendarDay day = floor<days>(wall);
    const seconds clock = start_time_.wall - floor<days>(start_time_.wall);
    return wall - day < clock ? day - days(1) : day;
}

// Whether the appointment follows the rule or keeps it.
bool EventReader::read_rule() {
    RuleStart start;
    start.wall = start_time_.wall;
    start.shift = read_.shift;
    start.last_day = [this](const ZonedTime& until) { return last_day(until); };
    const RulePattern rule = pattern_of_rule(std::string(trimmed(rule_->content.value)), start);
    if (!rule.pattern) return keep_rule(*rule_, rule.why);
    const CalendarDay day = floor<days>(event_.start);
    if (!is_storable(event_.end + (rule.first - day))) return keep_rule(*rule_, "begins behind the year 4500");
    if (!rule.exact) {
        is_held_ = false;
        lost(*rule_, rule.why);
    }
    if (rule.first != day) {
        lost(*rule_, "DTSTART is not one of its days; begins on " + shown_time(rule.first, true));
        const seconds length = event_.end - event_.start;
        const auto time = event_.start - day;
        event_.start = Moment(rule.first) + time;
        event_.end = event_.start + length;
    }
    event_.pattern = rule.pattern;
    check_times();
    return true;
}

// The store keeps the device's wall-clock time: a series of a zone that puts its clock on other days drifts. Three
// years show it, looked at once a week.
void EventReader::check_times() {
    if (start_time_.is_day || start_time_.zone.kind == Zone::Kind::Floating) return;
    const Pattern& pattern = *event_.pattern;
    const CalendarDay first = floor<days>(event_.start);
    const CalendarDay end = std::min(first + days(3 * 366), pattern.until.value_or(CalendarDay::max()));
    const seconds clock = event_.start - first;
    CalendarDay next = first;
    int count = 0;
    for (CalendarDay day = first; day <= end && (pattern.count == 0 || count < pattern.count); day += days(1)) {
        if (!occurs_on(pattern, first, day)) continue;
        ++count;
        if (day < next) continue;
        next = day + days(7);
        ZonedTime time = start_time_;
        time.wall += day - days(read_.shift) - floor<days>(time.wall);
        if (!is_storable(time.wall) || device_time(time) == day + clock) continue;
        is_held_ = false;
        return lost(*rule_, "its zone puts the clock on other days than the device's; times are off from about " +
                                shown_time(day, true) + " on for a while");
    }
}

void EventReader::read_dates() {
    for (const Property& property : date_lists_) {
        std::string_view values = property.content.value;
        while (!values.empty()) {
            const std::size_t end = std::min(values.find(','), values.size());
            const std::string value(trimmed(values.substr(0, end)));
            values.remove_prefix(std::min(end + 1, values.size()));
            if (!value.empty()) read_date(property, value);
        }
    }
}

// A period is a time and an end, which may be a duration.
void EventReader::read_date(const Property& property, const std::string& value) {
    const std::size_t slash = value.find('/');
    const std::optional<ZonedTime> time = time_of(property, value.substr(0, slash));
    if (!time) return;
    Date date = {&property, value, *time, {}};
    if (slash != std::string::npos && span_) date.end = end_of_period(property, *time, value.substr(slash + 1));
    dates_.push_back(std::move(date));
}

std::optional<ZonedTime> EventReader::end_of_period(const Property& property, const ZonedTime& start,
                                                    const std::string& end) {
    ZonedTime time = start;
    if (parse_time(end, time)) return time;
    Property duration = property;
    duration.content.value = end;
    return time_after(start, duration);
}

void EventReader::follow_dates() {
    for (const Date& date : dates_) {
        follow_date(date);
    }
    auto& changes = event_.changes;
    std::sort(changes.begin(), changes.end(), [](const Change& a, const Change& b) { return a.day < b.day; });
    const auto same = [](const Change& a, const Change& b) { return a.day == b.day; };
    changes.erase(std::unique(changes.begin(), changes.end(), same), changes.end());
}

void EventReader::follow_date(const Date& date) {
    const Property& property = *date.property;
    const ZonedTime& time = date.time;
    const bool added = property.content.is("RDATE");
    if (added && device_time(time) == event_.start) return;
    if (event_.pattern && !added) {
        const CalendarDay day = read_.day_of(time);
        if (!occurs_on(*event_.pattern, floor<days>(event_.start), day)) {
            return warn(property, date.value + " is no day of the series");
        }
        event_.changes.push_back({day, true, {}});
        return;
    }
    if (added) {
        is_held_ = false;
        lost(property, date.value + " is kept, but the appointment does not occur then");
    }
    const std::size_t slash = date.value.find('/');
    std::string line = upper(property.content.name);
    std::string rest;
    if (slash != std::string::npos) {
        line += ";VALUE=PERIOD";
        ZonedTime end = time;
        const std::string end_text = date.value.substr(slash + 1);
        rest = "/" + (parse_time(end_text, end) ? portable_time(end) : end_text);
    } else if (time.is_day) {
        line += ";VALUE=DATE";
    }
    keep(line + ":" + portable_time(time) + rest);
}

class TaskReader final : public ComponentReader {
public:
    TaskReader(const RawComponent& raw, CalendarZones& zones, Task& task, std::vector<Problem>& problems)
        : ComponentReader(raw, zones, problems), task_(task) {}

    bool read();

private:
    bool take(const Property& property) override;
    bool take_progress(const Property& property);
    bool take_recurrence(const Property& property);
    void read_times();
    void read_reminder();

    Task& task_;
    std::optional<Property> start_;
    std::optional<Property> due_;
    std::optional<Property> duration_;
    std::optional<ZonedTime> start_time_;
    std::optional<ZonedTime> due_time_;
    bool has_priority_ = false;
};

bool TaskReader::read() {
    walk();
    task_.uid = uid();
    read_times();
    read_reminder();
    task_.extras = extras();
    return true;
}

bool TaskReader::take(const Property& property) {
    return take_text(property, "SUMMARY", task_.subject) || take_text(property, "DESCRIPTION", task_.body) ||
           take_categories(property, task_.categories) || take_class(property, task_.sensitivity) ||
           take_first(property, "DTSTART", start_) || take_first(property, "DUE", due_) ||
           take_first(property, "DURATION", duration_) || take_progress(property) || take_recurrence(property) ||
           take_own(property, task_.reminder_options, task_.reminder_sound);
}

bool TaskReader::take_progress(const Property& property) {
    const std::string value = upper(trimmed(property.content.value));
    if (property.content.is("STATUS") && value == "COMPLETED") {
        task_.complete = true;
        return true;
    }
    if (property.content.is("COMPLETED") || (property.content.is("PERCENT-COMPLETE") && value == "100")) {
        task_.complete = true;
        return false;
    }
    if (property.content.is("PRIORITY")) {
        if (std::exchange(has_priority_, true)) {
            lost(property, "given twice");
            return true;
        }
        const int priority = priority_of(value);
        task_.importance = importance_of(priority);
        // The exact one is kept as long as it means the same.
        return priority <= 0 || priority == 1 || priority == 5 || priority == 9;
    }
    if (property.content.is("ATTACH")) warn(property, "kept, but not shown");
    return false;
}

bool TaskReader::take_recurrence(const Property& property) {
    for (const char* name : {"RRULE", "EXRULE", "RDATE", "EXDATE", "RECURRENCE-ID"}) {
        if (property.content.is(name)) lost(property, "kept, but the task is a single one");
    }
    return false;
}

void TaskReader::read_times() {
    if (start_) start_time_ = time_of(*start_);
    if (due_) {
        due_time_ = time_of(*due_);
    } else if (duration_ && start_time_) {
        due_time_ = time_after(*start_time_, *duration_);
    }
    if (start_time_) task_.start = device_time(*start_time_);
    if (due_time_) task_.due = device_time(*due_time_);
}

void TaskReader::read_reminder() {
    for (const Part& alarm : alarms()) {
        const Trigger trigger = trigger_of(alarm);
        std::optional<Moment> at;
        if (trigger.at) at = device_time(*trigger.at);
        const std::optional<Moment>& base = trigger.from_end || !task_.start ? task_.due : task_.start;
        if (trigger.span && base) at = *base + *trigger.span;
        if (at && is_storable(*at) && !task_.reminder) {
            task_.reminder = at;
            continue;
        }
        keep_part(alarm);
        if (trigger.wanted) tell(trigger.line, "VALARM", "kept, but nobody is reminded", false);
    }
}

}  // namespace

CalendarDay ReadEvent::day_of(const ZonedTime& occurrence) const {
    if (occurrence.is_day || event.all_day) return floor<days>(occurrence.wall) + days(event.all_day ? 0 : shift);
    const Moment wall =
        occurrence.zone == zone ? occurrence.wall : wall_of(utc_of(occurrence.wall, occurrence.zone), zone);
    return floor<days>(wall) + days(shift);
}

Event ReadEvent::event_at(const OccurrenceTime& occurrence) const {
    Event one = event;
    one.start = device_time(occurrence.time);
    ZonedTime end = occurrence.end.value_or(occurrence.time);
    if (!occurrence.end && length_by_clock) {
        end.wall += length;
    } else if (!occurrence.end) {
        end.wall = wall_of(utc_of(end.wall, end.zone) + length, end.zone);
    }
    one.end = std::max(device_time(end), one.start);
    one.extras += recurrence_line(occurrence.time);
    return one;
}

std::string recurrence_line(const ZonedTime& occurrence) {
    return (occurrence.is_day ? "RECURRENCE-ID;VALUE=DATE:" : "RECURRENCE-ID:") + portable_time(occurrence) + "\n";
}

bool read_event(const RawComponent& raw, CalendarZones& zones, ReadEvent& read, std::vector<Problem>& problems,
                const std::optional<DaySpan>& span) {
    read = {};
    return EventReader(raw, zones, read, problems, span).read();
}

bool read_task(const RawComponent& raw, CalendarZones& zones, Task& task, std::vector<Problem>& problems) {
    task = {};
    return TaskReader(raw, zones, task, problems).read();
}

}  // namespace zr
