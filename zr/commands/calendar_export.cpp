// zr calendar export: all appointments and tasks as one iCalendar.

#include <algorithm>
#include <chrono>
#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/output_file.h"
#include "zr/commands/command.h"
#include "zr/commands/require_zone.h"
#include "zr/icalendar/event_writer.h"
#include "zr/stores/calendar.h"
#include "zr/stores/same_store.h"

namespace zr {
namespace {

struct CalendarExportOptions {
    std::string output;
    bool json = false;
};

int year_of(Moment time) {
    using namespace std::chrono;
    return int(year_month_day(floor<days>(time)).year());
}

class Export {
public:
    Export(const CalendarExportOptions& options, const SameStore& same)
        : options_(options), same_(same), file_(options.output) {}

    Exit run();

private:
    int first_year();
    void write_appointments(const CalendarWriter& writer);
    void write_tasks(const CalendarWriter& writer);
    void write(std::string& text) {
        file_.write(text);
        text.clear();
    }

    const CalendarExportOptions& options_;
    const SameStore& same_;
    CalendarStore store_;
    OutputFile file_;
    JsonArray array_{[this](std::string_view text) { file_.write(text); }};
    Exit code_ = Exit::Ok;
};

// From which on the zone must be told.
int Export::first_year() {
    int first = 1970;
    const int count = store_.appointments();
    for (int i = 1; i <= count; ++i) {
        const ComPtr<IAppointment> item = store_.appointment_at(i);
        if (item && start_of(item.get()) != kNoTime) first = std::min(first, year_of(start_of(item.get())));
    }
    return first;
}

void Export::write_appointments(const CalendarWriter& writer) {
    std::string text;
    const int count = store_.appointments();
    for (int i = 1; i <= count; ++i) {
        const ComPtr<IAppointment> item = store_.appointment_at(i);
        if (!item) continue;
        const LONG oid = oid_of(item.get());
        Event event = read_appointment(item.get());
        if (has_left(item.get())) continue;
        if (options_.json) {
            array_.add(event_json(oid, event));
            continue;
        }
        if (event.start == kNoTime) {
            complain("appointment " + std::to_string(oid) + " has no start, which a calendar file asks for; left out");
            code_ = Exit::DamagedCards;
            continue;
        }
        event.uid = uid_of(item.get());
        writer.write(event, text);
        write(text);
    }
}

void Export::write_tasks(const CalendarWriter& writer) {
    std::string text;
    const int count = store_.tasks();
    for (int i = 1; i <= count; ++i) {
        const ComPtr<ITask> item = store_.task_at(i);
        if (!item) continue;
        const LONG oid = oid_of(item.get());
        Task task = read_task(item.get());
        if (has_left(item.get())) continue;
        if (options_.json) {
            array_.add(task_json(oid, task));
            continue;
        }
        task.uid = uid_of(item.get());
        writer.write(task, text);
        write(text);
    }
}

Exit Export::run() {
    const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    const CalendarWriter writer(options_.json ? 1970 : first_year(), now);
    std::string text;
    if (!options_.json) {
        writer.begin(text);
        write(text);
    }
    write_appointments(writer);
    write_tasks(writer);
    if (options_.json) {
        array_.finish();
    } else {
        CalendarWriter::end(text);
        write(text);
    }
    same_.expect();
    file_.finish();
    return code_;
}

}  // namespace

void add_calendar_export(Command calendar) {
    const auto options = std::make_shared<CalendarExportOptions>();
    Command command = calendar.add_command("export", "Write all appointments and tasks as an iCalendar");
    command.add_option("-o,--output", options->output,
                       "Write to this file, whole or not at all (default: standard output)");
    command.add_flag("--json", options->json, "Write JSON instead of an iCalendar");
    command.footer(
        "Times are the device's, with its zone as a VTIMEZONE. Properties of imported calendars that an\n"
        "item has no place for are written again.\n"
        "\n"
        "Examples:\n"
        "  zr calendar export --output backup.ics\n"
        "  zr calendar export --json | jq '.[].subject'");
    command.reads([options] {
        require_zone();
        const SameStore same("contacts");
        return same.during([&] { return Export(*options, same).run(); });
    });
}

}  // namespace zr
