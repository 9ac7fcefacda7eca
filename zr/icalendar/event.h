#pragma once

// One appointment or task as zr carries it between a calendar file, the contact store and the terminal. All text is
// UTF-8, all times are the device's local time, as the store keeps them.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zr {

using Moment = std::chrono::local_seconds;
using CalendarDay = std::chrono::local_days;

// Of an appointment that no time was given.
inline constexpr Moment kNoTime = Moment::min();

// When a series occurs: at most once a day. Numbers are those of the contact store (OlRecurrenceType, OlDaysOfWeek).
struct Pattern {
    int type = 0;
    int interval = 1;
    int weekdays = 0;      // OlDaysOfWeek
    int instance = 0;      // of those weekdays in the month: 1 to 4, 5 for the last
    int day_of_month = 0;  // a shorter month has it on its last day
    int month = 0;
    // The end: a number of occurrences (deleted ones too) or a day after which there is none; neither: no end.
    int count = 0;
    std::optional<CalendarDay> until;

    bool operator==(const Pattern&) const = default;
};

// The fields that an appointment has, and each changed occurrence of a series.
struct EventFields {
    std::string subject;
    std::string location;
    std::string body;
    std::string categories;
    Moment start{};
    Moment end{};
    bool all_day = false;
    int busy = 2;         // OlBusyStatus
    int sensitivity = 0;  // OlSensitivity
    int meeting = 0;      // OlMeetingStatus
    bool reminder = false;
    int reminder_minutes = 0;  // before the start, where there is a reminder
    int reminder_options = 0;  // OlReminderOptions
    std::string reminder_sound;
    // Properties and components that no field holds, as unfolded content lines each ended by LF, in the file's order.
    // An export writes them back as they are.
    std::string extras;

    bool operator==(const EventFields&) const = default;
};

// An occurrence that is not as its series says.
struct Change {
    CalendarDay day{};  // on which the pattern has it
    bool deleted = false;
    EventFields fields;  // of one that is not deleted

    bool operator==(const Change&) const = default;
};

struct Event : EventFields {
    std::string uid;
    std::optional<Pattern> pattern;
    std::vector<Change> changes;  // of a series, by day, one for a day

    bool operator==(const Event&) const = default;
};

struct Task {
    std::string subject;
    std::string body;
    std::string categories;
    std::optional<Moment> start;
    std::optional<Moment> due;
    int importance = 1;   // OlImportance
    int sensitivity = 0;  // OlSensitivity
    bool complete = false;
    std::optional<Moment> reminder;
    int reminder_options = 0;  // OlReminderOptions
    std::string reminder_sound;
    std::string uid;
    std::string extras;  // as in EventFields

    bool operator==(const Task&) const = default;
};

// The number that a PRIORITY is, 0 for none, and the OlImportance that it means.
int priority_of(std::string_view value);
int importance_of(int priority);

// The store keeps times from 1601 to 4500.
bool is_storable(Moment time);

// As calendar files write them: 20260131 and 20260131T090000.
std::string day_text(CalendarDay day);
std::string time_text(Moment time);
// For people: 2026-01-31 09:00 or 2026-01-31; nothing for kNoTime.
std::string shown_time(Moment time, bool is_day);

}  // namespace zr
