#include "zr/stores/calendar.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "zr/base/json.h"
#include "zr/base/text.h"
#include "zr/icalendar/recurrence.h"

namespace zr {
namespace {

using namespace std::chrono;

constexpr const char* kReading = "reading an appointment";
constexpr const char* kWritingAppointment = "writing an appointment";
constexpr const char* kReadingTask = "reading a task";
constexpr const char* kWritingTask = "writing a task";

// Days are counted from 30 December 1899; the time of day is a fraction that is added to the size.
constexpr CalendarDay kDayZero = local_days(year(1899) / 12 / 30);
constexpr double kDaySeconds = 86400;

template <typename Item, typename Value>
Value get(Item* item, HRESULT (Item::*getter)(Value*), const char* doing = kReading) {
    Value value{};
    check((item->*getter)(&value), doing);
    return value;
}

template <typename Item>
std::string get_text(Item* item, HRESULT (Item::*getter)(BSTR*), const char* doing = kReading) {
    return taken_text(get(item, getter, doing));
}

template <typename Item>
void put_text(Item* item, HRESULT (Item::*putter)(BSTR), const std::string& value,
              const char* doing = kWritingAppointment) {
    std::u16string text = to_utf16(value);
    check((item->*putter)(text.data()), doing);
}

VARIANT_BOOL to_bool(bool value) {
    return value ? VARIANT_TRUE : VARIANT_FALSE;
}

// Puts the fields that are not `before`'s, which the appointment has already.
void put_fields(IAppointment* item, const EventFields& event, const EventFields& before) {
    const auto text = [&](HRESULT (IAppointment::*putter)(BSTR), std::string EventFields::*field) {
        if (event.*field != before.*field) put_text(item, putter, event.*field);
    };
    const auto number = [&](HRESULT (IAppointment::*putter)(LONG), int EventFields::*field) {
        if (event.*field != before.*field) check((item->*putter)(event.*field), kWritingAppointment);
    };
    text(&IAppointment::put_Subject, &EventFields::subject);
    text(&IAppointment::put_Location, &EventFields::location);
    text(&IAppointment::put_Body, &EventFields::body);
    text(&IAppointment::put_Categories, &EventFields::categories);
    number(&IAppointment::put_BusyStatus, &EventFields::busy);
    number(&IAppointment::put_Sensitivity, &EventFields::sensitivity);
    number(&IAppointment::put_MeetingStatus, &EventFields::meeting);
    number(&IAppointment::put_ReminderOptions, &EventFields::reminder_options);
    text(&IAppointment::put_ReminderSoundFile, &EventFields::reminder_sound);
    if (event.reminder != before.reminder) check(item->put_ReminderSet(to_bool(event.reminder)), kWritingAppointment);
    if (event.reminder) number(&IAppointment::put_ReminderMinutesBeforeStart, &EventFields::reminder_minutes);
    if (event.all_day != before.all_day) check(item->put_AllDayEvent(to_bool(event.all_day)), kWritingAppointment);
    // A start that is put moves the end.
    if (event.start != before.start || event.end != before.end) {
        check(item->put_Start(to_date(event.start)), kWritingAppointment);
        check(item->put_End(to_date(event.end)), kWritingAppointment);
    }
    if (event.extras != before.extras) put_text_property(item, ZR_PROPID_EVENT_EXTRAS, event.extras);
}

void put_pattern(IAppointment* item, const Pattern& from) {
    ComPtr<IRecurrencePattern> pattern;
    check(item->GetRecurrencePattern(pattern.out()), kWritingAppointment);
    check(pattern->put_RecurrenceType(from.type), kWritingAppointment);
    check(pattern->put_Interval(from.interval), kWritingAppointment);
    if (from.weekdays != 0) check(pattern->put_DayOfWeekMask(from.weekdays), kWritingAppointment);
    if (from.instance != 0) check(pattern->put_Instance(from.instance), kWritingAppointment);
    if (from.day_of_month != 0) check(pattern->put_DayOfMonth(from.day_of_month), kWritingAppointment);
    if (from.month != 0) check(pattern->put_MonthOfYear(from.month), kWritingAppointment);
    if (from.until) {
        check(pattern->put_PatternEndDate(to_date(*from.until)), kWritingAppointment);
    } else if (from.count > 0) {
        check(pattern->put_Occurrences(from.count), kWritingAppointment);
    } else {
        check(pattern->put_NoEndDate(VARIANT_TRUE), kWritingAppointment);
    }
}

void save_change(IRecurrencePattern* pattern, const Change& change) {
    ComPtr<IAppointment> occurrence;
    const HRESULT result = pattern->GetOccurrence(to_date(change.day), occurrence.out());
    // Behind the end of the series there is nothing to delete.
    if (is_missing(result) && change.deleted) return;
    check(result, kWritingAppointment);
    if (change.deleted) return check(occurrence->Delete(), "deleting an occurrence");
    put_fields(occurrence.get(), change.fields, read_fields(occurrence.get()));
    check(occurrence->Save(), "saving an occurrence");
}

Pattern read_pattern(IRecurrencePattern* from) {
    Pattern pattern;
    pattern.type = get(from, &IRecurrencePattern::get_RecurrenceType);
    pattern.interval = get(from, &IRecurrencePattern::get_Interval);
    pattern.weekdays = get(from, &IRecurrencePattern::get_DayOfWeekMask);
    pattern.instance = get(from, &IRecurrencePattern::get_Instance);
    pattern.day_of_month = get(from, &IRecurrencePattern::get_DayOfMonth);
    pattern.month = get(from, &IRecurrencePattern::get_MonthOfYear);
    const Moment end = to_moment(get(from, &IRecurrencePattern::get_PatternEndDate));
    if (end != kNoTime) pattern.until = floor<days>(end);
    return pattern;
}

std::vector<Change> read_changes(IRecurrencePattern* pattern) {
    std::vector<Change> changes;
    ComPtr<IExceptions> exceptions;
    check(pattern->get_Exceptions(exceptions.out()), kReading);
    const INT count = get(exceptions.get(), &IExceptions::get_Count);
    for (INT i = 1; i <= count; ++i) {
        ComPtr<IException> exception;
        check(exceptions->Item(i, exception.out()), kReading);
        Change change;
        change.day = floor<days>(to_moment(get(exception.get(), &IException::get_OriginalDate)));
        change.deleted = get(exception.get(), &IException::get_Deleted) != VARIANT_FALSE;
        if (!change.deleted) {
            ComPtr<IAppointment> occurrence;
            const HRESULT result = exception->get_AppointmentItem(occurrence.out());
            if (is_missing(result)) continue;  // deleted meanwhile
            check(result, kReading);
            change.fields = read_fields(occurrence.get());
        }
        changes.push_back(std::move(change));
    }
    return changes;
}

template <typename Item>
ComPtr<Item> item_at(IPOutlookItemCollection* items, int index) {
    ComPtr<Item> item;
    const HRESULT result = items->Item(index, item.template out<IDispatch>());
    if (!is_missing(result)) check(result, "reading an item");
    return item;
}

template <typename Item>
ComPtr<Item> as(const ComPtr<IDispatch>& object, const IID& id) {
    ComPtr<Item> item;
    if (object && FAILED(object->QueryInterface(id, item.template out<void>()))) item.reset();
    return item;
}

std::string json_time(Moment time, bool is_day) {
    const hh_mm_ss clock(time - floor<days>(time));
    char text[40];
    std::snprintf(text, sizeof text, "T%02d:%02d:%02d", static_cast<int>(clock.hours().count()),
                  static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()));
    return shown_time(floor<days>(time), true) + (is_day ? "" : text);
}

void add_text(Json& json, const char* key, const std::string& text) {
    if (!text.empty()) json.set(key, text);
}

const char* named(const char* const* names, int count, int value) {
    return value >= 0 && value < count ? names[value] : "other";
}

constexpr const char* kBusy[] = {"free", "tentative", "busy", "out of office"};
constexpr const char* kSensitivity[] = {"normal", "personal", "private", "confidential"};
constexpr const char* kImportance[] = {"low", "normal", "high"};

// All the items of an identifier: those that have it, else the one that has none and is known by it.
template <class Face>
std::vector<LONG> numbers_with_uid(CalendarStore& store, Session& session, OlDefaultFolders folder,
                                   ComPtr<Face> (CalendarStore::*item_of)(LONG), const std::string& uid) {
    std::vector<LONG> found;
    if (uid.empty()) return found;
    for (LONG oid = session.with_uid(folder, uid); oid != 0; oid = session.with_uid(folder, uid, oid)) {
        found.push_back(oid);
    }
    if (!found.empty()) return found;
    const LONG numbered = number_in_made_uid(uid);
    const ComPtr<Face> item = numbered != 0 ? (store.*item_of)(numbered) : ComPtr<Face>();
    if (item && uid_of(item.get()) == uid) found.push_back(numbered);
    return found;
}

}  // namespace

