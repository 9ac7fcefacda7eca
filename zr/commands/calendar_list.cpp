// zr calendar list: the appointments in the order of their starts, the occurrences of some days, or the tasks.

#include <algorithm>
#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/commands/calendar_day.h"
#include "zr/commands/command.h"
#include "zr/stores/calendar.h"

namespace zr {
namespace {

struct CalendarListOptions {
    bool tasks = false;
    std::string from;
    std::string to;
    bool descending = false;
    LONG limit = 0;
    bool json = false;
};

int limited(int count, const CalendarListOptions& options) {
    return options.limit > 0 ? std::min<int>(count, options.limit) : count;
}

bool list_appointments(CalendarStore& store, const CalendarListOptions& options) {
    const bool some = !options.from.empty() || !options.to.empty();
    if (some) {
        const CalendarDay from =
            options.from.empty() ? parse_day("--from", "1601-01-01") : parse_day("--from", options.from);
        const CalendarDay to = options.to.empty() ? from : parse_day("--to", options.to);
        store.restrict_to(from, to + std::chrono::days(1));
    }
    JsonArray array;
    const int count = store.appointments();
    const int limit = limited(count, options);
    for (int i = 1; i <= limit; ++i) {
        // The occurrences come in one order.
        const ComPtr<IAppointment> item = store.appointment_at(some && options.descending ? count + 1 - i : i);
        if (!item) continue;
        Event event;
        if (some) {
            static_cast<EventFields&>(event) = read_fields(item.get());
        } else {
            event = read_appointment(item.get());
        }
        if (has_left(item.get())) continue;
        if (options.json) {
            array.add(event_json(oid_of(item.get()), event));
        } else {
            print(event_line(oid_of(item.get()), event));
        }
    }
    if (options.json) array.finish();
    return count > 0;
}

bool list_tasks(CalendarStore& store, const CalendarListOptions& options) {
    JsonArray array;
    const int count = store.tasks();
    const int limit = limited(count, options);
    for (int i = 1; i <= limit; ++i) {
        const ComPtr<ITask> item = store.task_at(i);
        if (!item) continue;
        const Task task = read_task(item.get());
        if (has_left(item.get())) continue;
        if (options.json) {
            array.add(task_json(oid_of(item.get()), task));
        } else {
            print(task_line(oid_of(item.get()), task));
        }
    }
    if (options.json) array.finish();
    return count > 0;
}

}  // namespace

void add_calendar_list(Command calendar) {
    const auto options = std::make_shared<CalendarListOptions>();
    Command command = calendar.add_command("list", "List the appointments, or the tasks");
    command.add_flag("-t,--tasks", options->tasks, "List the tasks, by due date, instead of the appointments");
    command.add_option("--from", options->from, "List what there is from this day on, such as 2026-01-31");
    command.add_option("--to", options->to, "and up to this day (default: on that day)");
    command.add_flag("-r,--reverse", options->descending, "Last ones first");
    command.add_option("-n,--limit", options->limit, "List no more than this many").positive();
    command.add_flag("--json", options->json, "Print JSON");
    command.footer(
        "A line is identifier, start, end, subject, location and recurrence, with tabs between; a task's\n"
        "is identifier, due date, open or done, and subject. A series is one line, where it begins; with\n"
        "--from or --to each of its occurrences is one. The exit code is 1 when there are none.\n"
        "\n"
        "Examples:\n"
        "  zr calendar list --from 2026-03-02 --to 2026-03-08\n"
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
