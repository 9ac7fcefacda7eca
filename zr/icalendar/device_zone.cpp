#include "zr/icalendar/device_zone.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "zr/base/content_line.h"

namespace zr {
namespace {

using namespace std::chrono;

constexpr year kLastListedYear{2100};
// No zone has changed its clock twice within less, but for corrections that were taken back at once.
constexpr seconds kStep = days(4);

struct ZoneState {
    int offset = 0;
    bool daylight = false;
    std::string name;
};

tm broken_down(sys_seconds utc) {
    static const bool ready = (::tzset(), true);
    static_cast<void>(ready);
    const time_t time = utc.time_since_epoch().count();
    tm parts = {};
    ::localtime_r(&time, &parts);
    return parts;
}

ZoneState state_at(sys_seconds utc) {
    const tm parts = broken_down(utc);
    return {static_cast<int>(parts.tm_gmtoff), parts.tm_isdst > 0, parts.tm_zone ? parts.tm_zone : ""};
}

int offset_at(sys_seconds utc) {
    return static_cast<int>(broken_down(utc).tm_gmtoff);
}

// The name that a path to a zone file ends with.
std::string below_zoneinfo(std::string_view path) {
    constexpr std::string_view folder = "/zoneinfo/";
    const std::size_t at = path.find(folder);
    return at == std::string_view::npos ? std::string() : std::string(path.substr(at + folder.size()));
}

// One yearly rule in the making: what all changes of a run have in common.
struct Run {
    ZoneChange first;
    sys_seconds last;
    int last_year;
    int changes = 1;
    unsigned month;
    weekday on;
    seconds time;       // of day, on the clock that is put
    unsigned earliest;  // the smallest and the largest day of the month so far
    unsigned latest;
    bool always_last = true;  // each is the last such weekday of its month
    bool same_weekday = true;
};

struct Wall {
    year_month_day date;
    seconds time;
};

Wall wall_of(const ZoneChange& change) {
    const auto local = change.at + seconds(change.before);
    const auto day = floor<days>(local);
    return {year_month_day(day), local - day};
}

bool is_last_week(year_month_day date) {
    return unsigned(date.day()) + 7 > unsigned((date.year() / date.month() / last).day());
}

Run begin_run(const ZoneChange& change) {
    const Wall wall = wall_of(change);
    const unsigned day = unsigned(wall.date.day());
    return {change,
            change.at,
            int(wall.date.year()),
            1,
            unsigned(wall.date.month()),
            weekday(sys_days(wall.date)),
            wall.time,
            day,
            day,
            is_last_week(wall.date)};
}

// Whether the run with this change too is still what one yearly rule says.
bool extend_run(Run& run, const ZoneChange& change) {
    const Wall wall = wall_of(change);
    const unsigned day = unsigned(wall.date.day());
    if (int(wall.date.year()) != run.last_year + 1 || unsigned(wall.date.month()) != run.month ||
        wall.time != run.time || change.before != run.first.before || change.after != run.first.after ||
        change.daylight != run.first.daylight || change.name != run.first.name) {
        return false;
    }
    const unsigned earliest = std::min(run.earliest, day);
    const unsigned latest = std::max(run.latest, day);
    const bool same_weekday = run.same_weekday && weekday(sys_days(wall.date)) == run.on;
    const bool always_last = run.always_last && is_last_week(wall.date);
    // A weekday within seven days, the last one of the month, or the same day of the month.
    if (!(same_weekday && (latest - earliest < 7 || always_last)) && earliest != latest) return false;
    run.earliest = earliest;
    run.latest = latest;
    run.same_weekday = same_weekday;
    run.always_last = always_last;
    run.last = change.at;
    ++run.last_year;
    ++run.changes;
    return true;
}

std::vector<Run> runs_of(const std::vector<ZoneChange>& changes) {
    std::vector<Run> runs;
    std::vector<std::size_t> open;  // those that may go on
    for (const ZoneChange& change : changes) {
        const auto extended =
            std::find_if(open.begin(), open.end(), [&](std::size_t i) { return extend_run(runs[i], change); });
        if (extended != open.end()) continue;
        open.push_back(runs.size());
        runs.push_back(begin_run(change));
        const int year = runs.back().last_year;
        std::erase_if(open, [&](std::size_t i) { return runs[i].last_year + 1 < year; });
    }
    return runs;
}

const char* weekday_name(weekday day) {
    static constexpr const char* names[] = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};
    return names[day.c_encoding()];
}

std::string day_rule(const Run& run) {
    if (!run.same_weekday) return "BYMONTHDAY=" + std::to_string(run.earliest);
    const std::string name = weekday_name(run.on);
    if (run.always_last) return "BYDAY=-1" + name;
    for (unsigned nth = 1; nth <= 4; ++nth) {
        if (run.earliest > (nth - 1) * 7 && run.latest <= nth * 7) return "BYDAY=" + std::to_string(nth) + name;
    }
    std::string rule = "BYDAY=" + name + ";BYMONTHDAY=";
    for (unsigned day = run.latest - 6; day <= run.latest; ++day) {
        rule += (day == run.latest - 6 ? "" : ",") + std::to_string(day);
    }
    return rule;
}

std::string utc_text(sys_seconds utc) {
    return time_text(Moment(utc.time_since_epoch()));
}

std::string offset_text(int offset) {
    const int size = std::abs(offset);
    char text[24];
    std::snprintf(text, sizeof text, size % 60 ? "%c%02d%02d%02d" : "%c%02d%02d", offset < 0 ? '-' : '+', size / 3600,
                  size / 60 % 60, size % 60);
    return text;
}

void append_observance(std::string& out, const ZoneChange& change, const std::string& more) {
    const char* kind = change.daylight ? "DAYLIGHT" : "STANDARD";
    append_folded(out, std::string("BEGIN:") + kind);
    append_folded(out, "DTSTART:" + utc_text(change.at + seconds(change.before)));
    append_folded(out, "TZOFFSETFROM:" + offset_text(change.before));
    append_folded(out, "TZOFFSETTO:" + offset_text(change.after));
    if (!change.name.empty()) append_folded(out, "TZNAME:" + change.name);
    if (!more.empty()) append_folded(out, more);
    append_folded(out, std::string("END:") + kind);
}

void append_run(std::string& out, const Run& run) {
    // Two changes are no rule yet.
    if (run.changes < 3 && run.last_year < int(kLastListedYear)) {
        append_observance(out, run.first, {});
        const ZoneChange last = {run.last, run.first.before, run.first.after, run.first.daylight, run.first.name};
        if (run.changes > 1) append_observance(out, last, {});
        return;
    }
    std::string rule = "RRULE:FREQ=YEARLY;BYMONTH=" + std::to_string(run.month) + ";" + day_rule(run);
    if (run.last_year < int(kLastListedYear)) rule += ";UNTIL=" + utc_text(run.last) + "Z";
    append_observance(out, run.first, rule);
}

}  // namespace