DATE to_date(Moment time) {
    const auto day = floor<days>(time);
    const double whole = static_cast<double>((day - kDayZero).count());
    const double part = static_cast<double>((time - day).count()) / kDaySeconds;
    return whole < 0 ? whole - part : whole + part;
}

Moment to_moment(DATE date) {
    if (date == ZR_PIM_NO_DATE || !(date > -700000) || !(date < 3000000)) return kNoTime;
    const double whole = std::trunc(date);
    return kDayZero + days(static_cast<int>(whole)) + seconds(std::llround(std::abs(date - whole) * kDaySeconds));
}

CalendarStore::CalendarStore()
    : appointments_(session_.items(olFolderCalendar)), tasks_(session_.items(olFolderTasks)) {}

int CalendarStore::count(IPOutlookItemCollection* items) {
    return get(items, &IPOutlookItemCollection::get_Count, "counting the items");
}

void CalendarStore::sort(bool descending) {
    std::u16string start = u"[Start]";
    std::u16string due = u"[DueDate]";
    check(appointments_->Sort(start.data(), to_bool(descending)), "sorting the appointments");
    check(tasks_->Sort(due.data(), to_bool(descending)), "sorting the tasks");
}

void CalendarStore::restrict_to(CalendarDay from, CalendarDay to) {
    constexpr const char* doing = "restricting the appointments";
    const std::string first = shown_time(from, true);
    // One without a length on the first day's midnight begins, and ends, then.
    std::u16string restriction =
        to_utf16("[Start] < \"" + shown_time(to, true) + "\" AND [End] > \"" + first + "\" OR [Start] = \"" + first +
                 "\" AND [Start] < \"" + shown_time(to, true) + "\"");
    ComPtr<IPOutlookItemCollection> some;
    check(appointments_->put_IncludeRecurrences(VARIANT_TRUE), doing);
    check(appointments_->Restrict(restriction.data(), some.out()), doing);
    appointments_ = std::move(some);
}

