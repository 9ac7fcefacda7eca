// zr calendar list: the appointments in the order of their starts, the occurrences of some days, or the tasks.

#include <algorithm>
#include <map>
#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/table.h"
#include "zr/base/text.h"
#include "zr/commands/calendar_day.h"
#include "zr/commands/command.h"
#include "zr/stores/calendar.h"

namespace zr {
namespace {

struct CalendarListOptions {
    bool tasks = false;
    std::string from;
    std::string to;
    std::string subject;
    bool descending = false;
    LONG limit = 0;
    bool json = false;
};

// Counts what is listed.
class Listing {
public:
    explicit Listing(const CalendarListOptions& options)
        : options_(options),
          subject_(folded(options.subject)),
          table_(options.tasks ? task_columns() : event_columns()) {
        page_output();
    }

    bool is_full() const { return options_.limit > 0 && count_ >= options_.limit; }
    bool wants(const std::string& subject) const { return contains_folded(subject, subject_); }
    void add(const Json& json, const std::string& line) {
        ++count_;
        if (options_.json) {
            array_.add(json);
        } else {
            table_.add(line);
        }
    }
    bool finish() {
        table_.finish();
        if (options_.json) array_.finish();
        return count_ > 0;
    }

private:
    const CalendarListOptions& options_;
    const std::string subject_;
    JsonArray array_;
    Table table_;
    LONG count_ = 0;
};

// What occurrences belong to.
class SeriesOfOccurrences {
public:
    explicit SeriesOfOccurrences(CalendarStore& store) : store_(store) {}

    // Whether the occurrence is not as its series says.
    bool has_changed(LONG oid, const EventFields& fields) {
        const std::vector<Change>& changes = with_number(oid).changes;
        return std::any_of(changes.begin(), changes.end(),
                           [&](const Change& change) { return !change.deleted && change.fields == fields; });
    }
    std::string uid(LONG oid) { return with_number(oid).uid; }

private:
    struct Known {
        std::string uid;
        std::vector<Change> changes;
    };

    const Known& with_number(LONG oid) {
        const auto known = known_.find(oid);
        if (known != known_.end()) return known->second;
        const ComPtr<IAppointment> item = store_.appointment(oid);
        if (!item) return known_.emplace(oid, Known()).first->second;
        Event event = read_appointment(item.get());
        return known_.emplace(oid, Known{uid_of(item.get()), std::move(event.changes)}).first->second;
    }

    CalendarStore& store_;
    std::map<LONG, Known> known_;
};

bool list_appointments(CalendarStore& store, const CalendarListOptions& options) {
    const bool some = !options.from.empty() || !options.to.empty();
    if (some) {
        const CalendarDay from =
            options.from.empty() ? parse_day("--from", "1601-01-01") : parse_day_words("--from", options.from);
        const CalendarDay base = options.from.empty() ? today() : from;
        const CalendarDay to = options.to.empty() ? from : parse_day_words("--to", options.to, base);
        if (to < from)
            throw Failure{Exit::Usage,
                          "list: --from " + shown_time(from, true) + " is after --to " + shown_time(to, true)};
        store.restrict_to(from, to + std::chrono::days(1));
    }
    Listing listing(options);
    SeriesOfOccurrences series(store);
    const int count = store.appointments();
    for (int i = 1; i <= count && !listing.is_full(); ++i) {
        // The occurrences come in one order.
        const ComPtr<IAppointment> item = store.appointment_at(some && options.descending ? count + 1 - i : i);
        if (!item) continue;
        Event event;
        if (some) {
            static_cast<EventFields&>(event) = read_fields(item.get());
        } else {
            event = read_appointment(item.get());
        }
        if (has_left(item.get()) || !listing.wants(event.subject)) continue;
        const LONG oid = oid_of(item.get());
        const bool is_changed = some && series.has_changed(oid, event);
        event.uid = some ? series.uid(oid) : uid_of(item.get());
        Json json = event_json(oid, event);
        if (is_changed) json.set("changed", true);
        listing.add(json, event_line(oid, event, is_changed));
    }
    return listing.finish();
}

bool list_tasks(CalendarStore& store, const CalendarListOptions& options) {
    Listing listing(options);
    const int count = store.tasks();
    for (int i = 1; i <= count && !listing.is_full(); ++i) {
        const ComPtr<ITask> item = store.task_at(i);
        if (!item) continue;
        Task task = read_task(item.get());
        if (has_left(item.get()) || !listing.wants(task.subject)) continue;
        task.uid = uid_of(item.get());
        listing.add(task_json(oid_of(item.get()), task), task_line(oid_of(item.get()), task));
    }
    return listing.finish();
}

}  // namespace

void add_calendar_list(Command calendar) {
    const auto options = std::make_shared<CalendarListOptions>();
    Command command = calendar.add_command("list", "List the appointments, or the tasks");
    command.add_flag("-t,--tasks", options->tasks, "List the tasks, by due date, instead of the appointments");
    command.add_option("--from", options->from, "List what there is from this day on: 2026-01-31, today, friday, -1w");
    command.add_option("--to", options->to, "and up to this day (default: on that day); +7d counts from --from");
    command.add_option("-s,--subject", options->subject, "Only what has this text in its subject");
    command.add_flag("-r,--reverse", options->descending, "Last ones first");
    command.add_option("-n,--limit", options->limit, "List no more than this many").positive();
    command.add_flag("--json", options->json, "Print JSON");
    command.footer(
        "A line is number, start, end, subject, location, recurrence and lasting identifier, with tabs\n"
        "between; a task's is number, due date, open or done, subject and lasting identifier. Numbers are\n"
        "handed out again when items are removed; identifiers are not. A series is one line, where it begins; with\n"
        "--from or --to each of its occurrences is one, and in the place of the recurrence stands whether it\n"
        "was changed or cancelled. A day is a date, today, tomorrow, yesterday, a day of the week (the next\n"
        "one), or a span such as +7d, -2w, +1m or +1y. A time that the clock leaves out in spring is shown\n"
        "as what it becomes. The exit code is 1 when there are none.\n"
        "\n"
        "Examples:\n"
        "  zr calendar list --from today --to +7d\n"
        "  zr calendar list --json | jq -r '.[] | select(.recurrence) | .subject'");
    command.reads([options] {
        if (options->tasks && !(options->from + options->to).empty()) {
            throw Failure{Exit::Usage, "list: --from and --to are for appointments, not for tasks"};
        }
        CalendarStore store;
        store.sort(options->descending);
        const bool any = options->tasks ? list_tasks(store, *options) : list_appointments(store, *options);
        return any ? Exit::Ok : Exit::None;
    });
}

}  // namespace zr