Moment device_time(sys_seconds utc) {
    return Moment((utc + seconds(offset_at(utc))).time_since_epoch());
}

sys_seconds device_utc(Moment time) {
    const sys_seconds guess(time.time_since_epoch());
    // The offsets around the time: one of them is the right one, but in a gap, where the earlier one counts.
    const int before = offset_at(guess - days(1));
    const int after = offset_at(guess + days(1));
    for (const int offset : {before, after, offset_at(guess)}) {
        if (offset_at(guess - seconds(offset)) == offset) return guess - seconds(offset);
    }
    return guess - seconds(before);
}

std::string device_zone_id() {
    if (const char* zone = ::getenv("TZ")) {
        std::string id = *zone == ':' ? zone + 1 : zone;
        if (id.starts_with('/')) {
            std::string name = below_zoneinfo(id);
            if (!name.empty()) return name;
        }
        // A name may stand between quotes in a calendar, but hold none.
        std::erase_if(id, [](char c) { return c == '"' || static_cast<unsigned char>(c) < ' '; });
        return id.empty() ? "UTC" : id;
    }
    char target[4096];
    const ssize_t length = ::readlink("/etc/localtime", target, sizeof target);
    std::string id = length > 0 ? below_zoneinfo({target, static_cast<std::size_t>(length)}) : std::string();
    if (!id.empty()) return id;
    return device_is_utc() ? "UTC" : "Local";
}

bool device_is_utc() {
    const sys_seconds begin = sys_days(year(1900) / 1 / 1);
    return offset_at(begin) == 0 && zone_changes(begin, sys_days(kLastListedYear / 1 / 1)).empty();
}

std::vector<ZoneChange> zone_changes(sys_seconds from, sys_seconds to) {
    std::vector<ZoneChange> changes;
    ZoneState before = state_at(from - seconds(1));
    for (sys_seconds at = from - seconds(1); at < to; at += kStep) {
        const sys_seconds end = std::min(at + kStep, to - seconds(1));
        ZoneState after = state_at(end);
        if (after.offset == before.offset) {
            before = std::move(after);
            continue;
        }
        sys_seconds low = at;
        sys_seconds high = end;
        while (high - low > seconds(1)) {
            const sys_seconds middle = low + (high - low) / 2;
            (offset_at(middle) == before.offset ? low : high) = middle;
        }
        ZoneState there = state_at(high);
        changes.push_back({high, before.offset, there.offset, there.daylight, there.name});
        before = std::move(there);
        at = high - kStep;  // there may be another one close behind
    }
    return changes;
}

void append_device_vtimezone(std::string& out, int first_year) {
    const sys_seconds begin = sys_days(year(first_year) / 1 / 1) - days(2);
    const sys_seconds end = sys_days((kLastListedYear + years(1)) / 1 / 1);
    const ZoneState state = state_at(begin);
    append_folded(out, "BEGIN:VTIMEZONE");
    std::string id = "TZID:";
    append_escaped_text(id, device_zone_id());
    append_folded(out, id);
    append_observance(out, {begin, state.offset, state.offset, state.daylight, state.name}, {});
    for (const Run& run : runs_of(zone_changes(begin + seconds(1), end))) {
        append_run(out, run);
    }
    append_folded(out, "END:VTIMEZONE");
}

}  // namespace zr