ComPtr<IAppointment> CalendarStore::appointment_at(int index) {
    return item_at<IAppointment>(appointments_.get(), index);
}
ComPtr<ITask> CalendarStore::task_at(int index) {
    return item_at<ITask>(tasks_.get(), index);
}
ComPtr<IAppointment> CalendarStore::appointment(LONG oid) {
    return as<IAppointment>(session_.with_oid(oid), IID_IAppointment);
}
ComPtr<ITask> CalendarStore::task(LONG oid) {
    return as<ITask>(session_.with_oid(oid), IID_ITask);
}

std::vector<LONG> CalendarStore::appointments_with_uid(const std::string& uid) {
    return numbers_with_uid(*this, session_, olFolderCalendar, &CalendarStore::appointment, uid);
}
std::vector<LONG> CalendarStore::tasks_with_uid(const std::string& uid) {
    return numbers_with_uid(*this, session_, olFolderTasks, &CalendarStore::task, uid);
}

std::string CalendarStore::extras_of(LONG oid) {
    const ComPtr<IDispatch> item = session_.with_oid(oid);
    return item ? text_property(item.get(), ZR_PROPID_EVENT_EXTRAS) : std::string();
}

std::vector<Refused> CalendarStore::add(const std::vector<Event>& events, const std::vector<Task>& tasks) {
    std::vector<LONG> none(events.size() + tasks.size());
    return put(events, tasks, none);
}

std::vector<Refused> CalendarStore::put(const std::vector<Event>& events, const std::vector<Task>& tasks,
                                        std::vector<LONG>& oids) {
    const std::vector<LONG> replaced = oids;
    return session_.store_all("saving appointments", oids.size(),
                              [&](std::size_t i) { oids[i] = save_one(events, tasks, i, replaced[i]); });
}

// A series changes with all that became of its occurrences, so that a new one takes its place.
LONG CalendarStore::save_one(const std::vector<Event>& events, const std::vector<Task>& tasks, std::size_t index,
                             LONG replaced) {
    constexpr const char* doing = "replacing an item";
    if (const ComPtr<IAppointment> item = replaced != 0 ? appointment(replaced) : ComPtr<IAppointment>()) {
        check(item->Delete(), doing);
    } else if (const ComPtr<ITask> other = replaced != 0 ? task(replaced) : ComPtr<ITask>()) {
        check(other->Delete(), doing);
    }
    return index < events.size() ? save_new(events[index]) : save_new(tasks[index - events.size()]);
}

