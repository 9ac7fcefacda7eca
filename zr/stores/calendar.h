#pragma once

// The appointments and tasks of the store as zr uses them. Every function throws Failure when the store fails.

#include <vector>

#include "zr/base/table.h"
#include "zr/icalendar/event.h"
#include "zr/stores/session.h"

namespace zr {

class Json;

// Open as long as the object. For one thread.
class CalendarStore {
public:
    CalendarStore();

    IPOutlookApp* app() const { return session_.app(); }
    int appointments() { return count(appointments_.get()); }
    int tasks() { return count(tasks_.get()); }
    // The appointments by their start, the tasks by the day they are due; those without one come first.
    void sort(bool descending);
    // From now on the appointments are those of the days from `from` on and before `to`, each occurrence of a series
    // for itself, by their start.
    void restrict_to(CalendarDay from, CalendarDay to);
    // The item at a place, from 1; empty when it is gone meanwhile.
    ComPtr<IAppointment> appointment_at(int index);
    ComPtr<ITask> task_at(int index);
    // Empty when there is none, or when it is another kind of item.
    ComPtr<IAppointment> appointment(LONG oid);
    ComPtr<ITask> task(LONG oid);
    // The numbers of all appointments, or tasks, with this lasting identifier.
    std::vector<LONG> appointments_with_uid(const std::string& uid);
    std::vector<LONG> tasks_with_uid(const std::string& uid);
    // What is kept of an item beside its fields; empty when it is gone.
    std::string extras_of(LONG oid);

    // Saves all of them, with their changed occurrences, at once; an item that the store refuses stops none of the
    // others. Tasks count on behind the events.
    std::vector<Refused> add(const std::vector<Event>& events, const std::vector<Task>& tasks);
    // The same, where each takes the place of the item with its number of `oids`, unless that is 0 or gone. Then the
    // numbers are those that they have.
    std::vector<Refused> put(const std::vector<Event>& events, const std::vector<Task>& tasks, std::vector<LONG>& oids);

private:
    LONG save_one(const std::vector<Event>& events, const std::vector<Task>& tasks, std::size_t index, LONG replaced);
    static int count(IPOutlookItemCollection* items);
    LONG save_new(const Event& event);
    LONG save_new(const Task& task);

    Session session_;
    ComPtr<IPOutlookItemCollection> appointments_;
    ComPtr<IPOutlookItemCollection> tasks_;
};

// All of an appointment, or of one occurrence without its series. Identifiers are those that programs gave.
Event read_appointment(IAppointment* appointment);
EventFields read_fields(IAppointment* appointment);
Task read_task(ITask* task);
Moment start_of(IAppointment* appointment);  // kNoTime when it has none
LONG oid_of(IAppointment* appointment);
LONG oid_of(ITask* task);

// The identifier that lasts.
std::string uid_of(IAppointment* appointment);
std::string uid_of(ITask* task);
// The items that a person means: the one of a number, or all those of an identifier. Several are occurrences that stand
// alone, or a file's doing.
std::vector<LONG> find_items(CalendarStore& store, const std::string& number_or_uid);

DATE to_date(Moment time);
Moment to_moment(DATE date);  // kNoTime for ZR_PIM_NO_DATE

// The time that a clock shows instead of one that is left out where summer time begins: what 02:30 becomes there. All
// others are themselves.
Moment as_it_becomes(Moment time);
// Whether it was called off.
bool is_cancelled(const EventFields& fields);
// The last day of whole days, as people say it; the end of anything else.
Moment shown_end(const EventFields& fields);

// In a word.
std::string busy_text(const EventFields& fields);
std::string sensitivity_text(int sensitivity);
std::string importance_text(const Task& task);

// As JSON: identifier, and every field that is not empty.
Json event_json(LONG oid, const Event& event);
Json fields_json(const EventFields& fields);
Json task_json(LONG oid, const Task& task);
// As a line of text with tabs: number, start, end, subject, location, recurrence and whether it was cancelled, and the
// identifier. Of an occurrence `changed` tells whether it is not as its series says.
std::string event_line(LONG oid, const Event& event, bool changed = false);
// Number, due date, whether it is done, subject, identifier.
std::string task_line(LONG oid, const Task& task);
std::vector<Column> event_columns();
std::vector<Column> task_columns();

}  // namespace zr
