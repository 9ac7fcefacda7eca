// zr calendar add: one new appointment or task.

#include <memory>

#include "zr/base/identity.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/calendar_day.h"
#include "zr/commands/command.h"
#include "zr/stores/calendar.h"

namespace zr {
namespace {

using namespace std::chrono;

struct CalendarAddOptions {
    std::string subject;
    std::string start;
    std::string end;
    std::string location;
    std::string body;
    std::string categories;
    std::string busy;
    LONG reminder = 0;
    Option reminder_option{nullptr};
    bool task = false;
    bool json = false;
};

const std::vector<std::string>& busy_words() {
    static const std::vector<std::string> all = {"free", "tentative", "busy", "out-of-office"};
    return all;
}

std::string checked(const char* option, const std::string& text) {
    if (!is_utf8(text)) throw Failure{Exit::Usage, std::string(option) + ": not valid UTF-8"};
    return text;
}

void put_times(const CalendarAddOptions& options, Event& event) {
    event.start = parse_moment("--start", options.start, event.all_day);
    const CalendarDay day = floor<days>(event.start);
    bool end_is_day = event.all_day;
    event.end = options.end.empty() ? event.all_day ? Moment(day) : event.start + hours(1)
                                    : parse_moment("--end", options.end, end_is_day, day);
    if (end_is_day != event.all_day)
        throw Failure{Exit::Usage, "add: --start and --end are both days, or both have a time"};
    if (event.end < event.start) throw Failure{Exit::Usage, "add: --end is before --start"};
    if (event.all_day) event.end += days(1);
}

Event event_of(const CalendarAddOptions& options) {
    Event event;
    event.subject = checked("SUBJECT", options.subject);
    event.location = checked("--location", options.location);
    event.body = checked("--body", options.body);
    event.categories = checked("--categories", options.categories);
    for (std::size_t i = 0; i < busy_words().size(); ++i) {
        if (options.busy == busy_words()[i]) event.busy = static_cast<int>(i);
    }
    put_times(options, event);
    event.reminder = options.reminder_option.given();
    if (event.reminder && options.reminder < 0) throw Failure{Exit::Usage, "--reminder: minutes are not below 0"};
    event.reminder_minutes = options.reminder;
    event.uid = new_identifier();
    return event;
}

Task task_of(const CalendarAddOptions& options) {
    if (!(options.end + options.location + options.busy).empty() || options.reminder_option.given())
        throw Failure{Exit::Usage,
                      "add: a task has no --end, --location, --busy or --reminder; --start is when it is due"};
    Task task;
    task.subject = checked("SUBJECT", options.subject);
    task.body = checked("--body", options.body);
    task.categories = checked("--categories", options.categories);
    if (!options.start.empty()) task.due = parse_day_words("--start", options.start);
    task.uid = new_identifier();
    return task;
}

Exit add(const CalendarAddOptions& options) {
    if (options.start.empty() && !options.task) throw Failure{Exit::Usage, "add: --start is required"};
    std::vector<Event> events;
    std::vector<Task> tasks;
    if (options.task) {
        tasks.push_back(task_of(options));
    } else {
        events.push_back(event_of(options));
    }
    CalendarStore store;
    std::vector<LONG> oids(1);
    const std::vector<Refused> refused = store.put(events, tasks, oids);
    if (!refused.empty()) throw Failure{Exit::StoreFailed, refused.front().why};
    if (!options.json) {
        print(std::to_string(oids[0]) + "\n");
    } else {
        print_json_line(options.task ? task_json(oids[0], tasks[0]) : event_json(oids[0], events[0]));
    }
    return Exit::Ok;
}

}  // namespace

void add_calendar_add(Command calendar) {
    const auto options = std::make_shared<CalendarAddOptions>();
    Command command = calendar.add_command("add", "Add one appointment or task and print its identifier");
    command.add_option("SUBJECT", options->subject, "What it is about").required();
    command.add_option(
        "--start", options->start,
        "When it begins: '2026-03-02 09:30', 'tomorrow 14:00', or a day for a whole one; of a task: due");
    command.add_option("--end", options->end, "When it ends: a time, or as --start (default: an hour, or the day)");
    command.add_option("--location", options->location, "Where");
    command.add_option("--body", options->body, "More about it");
    command.add_option("--categories", options->categories, "Categories, with commas between");
    command.add_option("--busy", options->busy, "How the time is shown (default: busy)").one_of(busy_words());
    options->reminder_option = command.add_option("--reminder", options->reminder, "Minutes before the start");
    command.add_flag("-t,--task", options->task, "Add a task instead of an appointment");
    command.add_flag("--json", options->json, "Print it as JSON");
    command.footer(
        "Times are those of the device's clock.\n"
        "\n"
        "Examples:\n"
        "  zr calendar add 'Dentist' --start 'friday 15:30' --end 16:15 --reminder 30\n"
        "  zr calendar add 'Fair' --start 2026-05-04 --end 2026-05-06\n"
        "  zr calendar add --task 'Tax return' --start +2w");
    command.runs([options] { return add(*options); });
}

}  // namespace zr