LONG CalendarStore::save_new(const Event& event) {
    ComPtr<IAppointment> item;
    check(app()->CreateItem(olAppointmentItem, item.out<IDispatch>()), "adding an appointment");
    put_fields(item.get(), event, read_fields(item.get()));
    if (!event.uid.empty()) put_text_property(item.get(), ZR_PROPID_EVENT_UID, event.uid);
    if (event.pattern) put_pattern(item.get(), *event.pattern);
    check(item->Save(), "saving an appointment");
    if (event.changes.empty()) return oid_of(item.get());
    ComPtr<IRecurrencePattern> pattern;
    check(item->GetRecurrencePattern(pattern.out()), kWritingAppointment);
    for (const Change& change : event.changes) {
        save_change(pattern.get(), change);
    }
    return oid_of(item.get());
}

LONG CalendarStore::save_new(const Task& task) {
    ComPtr<ITask> item;
    check(app()->CreateItem(olTaskItem, item.out<IDispatch>()), "adding a task");
    put_text(item.get(), &ITask::put_Subject, task.subject, kWritingTask);
    put_text(item.get(), &ITask::put_Body, task.body, kWritingTask);
    put_text(item.get(), &ITask::put_Categories, task.categories, kWritingTask);
    if (task.start) check(item->put_StartDate(to_date(*task.start)), kWritingTask);
    if (task.due) check(item->put_DueDate(to_date(*task.due)), kWritingTask);
    check(item->put_Importance(task.importance), kWritingTask);
    check(item->put_Sensitivity(task.sensitivity), kWritingTask);
    check(item->put_Complete(to_bool(task.complete)), kWritingTask);
    if (task.reminder) {
        check(item->put_ReminderSet(VARIANT_TRUE), kWritingTask);
        check(item->put_ReminderTime(to_date(*task.reminder)), kWritingTask);
    }
    if (task.reminder_options != 0) check(item->put_ReminderOptions(task.reminder_options), kWritingTask);
    if (!task.reminder_sound.empty()) {
        put_text(item.get(), &ITask::put_ReminderSoundFile, task.reminder_sound, kWritingTask);
    }
    if (!task.uid.empty()) put_text_property(item.get(), ZR_PROPID_EVENT_UID, task.uid);
    if (!task.extras.empty()) put_text_property(item.get(), ZR_PROPID_EVENT_EXTRAS, task.extras);
    check(item->Save(), "saving a task");
    return oid_of(item.get());
}

EventFields read_fields(IAppointment* item) {
    EventFields fields;
    fields.subject = get_text(item, &IAppointment::get_Subject);
    fields.location = get_text(item, &IAppointment::get_Location);
    fields.body = get_text(item, &IAppointment::get_Body);
    fields.categories = get_text(item, &IAppointment::get_Categories);
    fields.start = start_of(item);
    fields.end = to_moment(get(item, &IAppointment::get_End));
    if (fields.end == kNoTime || fields.end < fields.start) fields.end = fields.start;
    fields.all_day = get(item, &IAppointment::get_AllDayEvent) != VARIANT_FALSE;
    fields.busy = get(item, &IAppointment::get_BusyStatus);
    fields.sensitivity = get(item, &IAppointment::get_Sensitivity);
    fields.meeting = get(item, &IAppointment::get_MeetingStatus);
    fields.reminder = get(item, &IAppointment::get_ReminderSet) != VARIANT_FALSE;
    if (fields.reminder) fields.reminder_minutes = get(item, &IAppointment::get_ReminderMinutesBeforeStart);
    fields.reminder_options = get(item, &IAppointment::get_ReminderOptions);
    fields.reminder_sound = get_text(item, &IAppointment::get_ReminderSoundFile);
    fields.extras = text_property(item, ZR_PROPID_EVENT_EXTRAS);
    return fields;
}

