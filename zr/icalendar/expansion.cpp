#include "zr/icalendar/expansion.h"

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "zr/base/text.h"
#include "zr/icalendar/libical.h"
#include "zr/icalendar/recurrence.h"

namespace zr {
namespace {

using namespace std::chrono;

// A rule by seconds may look at each of them.
constexpr std::int64_t kMostSteps = 500000;
constexpr int kLongestInterval = 32767;

icaltimetype to_ical(Moment time, bool is_day) {
    const auto day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    icaltimetype out = icaltime_null_time();
    out.year = int(date.year());
    out.month = static_cast<int>(unsigned(date.month()));
    out.day = static_cast<int>(unsigned(date.day()));
    out.is_date = is_day ? 1 : 0;
    if (is_day) return out;
    out.hour = static_cast<int>(clock.hours().count());
    out.minute = static_cast<int>(clock.minutes().count());
    out.second = static_cast<int>(clock.seconds().count());
    return out;
}

Moment from_ical(const icaltimetype& time) {
    const CalendarDay day = local_days(year(time.year) / time.month / time.day);
    return day + hours(time.hour) + minutes(time.minute) + seconds(time.second);
}

// What tells one occurrence from another.
Moment key_of(const ZonedTime& time) {
    return time.is_day ? time.wall : Moment(utc_of(time.wall, time.zone).time_since_epoch());
}

class Expander {
public:
    Expander(const RecurrenceSet& set, const DaySpan& span) : set_(set), span_(span) {}

    Expansion expand();

private:
    using Found = std::function<void(Moment wall)>;
    bool follow(const std::string& value, const Found& found);
    bool is_bounded(const icalrecurrencetype& rule, int interval) const;
    Moment last_wall(const icaltimetype& until) const;
    ZonedTime at(Moment wall) const;
    void add(const ZonedTime& time, const std::optional<ZonedTime>& end);
    void remove_excluded();

    const RecurrenceSet& set_;
    const DaySpan& span_;
    std::map<Moment, OccurrenceTime> found_;
    Expansion result_;
};

ZonedTime Expander::at(Moment wall) const {
    ZonedTime time = set_.start;
    time.wall = wall;
    return time;
}

void Expander::add(const ZonedTime& time, const std::optional<ZonedTime>& end) {
    const CalendarDay day = floor<days>(device_time(time));
    if (day >= span_.from && day <= span_.to) found_.try_emplace(key_of(time), OccurrenceTime{time, end});
}

// The last time of the clock in the start's zone that may matter.
Moment Expander::last_wall(const icaltimetype& until) const {
    // Zones are less than two days from each other.
    const Moment end = span_.to + days(3) - seconds(1);
    if (icaltime_is_null_time(until) || until.year > int(year_month_day(span_.to).year()) + 1) return end;
    Moment wall = from_ical(until);
    if (until.is_date) wall += set_.start.is_day ? days(0) : days(1) - seconds(1);
    if (!until.is_date && set_.start.is_day) wall = floor<days>(wall);
    if (icaltime_is_utc(until) && !set_.start.is_day && is_storable(wall))
        wall = wall_of(sys_seconds(wall.time_since_epoch()), set_.start.zone);
    return std::min(wall, end);
}

bool Expander::is_bounded(const icalrecurrencetype& rule, int interval) const {
    const seconds step = rule.freq == ICAL_SECONDLY_RECURRENCE   ? seconds(1)
                         : rule.freq == ICAL_MINUTELY_RECURRENCE ? seconds(minutes(1))
                         : rule.freq == ICAL_HOURLY_RECURRENCE   ? seconds(hours(1))
                                                                 : seconds(days(1));
    return (Moment(span_.to) - set_.start.wall) / (step * interval) <= kMostSteps;
}

bool Expander::follow(const std::string& value, const Found& found) {
    const auto fail = [&](const char* why) {
        result_.why = why;
        return false;
    };
    const int interval = interval_of_rule(value, kLongestInterval);
    icalrecurrencetype rule = icalrecurrencetype_from_string(value.c_str());
    if (rule.freq == ICAL_NO_RECURRENCE) return fail("no rule that can be read");
    if (interval == 0) return fail("an interval that is not from 1 to 32767");
    if (!is_bounded(rule, interval)) return fail("too many steps from its start to the last of the days");
    const Moment last = last_wall(rule.until);
    if (last < set_.start.wall) return true;
    rule.until = to_ical(last, set_.start.is_day);
    const std::unique_ptr<icalrecur_iterator, void (*)(icalrecur_iterator*)> each(
        icalrecur_iterator_new(rule, to_ical(set_.start.wall, set_.start.is_day)), icalrecur_iterator_free);
    if (!each) return fail("no rule that can be followed");
    for (icaltimetype next = icalrecur_iterator_next(each.get()); !icaltime_is_null_time(next);
         next = icalrecur_iterator_next(each.get())) {
        const Moment wall = from_ical(next);
        if (wall > last) break;
        if (is_storable(wall)) found(wall);
    }
    return true;
}

void Expander::remove_excluded() {
    std::set<CalendarDay> whole_days;
    for (const ZonedTime& time : set_.excluded_dates) {
        if (time.is_day) whole_days.insert(floor<days>(time.wall));
        if (set_.start.is_day) whole_days.insert(floor<days>(time.wall));
        found_.erase(key_of(time));
    }
    std::erase_if(found_, [&](const auto& one) { return whole_days.contains(floor<days>(one.second.time.wall)); });
}

Expansion Expander::expand() {
    start_libical();
    if (set_.rules.empty()) add(set_.start, {});
    for (const std::string& rule : set_.rules) {
        if (!follow(rule, [&](Moment wall) { add(at(wall), {}); })) return result_;
    }
    for (const RecurrenceSet::Date& date : set_.dates) {
        add(date.time, date.end);
    }
    for (const std::string& rule : set_.excluded_rules) {
        if (!follow(rule, [&](Moment wall) { found_.erase(key_of(at(wall))); })) return result_;
    }
    remove_excluded();
    for (const auto& [key, occurrence] : found_) {
        if (result_.occurrences.size() == Expansion::kMost) {
            result_.cut = true;
            break;
        }
        result_.occurrences.push_back(occurrence);
    }
    return std::move(result_);
}

}  // namespace

Expansion expand(const RecurrenceSet& set, const DaySpan& span) {
    return Expander(set, span).expand();
}

}  // namespace zr
