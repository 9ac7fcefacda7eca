// zr calendar occurrence: one occurrence of a series, by its date.

#include <chrono>
#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/calendar_day.h"
#include "zr/commands/command.h"
#include "zr/commands/event_rows.h"
#include "zr/commands/require_zone.h"
#include "zr/stores/calendar.h"

namespace zr {
namespace {

using namespace std::chrono;

struct CalendarOccurrenceOptions {
    std::string series;
    std::string date;
    bool json = false;
};

// The exception of the series that replaces that day's occurrence; empty when there is none.
ComPtr<IException> exception_on(IAppointment* series, CalendarDay day) {
    constexpr const char* reading = "reading exceptions";
    ComPtr<IRecurrencePattern> pattern;
    ComPtr<IExceptions> exceptions;
    check(series->GetRecurrencePattern(pattern.out()), reading);
    check(pattern->get_Exceptions(exceptions.out()), reading);
    INT count = 0;
    check(exceptions->get_Count(&count), reading);
    for (INT i = 1; i <= count; ++i) {
        ComPtr<IException> exception;
        check(exceptions->Item(i, exception.out()), reading);
        DATE original = 0;
        check(exception->get_OriginalDate(&original), reading);
        if (to_moment(original) == day) return exception;
    }
    return {};
}

std::string utc_text(FILETIME time) {
    const std::uint64_t units = std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
    // Units of 100 nanoseconds from 1601 on.
    const Moment utc = Moment(local_days(year(1601) / 1 / 1)) + seconds(units / 10000000);
    return time_text(utc) + "Z";
}

class Occurrence {
public:
    explicit Occurrence(const CalendarOccurrenceOptions& options)
        : day_(parse_day_words("DATE", options.date)), wanted_(options.series), json_(options.json) {}

    Exit run();

private:
    Exit none(const std::string& why) {
        complain(why);
        return Exit::None;
    }
    FILETIME recurrence_id(IAppointment* series, IException* exception, Moment start) const;
    void print(const EventFields& fields, const std::string& id, bool is_exception) const;

    CalendarDay day_;
    std::string wanted_;
    LONG oid_ = 0;
    bool json_;
};

FILETIME Occurrence::recurrence_id(IAppointment* series, IException* exception, Moment start) const {
    if (exception) return WindowsUtilities::getRecurrenceId(series, exception);
    // Of an occurrence as the pattern has it: when it begins.
    double local = to_date(start);
    FILETIME utc = {};
    WindowsUtilities::LocalVariantTimeToFileTime(local, &utc);
    return utc;
}

void Occurrence::print(const EventFields& fields, const std::string& id, bool is_exception) const {
    if (json_) {
        Json json = {{"oid", oid_}, {"day", shown_time(day_, true)}, {"recurrenceId", id}, {"exception", is_exception}};
        json.set_all(fields_json(fields));
        print_json_line(json);
        return;
    }
    print_row("Identifier", std::to_string(oid_));
    print_row("Day", shown_time(day_, true));
    print_row("Recurrence id", id);
    print_row("Exception", is_exception ? "yes" : "no");
    print_fields(fields);
}

Exit Occurrence::run() {
    CalendarStore store;
    const std::vector<LONG> found = find_items(store, wanted_);
    if (!found.empty()) oid_ = found.front();
    const ComPtr<IAppointment> series = store.appointment(oid_);
    if (!series) return none("no appointment " + printable(wanted_));
    const std::string wanted = std::to_string(oid_) + " on " + shown_time(day_, true);
    VARIANT_BOOL recurring = VARIANT_FALSE;
    check(series->get_IsRecurring(&recurring), "reading an appointment");
    if (!recurring) return none("appointment " + std::to_string(oid_) + " does not recur");
    const ComPtr<IException> exception = exception_on(series.get(), day_);
    VARIANT_BOOL deleted = VARIANT_FALSE;
    if (exception) check(exception->get_Deleted(&deleted), "reading an exception");
    if (deleted) return none("the occurrence of " + wanted + " was deleted");

    const Moment series_start = start_of(series.get());
    const Moment start = day_ + (series_start - floor<days>(series_start));
    double local = to_date(start);
    FILETIME instance = {};
    WindowsUtilities::LocalVariantTimeToFileTime(local, &instance);
    ComPtr<IAppointment> occurrence;
    constexpr int kFound = 102;
    const int result = WindowsUtilities::GetChildAppointmentFromParent(store.app(), oid_, &instance, occurrence.out());
    if (result != kFound || !occurrence) return none("no occurrence of " + wanted);
    print(read_fields(occurrence.get()), utc_text(recurrence_id(series.get(), exception.get(), start)),
          static_cast<bool>(exception));
    return Exit::Ok;
}

}  // namespace

void add_calendar_occurrence(Command calendar) {
    const auto options = std::make_shared<CalendarOccurrenceOptions>();
    Command command = calendar.add_command("occurrence", "Show one occurrence of a series");
    command.add_option("SERIES", options->series, "Its number or lasting identifier, as list prints them").required();
    command.add_option("DATE", options->date, "The day on which the series has it, such as 2026-01-31").required();
    command.add_flag("--json", options->json, "Print JSON");
    command.footer(
        "The recurrence id is the instant, in UTC, that the occurrence has in its series; an occurrence\n"
        "that was moved keeps it. The exit code is 1 when the series has no occurrence on that day.\n"
        "\n"
        "Example:\n"
        "  zr calendar occurrence 150994945 2026-01-31");
    command.reads([options] {
        require_zone();
        return Occurrence(*options).run();
    });
}

}  // namespace zr