Event read_appointment(IAppointment* item) {
    Event event;
    static_cast<EventFields&>(event) = read_fields(item);
    event.uid = text_property(item, ZR_PROPID_EVENT_UID);
    if (get(item, &IAppointment::get_IsRecurring) == VARIANT_FALSE) return event;
    ComPtr<IRecurrencePattern> pattern;
    check(item->GetRecurrencePattern(pattern.out()), kReading);
    event.pattern = read_pattern(pattern.get());
    event.changes = read_changes(pattern.get());
    return event;
}

Task read_task(ITask* item) {
    Task task;
    const auto time = [&](HRESULT (ITask::*getter)(DATE*)) -> std::optional<Moment> {
        const Moment found = to_moment(get(item, getter, kReadingTask));
        return found == kNoTime ? std::nullopt : std::optional(found);
    };
    task.subject = get_text(item, &ITask::get_Subject, kReadingTask);
    task.body = get_text(item, &ITask::get_Body, kReadingTask);
    task.categories = get_text(item, &ITask::get_Categories, kReadingTask);
    task.start = time(&ITask::get_StartDate);
    task.due = time(&ITask::get_DueDate);
    task.importance = get(item, &ITask::get_Importance, kReadingTask);
    task.sensitivity = get(item, &ITask::get_Sensitivity, kReadingTask);
    task.complete = get(item, &ITask::get_Complete, kReadingTask) != VARIANT_FALSE;
    if (get(item, &ITask::get_ReminderSet, kReadingTask) != VARIANT_FALSE)
        task.reminder = time(&ITask::get_ReminderTime);
    task.reminder_options = get(item, &ITask::get_ReminderOptions, kReadingTask);
    task.reminder_sound = get_text(item, &ITask::get_ReminderSoundFile, kReadingTask);
    task.uid = text_property(item, ZR_PROPID_EVENT_UID);
    task.extras = text_property(item, ZR_PROPID_EVENT_EXTRAS);
    return task;
}

Moment start_of(IAppointment* appointment) {
    return to_moment(get(appointment, &IAppointment::get_Start));
}

LONG oid_of(IAppointment* appointment) {
    return get(appointment, &IAppointment::get_Oid);
}
LONG oid_of(ITask* task) {
    return get(task, &ITask::get_Oid, kReadingTask);
}

std::string uid_of(IAppointment* appointment) {
    const std::string uid = text_property(appointment, ZR_PROPID_EVENT_UID);
    return uid.empty() ? made_uid(appointment, oid_of(appointment)) : uid;
}

std::string uid_of(ITask* task) {
    const std::string uid = text_property(task, ZR_PROPID_EVENT_UID);
    return uid.empty() ? made_uid(task, oid_of(task)) : uid;
}

std::vector<LONG> find_items(CalendarStore& store, const std::string& number_or_uid) {
    LONG oid = 0;
    const char* const end = number_or_uid.data() + number_or_uid.size();
    const auto [last, error] = std::from_chars(number_or_uid.data(), end, oid);
    if (error == std::errc() && last == end && (store.appointment(oid) || store.task(oid))) return {oid};
    std::vector<LONG> found = store.appointments_with_uid(number_or_uid);
    const std::vector<LONG> tasks = store.tasks_with_uid(number_or_uid);
    found.insert(found.end(), tasks.begin(), tasks.end());
    return found;
}

Moment as_it_becomes(Moment time) {
    if (time == kNoTime) return time;
    const auto day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    std::tm parts = {};
    parts.tm_year = int(date.year()) - 1900;
    parts.tm_mon = static_cast<int>(unsigned(date.month())) - 1;
    parts.tm_mday = static_cast<int>(unsigned(date.day()));
    parts.tm_hour = static_cast<int>(clock.hours().count());
    parts.tm_min = static_cast<int>(clock.minutes().count());
    parts.tm_sec = static_cast<int>(clock.seconds().count());
    parts.tm_isdst = -1;
    if (std::mktime(&parts) == -1) return time;
    const CalendarDay now = local_days(year(parts.tm_year + 1900) / month(static_cast<unsigned>(parts.tm_mon + 1)) /
                                       std::chrono::day(static_cast<unsigned>(parts.tm_mday)));
    return now + hours(parts.tm_hour) + minutes(parts.tm_min) + seconds(parts.tm_sec);
}

bool is_cancelled(const EventFields& fields) {
    return fields.meeting == olMeetingCanceled;
}

Moment shown_end(const EventFields& fields) {
    return fields.all_day && fields.end > fields.start ? fields.end - days(1) : fields.end;
}

