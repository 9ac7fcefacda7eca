// zr calendar import: iCalendar files into the contact store, component by component.

#include <memory>
#include <utility>

#include "zr/commands/command.h"
#include "zr/commands/import.h"
#include "zr/commands/require_zone.h"
#include "zr/icalendar/reader.h"
#include "zr/stores/calendar.h"

namespace zr {
namespace {

constexpr ImportWords kCalendarWords = {"item", "items", "component", "components", "not in full"};

std::size_t bytes_of(const EventFields& fields) {
    return fields.subject.size() + fields.location.size() + fields.body.size() + fields.extras.size();
}

class CalendarImport : public Import {
public:
    explicit CalendarImport(const ImportOptions& options) : Import(options, kCalendarWords) {}

private:
    void read(InputFile& file) override;
    long save_batch() override;
    void take(Event& event);
    void take(Task& task);
    void save_when_full();

    CalendarStore store_;
    std::vector<Event> events_;
    std::vector<Task> tasks_;
    std::size_t rows_ = 0;  // items and changed occurrences
    std::size_t bytes_ = 0;
};

void CalendarImport::read(InputFile& file) {
    LineReader lines(file.reader());
    CalendarReader calendars(lines);
    CalendarReader::Item item;
    bool any = false;
    while (calendars.next(item)) {
        any = true;
        note(file.name(), item.problems, item.kind == CalendarReader::Kind::LeftOut);
        if (item.kind == CalendarReader::Kind::Event) take(item.event);
        if (item.kind == CalendarReader::Kind::Task) take(item.task);
        show(file, lines.bytes_read(), events_.size() + tasks_.size());
    }
    if (lines.error() != 0) throw file_failure(file.name(), lines.error());
    if (!any && !calendars.any_calendar()) note(file.name(), {{1, "no calendar in this file"}}, true);
}

void CalendarImport::take(Event& event) {
    bytes_ += bytes_of(event);
    for (const Change& change : event.changes) {
        bytes_ += bytes_of(change.fields);
    }
    rows_ += 1 + event.changes.size();
    events_.push_back(std::move(event));
    save_when_full();
}

void CalendarImport::take(Task& task) {
    bytes_ += task.subject.size() + task.body.size() + task.extras.size();
    ++rows_;
    tasks_.push_back(std::move(task));
    save_when_full();
}

void CalendarImport::save_when_full() {
    if (rows_ >= kBatchItems || bytes_ >= kBatchBytes) save();
}

long CalendarImport::save_batch() {
    const std::size_t count = events_.size() + tasks_.size();
    if (count == 0) return 0;
    const std::vector<Refused> refused = store_.add(events_, tasks_);
    for (const auto& [index, why] : refused) {
        const bool event = index < events_.size();
        note_refused(event ? events_[index].subject : tasks_[index - events_.size()].subject, why);
    }
    events_.clear();
    tasks_.clear();
    rows_ = bytes_ = 0;
    return static_cast<long>(count - refused.size());
}

}  // namespace

void add_calendar_import(Command calendar) {
    const auto options = std::make_shared<ImportOptions>();
    Command command = calendar.add_command("import", "Add the appointments and tasks of iCalendar files");
    options->add_to(command, "iCalendar files; - is standard input");
    command.footer(
        "Times become the device's local time. What is damaged, or what the calendar cannot hold, is\n"
        "named with file, line and reason on standard error, the rest is imported, and the exit code\n"
        "is 7. Every component becomes a new item. What an item has no place for is kept and exported\n"
        "again.\n"
        "\n"
        "Examples:\n"
        "  zr calendar import work.ics holidays.ics\n"
        "  curl -s https://example.com/calendar.ics | zr calendar import -");
    command.runs([options] {
        require_zone();
        return CalendarImport(*options).run();
    });
}

}  // namespace zr
