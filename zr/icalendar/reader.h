#pragma once

// Calendars, as real programs write them, to appointments and tasks.
//
//   LineReader lines(read_from_descriptor(fd));
//   CalendarReader reader(lines);
//   CalendarReader::Item item;
//   while (reader.next(item)) { ... }
//
// One component is in memory at a time, but for what the rest of its calendar may change: series, whose overrides stand
// anywhere, and what names a zone that is not defined yet. Not for more than one thread at a time.

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "zr/base/line_reader.h"
#include "zr/base/problem.h"
#include "zr/icalendar/event.h"
#include "zr/icalendar/event_reader.h"
#include "zr/icalendar/splitter.h"
#include "zr/icalendar/zones.h"

namespace zr {

class CalendarReader {
public:
    enum class Kind { Event, Task, LeftOut };
    struct Item {
        Kind kind = Kind::LeftOut;
        Event event;
        bool of_series = false;  // one occurrence of what was expanded
        Task task;
        std::vector<Problem> problems;  // found in it
    };

    // With a span, recurrence sets that no pattern holds come as the occurrences that they have within it.
    explicit CalendarReader(LineReader& lines, const std::optional<DaySpan>& span = {})
        : splitter_(lines), span_(span) {}

    // The next one; false at the end of the text.
    bool next(Item& item);
    // Whether there was a calendar by now, an empty one perhaps.
    bool any_calendar() const { return any_calendar_; }

private:
    struct Held {
        ReadEvent read;
        std::vector<Problem> problems;
    };
    struct Waiting {
        RawComponent raw;
        std::vector<Problem> problems;
    };

    void take(RawComponent& raw, std::vector<Problem>& problems);
    void read(const RawComponent& raw, std::vector<Problem>& problems);
    void leave_out(std::vector<Problem>& problems);
    bool waits_for_zone(const RawComponent& raw) const;
    void end_calendar();
    void apply(Held& change);
    void apply_to_expanded(Held& series, Held& change);
    bool next_of_expanded(Item& item);
    void add_event(Event& event, std::vector<Problem>& problems);

    CalendarSplitter splitter_;
    std::optional<DaySpan> span_;
    bool any_calendar_ = false;
    CalendarZones zones_;
    std::deque<Waiting> waiting_;  // for a zone
    std::vector<Held> series_;
    std::multimap<std::string, std::size_t> series_by_uid_;
    std::vector<Held> overrides_;
    std::deque<Held> expanded_;  // of the calendar that is over, its zones with them; occurrences are made one by one
    std::size_t next_occurrence_ = 0;
    std::deque<Item> ready_;
};

}  // namespace zr