std::string busy_text(const EventFields& fields) {
    return named(kBusy, 4, fields.busy);
}

std::string sensitivity_text(int sensitivity) {
    return named(kSensitivity, 4, sensitivity);
}

std::string importance_text(const Task& task) {
    return named(kImportance, 3, task.importance);
}

Json fields_json(const EventFields& fields) {
    Json json;
    json.set("subject", fields.subject);
    if (fields.start != kNoTime) {
        json.set("start", json_time(fields.start, fields.all_day));
        json.set("end", json_time(shown_end(fields), fields.all_day));
    }
    json.set("allDay", fields.all_day);
    add_text(json, "location", fields.location);
    json.set("busyStatus", busy_text(fields));
    if (fields.sensitivity != 0) json.set("sensitivity", sensitivity_text(fields.sensitivity));
    if (fields.meeting != olNonMeeting) json.set("meetingStatus", fields.meeting);
    if (is_cancelled(fields)) json.set("cancelled", true);
    if (fields.reminder) json.set("reminderMinutes", fields.reminder_minutes);
    add_text(json, "categories", fields.categories);
    add_text(json, "body", fields.body);
    add_text(json, "extras", fields.extras);
    return json;
}

Json event_json(LONG oid, const Event& event) {
    Json json;
    json.set("oid", oid);
    add_text(json, "uid", event.uid);
    json.set_all(fields_json(event));
    if (!event.pattern) return json;
    json.set("recurrence", describe(*event.pattern));
    json.set("rule", rule_of_pattern(*event.pattern));
    if (event.pattern->until) json.set("until", shown_time(*event.pattern->until, true));
    Json exceptions = Json::array();
    for (const Change& change : event.changes) {
        Json one = {{"day", shown_time(change.day, true)}, {"deleted", change.deleted}};
        if (!change.deleted) one.set_all(fields_json(change.fields));
        exceptions.add(std::move(one));
    }
    json.set("exceptions", std::move(exceptions));
    return json;
}

Json task_json(LONG oid, const Task& task) {
    const auto is_day = [](Moment time) { return floor<days>(time) == time; };
    Json json;
    json.set("oid", oid);
    add_text(json, "uid", task.uid);
    json.set("subject", task.subject);
    if (task.start) json.set("start", json_time(*task.start, is_day(*task.start)));
    if (task.due) json.set("due", json_time(*task.due, is_day(*task.due)));
    json.set("complete", task.complete);
    json.set("importance", importance_text(task));
    if (task.sensitivity != 0) json.set("sensitivity", sensitivity_text(task.sensitivity));
    if (task.reminder) json.set("reminder", json_time(*task.reminder, false));
    add_text(json, "categories", task.categories);
    add_text(json, "body", task.body);
    add_text(json, "extras", task.extras);
    return json;
}

std::string event_line(LONG oid, const Event& event, bool changed) {
    std::string marks = event.pattern ? describe(*event.pattern) : "";
    const auto mark = [&](const char* word) { marks += (marks.empty() ? "" : ", ") + std::string(word); };
    if (changed) mark("changed");
    if (is_cancelled(event)) mark("cancelled");
    const auto time = [&](Moment moment) {
        return shown_time(event.all_day ? moment : as_it_becomes(moment), event.all_day);
    };
    return std::to_string(oid) + '\t' + time(event.start) + '\t' + time(shown_end(event)) + '\t' +
           printable(event.subject) + '\t' + printable(event.location) + '\t' + marks + '\t' + printable(event.uid) +
           '\n';
}

std::string task_line(LONG oid, const Task& task) {
    return std::to_string(oid) + '\t' + (task.due ? shown_time(*task.due, true) : "") + '\t' +
           (task.complete ? "done" : "open") + '\t' + printable(task.subject) + '\t' + printable(task.uid) + '\n';
}

std::vector<Column> event_columns() {
    return {{"NUMBER", Column::Kind::Reference},
            {"START"},
            {"END"},
            {"SUBJECT", Column::Kind::Text},
            {"LOCATION", Column::Kind::Text},
            {"RECURRENCE", Column::Kind::Text},
            {"UID", Column::Kind::Reference}};
}

std::vector<Column> task_columns() {
    return {{"NUMBER", Column::Kind::Reference},
            {"DUE"},
            {"STATE"},
            {"SUBJECT", Column::Kind::Text},
            {"UID", Column::Kind::Reference}};
}

}  // namespace zr
