// zr calendar show: all that is known of appointments and tasks.

#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/command.h"
#include "zr/commands/event_rows.h"
#include "zr/icalendar/recurrence.h"
#include "zr/stores/calendar.h"

namespace zr {
namespace {

struct CalendarShowOptions {
    std::vector<std::string> items;
    bool json = false;
};

void print_appointment(LONG oid, const Event& event) {
    print_row("Identifier", std::to_string(oid));
    print_fields(event);
    if (event.pattern) print_row("Recurrence", describe(*event.pattern));
    for (const Change& change : event.changes) {
        print_row("Exception", shown_time(change.day, true) +
                                   (change.deleted ? ": deleted"
                                                   : ": " + shown_time(change.fields.start, change.fields.all_day) +
                                                         " " + change.fields.subject));
    }
    print_row("Unique identifier", event.uid);
    print_kept("Also", event.extras);
}

void print_task(LONG oid, const Task& task) {
    print_row("Identifier", std::to_string(oid));
    if (!task.subject.empty()) print_row("Subject", task.subject);
    if (task.start) print_row("Start", shown_time(*task.start, true));
    if (task.due) print_row("Due", shown_time(*task.due, true));
    print_row("State", task.complete ? "done" : "open");
    print_row("Importance", importance_text(task));
    if (task.reminder) print_row("Reminder", shown_time(*task.reminder, false));
    if (!task.categories.empty()) print_row("Categories", task.categories);
    if (!task.body.empty()) print_row("Body", task.body);
    print_row("Unique identifier", task.uid);
    print_kept("Also", task.extras);
}

class Show {
public:
    explicit Show(const CalendarShowOptions& options) : options_(options) {}

    Exit run() {
        Exit code = Exit::Ok;
        page_output();
        for (const std::string& wanted : options_.items) {
            bool any = false;
            for (const LONG oid : find_items(store_, wanted)) {
                any = show(oid) || any;
            }
            if (any) continue;
            complain("no appointment or task " + printable(wanted));
            code = Exit::None;
        }
        if (options_.json) array_.finish();
        return code;
    }

private:
    bool show(LONG oid);
    void separate() {
        if (!first_) print("\n");
        first_ = false;
    }

    const CalendarShowOptions& options_;
    CalendarStore store_;
    JsonArray array_;
    bool first_ = true;
};

bool Show::show(LONG oid) {
    if (const ComPtr<IAppointment> item = store_.appointment(oid)) {
        Event event = read_appointment(item.get());
        event.uid = uid_of(item.get());
        if (options_.json) {
            array_.add(event_json(oid, event));
        } else {
            separate();
            print_appointment(oid, event);
        }
        return true;
    }
    const ComPtr<ITask> item = store_.task(oid);
    if (!item) return false;
    Task task = read_task(item.get());
    task.uid = uid_of(item.get());
    if (options_.json) {
        array_.add(task_json(oid, task));
    } else {
        separate();
        print_task(oid, task);
    }
    return true;
}

}  // namespace

void add_calendar_show(Command calendar) {
    const auto options = std::make_shared<CalendarShowOptions>();
    Command command = calendar.add_command("show", "Show all fields of appointments and tasks");
    command.add_option("ITEM", options->items, "Numbers or lasting identifiers, as list prints them").required();
    command.add_flag("--json", options->json, "Print JSON");
    command.footer(
        "The exit code is 1 when an item does not exist.\n"
        "\n"
        "Example:\n"
        "  zr calendar show 150994945");
    command.reads([options] { return Show(*options).run(); });
}

}  // namespace zr
