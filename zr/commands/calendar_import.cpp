// zr calendar import: iCalendar files into the contact store, component by component.

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "zr/base/interruption.h"
#include "zr/base/text.h"
#include "zr/commands/calendar_day.h"
#include "zr/commands/command.h"
#include "zr/commands/import.h"
#include "zr/commands/require_zone.h"
#include "zr/icalendar/reader.h"
#include "zr/stores/calendar.h"

namespace zr {
namespace {

constexpr ImportWords kCalendarWords = {"item", "items", "component", "components", "not in full", true, true};

// The rest of the first kept line with this name, behind its colon.
std::string kept_value(std::string_view lines, std::string_view name) {
    while (!lines.empty()) {
        const std::string_view line = lines.substr(0, lines.find('\n'));
        const std::size_t end = line.find_first_of(":;");
        if (end != std::string_view::npos && equal_ignoring_case(line.substr(0, end), name))
            return std::string(line.substr(std::min(line.find(':'), line.size() - 1) + 1));
        lines.remove_prefix(std::min(line.size() + 1, lines.size()));
    }
    return {};
}

// What an item is known by. One occurrence that stands alone has the identifier of its series.
enum class ItemFolder { Appointments, Tasks };
std::string key_of(ItemFolder folder, const std::string& uid, const std::string& extras) {
    return (folder == ItemFolder::Tasks ? "task " : "event ") + uid + "\n" + kept_value(extras, "RECURRENCE-ID");
}

// How often and when an item was revised; the greater one is the newer.
std::pair<long, std::string> revision(const std::string& extras) {
    std::string time = kept_value(extras, "LAST-MODIFIED");
    if (time.empty()) time = kept_value(extras, "DTSTAMP");
    return {std::strtol(kept_value(extras, "SEQUENCE").c_str(), nullptr, 10), time};
}

// Whether what is there makes the item needless: it says the same, or it is newer.
template <class Item>
bool stands_before(const Item& there, const Item& item) {
    if (there == item) return true;
    const auto before = revision(there.extras);
    const auto now = revision(item.extras);
    return !before.second.empty() && !now.second.empty() && now < before;
}

std::size_t bytes_of(const EventFields& fields) {
    return fields.subject.size() + fields.location.size() + fields.body.size() + fields.extras.size();
}

struct CalendarImportOptions : DuplicateOptions {
    bool expand = false;
    std::string from;
    std::string to;

    std::optional<DaySpan> span() const;
};

std::optional<DaySpan> CalendarImportOptions::span() const {
    if (!expand && from.empty() && to.empty()) return std::nullopt;
    if (!expand) throw Failure{Exit::Usage, "import: --from and --to say which days --expand is for"};
    DaySpan span;
    span.from = from.empty() ? today() : parse_day_words("--from", from);
    span.to = parse_day_words("--to", to.empty() ? "+1y" : to, span.from);
    if (span.to < span.from)
        throw Failure{Exit::Usage,
                      "import: --from " + shown_time(span.from, true) + " is after --to " + shown_time(span.to, true)};
    if (span.to > kLastExpandedDay)
        throw Failure{Exit::Usage, "import: --to is " + shown_time(kLastExpandedDay, true) + " at the latest"};
    return span;
}

class CalendarImport : public Import {
public:
    explicit CalendarImport(const CalendarImportOptions& options)
        : Import(options, kCalendarWords), options_(options), span_(options.span()) {}

private:
    void read(InputFile& file) override;
    long save_batch() override;
    bool interrupted() const override { return interruption_.asked(); }
    void end_interrupted() override { interruption_.end(); }
    std::vector<std::string> endings() const override { return {".ics", ".ical"}; }
    void take(Event& event, bool of_series);
    void take(Task& task);
    void save_when_full();
    void look_up(ItemFolder folder, const std::string& uid);
    bool is_known(ItemFolder folder, const std::string& uid, const std::string& key, LONG& oid);
    bool takes_place_of_series(const Event& event, LONG& oid);

