#pragma once

// Random appointments and tasks as the contact store can hold them.

#include <platform/platform.h>

#include <algorithm>
#include <random>
#include <string>

#include "zr/icalendar/calendars.h"
#include "zr/icalendar/recurrence.h"

namespace zr::test {

class RandomCalendar {
public:
    explicit RandomCalendar(unsigned seed) : random_(seed) {}

    int number(int from, int to) { return std::uniform_int_distribution<int>(from, to)(random_); }
    bool one_in(int n) { return number(1, n) == 1; }

    std::string text() {
        static const char* pieces[] = {"a", "Z", " ", ",", ";", ":", "\\", "\n", "\"", "é", "山", "🙂", "\t", "n"};
        std::string out;
        for (int i = number(0, 3) == 0 ? number(0, 120) : number(0, 12); i > 0; --i) {
            out += pieces[number(0, 13)];
        }
        // libical takes blanks alone for no value.
        return out.find_first_not_of(" \t") == std::string::npos ? out + "x" : out;
    }

    void fields(EventFields& event, CalendarDay day, bool all_day) {
        event.subject = text();
        event.location = one_in(2) ? text() : "";
        event.body = one_in(3) ? text() : "";
        event.categories = one_in(3) ? "One, " + text() : "";
        event.all_day = all_day;
        event.start = all_day ? Moment(day) : day + std::chrono::minutes(number(0, 24 * 60 - 1));
        event.end = all_day ? event.start + std::chrono::days(number(1, 9))
                            : event.start + std::chrono::seconds(one_in(5) ? number(0, 99999) : 60 * number(0, 600));
        event.busy = number(0, 3);
        event.sensitivity = number(0, 3);
        static const int meetings[] = {olNonMeeting, olMeeting, olMeetingReceived, olMeetingCanceled};
        event.meeting = meetings[number(0, 3)];
        event.reminder = one_in(2);
        event.reminder_minutes = event.reminder ? number(0, 20000) : 0;
        event.reminder_options = one_in(4) ? number(1, 31) : 0;
        event.reminder_sound = one_in(4) ? "\\Windows\\Bell.wav" : "";
        event.extras = one_in(3)
                           ? "X-KEPT;A=\"b:c\":" + std::to_string(number(0, 99)) + "\nBEGIN:X-PART\nX-A:b\nEND:X-PART\n"
                           : "";
    }

    Pattern pattern(CalendarDay first) {
        Pattern made;
        static const int types[] = {olRecursDaily,    olRecursWeekly, olRecursMonthly,
                                    olRecursMonthNth, olRecursYearly, olRecursYearNth};
        made.type = types[number(0, 5)];
        made.interval = one_in(2) ? 1 : number(1, 6);
        const bool nth = made.type == olRecursMonthNth || made.type == olRecursYearNth;
        if (made.type == olRecursWeekly || nth) made.weekdays = one_in(2) ? 1 << number(0, 6) : number(1, 127);
        if (nth) made.instance = number(1, 5);
        if (made.type == olRecursYearly || made.type == olRecursYearNth) made.month = number(1, 12);
        if (made.type == olRecursMonthly) made.day_of_month = one_in(2) ? number(1, 31) : number(28, 31);
        if (made.type == olRecursYearly) made.day_of_month = number(1, 28);
        if (one_in(3)) return made;
        made.until = first + std::chrono::days(number(3000, 5000));
        return made;
    }

    Event event(int i) {
        Event made;
        made.uid = "uid-" + std::to_string(i) + "@test";
        const CalendarDay day = on(2000, 1, 1) + std::chrono::days(number(0, 12000));
        const bool all_day = one_in(4);
        fields(made, day, all_day);
        if (!one_in(2)) return made;
        made.pattern = pattern(day);
        CalendarDay first = day;
        // The first day that fits, by trying.
        for (;; first += std::chrono::days(1)) {
            Pattern weekly = *made.pattern;
            weekly.interval = 1;
            if (occurs_on(weekly, first, first)) break;
        }
        const auto length = made.end - made.start;
        made.start = first + (made.start - day);
        made.end = made.start + length;
        // The store's series end with an occurrence.
        while (made.pattern->until && !occurs_on(*made.pattern, first, *made.pattern->until)) {
            *made.pattern->until -= std::chrono::days(1);
        }
        CalendarDay at = first;
        for (int change = number(0, 4); change > 0; --change) {
            const CalendarDay end = at + std::chrono::days(500);
            for (at += std::chrono::days(number(1, 60)); at < end && !occurs_on(*made.pattern, first, at);) {
                at += std::chrono::days(1);
            }
            if (at == end || (made.pattern->until && at > *made.pattern->until)) break;
            Change changed;
            changed.day = at;
            changed.deleted = one_in(2);
            if (!changed.deleted) {
                changed.fields = made;
                changed.fields.subject = text();
                changed.fields.start = at + std::chrono::minutes(all_day ? 0 : number(0, 1000));
                changed.fields.end = changed.fields.start + length;
                if (one_in(2)) changed.fields.location = text();
                if (one_in(2)) changed.fields.busy = number(0, 3);
                if (one_in(3)) changed.fields.extras = "X-OTHER:1\n";
                if (one_in(3)) fields(changed.fields, at, one_in(2));
            }
            made.changes.push_back(changed);
        }
        return made;
    }

    Task task(int i) {
        Task made;
        made.uid = "task-" + std::to_string(i) + "@test";
        made.subject = text();
        made.body = one_in(3) ? text() : "";
        made.categories = one_in(3) ? text() : "";
        if (one_in(2)) made.start = at(2026, 1, 1) + std::chrono::days(number(0, 300));
        if (one_in(2)) made.due = at(2027, 1, 1) + std::chrono::days(number(0, 300));
        made.importance = number(0, 2);
        made.sensitivity = number(0, 3);
        made.complete = one_in(2);
        if (one_in(3)) made.reminder = at(2026, 2, 1, 9) + std::chrono::days(number(0, 300));
        made.reminder_options = one_in(4) ? number(1, 31) : 0;
        made.extras = one_in(3) ? "X-KEPT:1\n" : "";
        return made;
    }

private:
    std::mt19937 random_;
};

}  // namespace zr::test