    const CalendarImportOptions& options_;
    const std::optional<DaySpan> span_;
    Interruption interruption_;
    CalendarStore store_;
    std::unordered_map<std::string, LONG> known_;  // what was looked up, and what came in
    std::unordered_set<std::string> looked_up_;
    std::vector<LONG> event_oids_;  // what they take the place of
    std::vector<LONG> task_oids_;
    std::unordered_set<std::string> batch_keys_;
    std::vector<std::string> event_keys_;
    std::vector<std::string> task_keys_;
    std::vector<Event> events_;
    std::vector<Task> tasks_;
    std::size_t rows_ = 0;  // items and changed occurrences
    std::size_t bytes_ = 0;
};

void CalendarImport::read(InputFile& file) {
    LineReader lines(read_until(file.descriptor(), interruption_.descriptor()));
    CalendarReader calendars(lines, span_);
    CalendarReader::Item item;
    bool any = false;
    while (calendars.next(item)) {
        any = true;
        // What is cut off by the interruption is not in yet.
        const bool left_out = item.kind == CalendarReader::Kind::LeftOut;
        if (!left_out || !interrupted()) note(file.name(), item.problems, left_out);
        if (item.kind == CalendarReader::Kind::Event) take(item.event, item.of_series);
        if (item.kind == CalendarReader::Kind::Task) take(item.task);
        show(file, lines.bytes_read(), events_.size() + tasks_.size());
    }
    if (lines.error() != 0) throw file_failure(file.name(), lines.error());
    const bool empty = lines.bytes_read() == 0;
    if (!any && !empty && !calendars.any_calendar() && !interrupted())
        note(file.name(), {{1, "no calendar in this file"}}, true);
}

// Learns what the store has of an identifier, once.
void CalendarImport::look_up(ItemFolder folder, const std::string& uid) {
    if (!looked_up_.insert(key_of(folder, uid, {})).second) return;
    for (const LONG oid :
         folder == ItemFolder::Tasks ? store_.tasks_with_uid(uid) : store_.appointments_with_uid(uid)) {
        known_.emplace(key_of(folder, uid, store_.extras_of(oid)), oid);
    }
}

// Whether the item is there, as which number.
bool CalendarImport::is_known(ItemFolder folder, const std::string& uid, const std::string& key, LONG& oid) {
    if (batch_keys_.contains(key)) save();
    look_up(folder, uid);
    const auto found = known_.find(key);
    if (found != known_.end()) oid = found->second;
    return found != known_.end();
}

// Whether the series is there as one item, from an import that did not expand it: the first occurrence takes its place.
bool CalendarImport::takes_place_of_series(const Event& event, LONG& oid) {
    const std::string key = key_of(ItemFolder::Appointments, event.uid, {});
    if (!is_known(ItemFolder::Appointments, event.uid, key, oid)) return false;
    if (options_.on_duplicate != "skip") known_.erase(key);
    return true;
}

void CalendarImport::take(Event& event, bool of_series) {
    LONG oid = 0;
    std::string key;
    if (options_.on_duplicate != "add" && !event.uid.empty()) {
        key = key_of(ItemFolder::Appointments, event.uid, event.extras);
        if (is_known(ItemFolder::Appointments, event.uid, key, oid)) {
            const ComPtr<IAppointment> there = store_.appointment(oid);
            const bool skip = options_.on_duplicate == "skip" || oid < 0;
            if (skip || (there && stands_before(read_appointment(there.get()), event))) return note_known();
        } else if (of_series && takes_place_of_series(event, oid) && options_.on_duplicate == "skip") {
            return note_known();
        }
        batch_keys_.insert(key);
    }
    bytes_ += bytes_of(event);
    for (const Change& change : event.changes) {
        bytes_ += bytes_of(change.fields);
    }
    rows_ += 1 + event.changes.size();
    events_.push_back(std::move(event));
    event_oids_.push_back(oid);
    event_keys_.push_back(std::move(key));
    save_when_full();
}

void CalendarImport::take(Task& task) {
    LONG oid = 0;
    std::string key;
    if (options_.on_duplicate != "add" && !task.uid.empty()) {
        key = key_of(ItemFolder::Tasks, task.uid, task.extras);
        if (is_known(ItemFolder::Tasks, task.uid, key, oid)) {
            const ComPtr<ITask> there = store_.task(oid);
            const bool skip = options_.on_duplicate == "skip" || oid < 0;
            if (skip || (there && stands_before(read_task(there.get()), task))) return note_known();
        }
        batch_keys_.insert(key);
    }
    bytes_ += task.subject.size() + task.body.size() + task.extras.size();
    ++rows_;
    tasks_.push_back(std::move(task));
    task_oids_.push_back(oid);
    task_keys_.push_back(std::move(key));
    save_when_full();
}

void CalendarImport::save_when_full() {
    if (rows_ >= kBatchItems || bytes_ >= kBatchBytes) save();
}

long CalendarImport::save_batch() {
    std::vector<LONG> oids = event_oids_;
    oids.insert(oids.end(), task_oids_.begin(), task_oids_.end());
    std::vector<std::string> keys = event_keys_;
    keys.insert(keys.end(), task_keys_.begin(), task_keys_.end());
    if (oids.empty()) return 0;
    const std::vector<LONG> before = oids;
    const std::vector<Refused> refused = options_.dry_run ? std::vector<Refused>() : store_.put(events_, tasks_, oids);
    std::vector<bool> left_out(oids.size());
    for (const auto& [index, why] : refused) {
        const bool event = index < events_.size();
        note_refused(event ? events_[index].subject : tasks_[index - events_.size()].subject, why);
        left_out[index] = true;
    }
    long count = 0;
    for (std::size_t i = 0; i < oids.size(); ++i) {
        if (left_out[i]) continue;
        if (before[i] != 0) {
            note_updated();
        } else {
            ++count;
        }
        // What is only looked at has no number, and is known all the same.
        if (!keys[i].empty()) known_.insert_or_assign(keys[i], options_.dry_run ? -1 : oids[i]);
    }
    events_.clear();
    tasks_.clear();
    event_oids_.clear();
    task_oids_.clear();
    event_keys_.clear();
    task_keys_.clear();
    batch_keys_.clear();
    rows_ = bytes_ = 0;
    return count;
}

}  // namespace

void add_calendar_import(Command calendar) {
    const auto options = std::make_shared<CalendarImportOptions>();
    Command command = calendar.add_command("import", "Add the appointments and tasks of iCalendar files");
    options->add_to(command, "iCalendar files, or folders of .ics files; - is standard input");
    command.add_flag("--expand", options->expand,
                     "Import what recurs in a way that the calendar cannot hold as single appointments of some days");
    command.add_option("--from", options->from, "The first of these days: 2026-01-31, today (default), friday, -1w");
    command.add_option("--to", options->to, "The last one; +7d counts from --from (default: +1y)");
    command.footer(
        "Times become the device's local time. What is damaged, or what the calendar cannot hold, is\n"
        "named with file, line and reason on standard error, the rest is imported, and the exit code\n"
        "is 7. A component whose UID an item has takes its place, unless its SEQUENCE, LAST-MODIFIED or\n"
        "DTSTAMP is older; one without a UID is always a new item. What an item has no place for is kept and\n"
        "exported again. Ctrl-C stores what was read and ends; the same command goes on from there.\n"
        "\n"
        "A series whose rule the calendar cannot hold is one appointment, at its first time, and is named; with\n"
        "--expand each of its occurrences from --from to --to is one, known by the UID and the day that it has\n"
        "in the series. The same command with later days adds those.\n"
        "\n"
        "Examples:\n"
        "  zr calendar import work.ics holidays.ics\n"
        "  zr calendar import --expand --to +3m lectures.ics\n"
        "  curl -s https://example.com/calendar.ics | zr calendar import -");
    command.runs([options] {
        require_zone();
        return CalendarImport(*options).run();
    });
}

}  // namespace zr
