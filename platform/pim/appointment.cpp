#include "appointment.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "item_makers.h"
#include "pattern.h"

namespace zr::platform::pim {
namespace {

constexpr int kSecondsPerMinute = 60;

Value date_value(DATE date) {
    return date != ZR_PIM_NO_DATE ? Value(date) : Value();
}

}  // namespace

HRESULT Appointment::QueryInterface(REFIID riid, void** object) {
    if (!cleared(object)) return fail(E_POINTER);
    if (riid != IID_IZrOccurrence) return ItemObject::QueryInterface(riid, object);
    *object = static_cast<IZrOccurrence*>(this);
    AddRef();
    return S_OK;
}

// --- when it is -----------------------------------------------------------------------------------------------------

HRESULT Appointment::is_series(bool& series) {
    series = false;
    if (state_.occurrence() != nullptr) return S_OK;
    LONGLONG type = olRecursOnce;
    const HRESULT result = state_.get_number(field::RecurrenceType, olRecursOnce, type);
    series = type != olRecursOnce;
    return result;
}

// Puts fields that say when it is, all of them or none; what is as it was changes no series.
HRESULT Appointment::put_when(const Values& fields) {
    bool recurring = false;
    HRESULT result = is_series(recurring);
    bool changed = !recurring;
    for (const auto& [id, value] : fields.entries()) {
        Value present;
        if (SUCCEEDED(result) && !changed) result = state_.value(id, present);
        changed = changed || present != value;
    }
    if (FAILED(result) || !changed) return result;
    state_.put_values(fields);
    if (recurring) state_.change_series();
    return S_OK;
}

HRESULT Appointment::put_AllDayEvent(VARIANT_BOOL value) {
    value = value != VARIANT_FALSE ? VARIANT_TRUE : VARIANT_FALSE;
    VARIANT_BOOL present = VARIANT_FALSE;
    const HRESULT result = get_AllDayEvent(&present);
    if (FAILED(result) || present == value) return result;
    return guarded([&]() -> HRESULT {
        Values fields;
        fields.set(field::AllDayEvent, LONGLONG{value});
        return put_when(fields);
    });
}

HRESULT Appointment::put_End(DATE date) {
    if (!is_date(date)) return fail(E_INVALIDARG, "The date is out of range.");
    return guarded([&]() -> HRESULT {
        Values fields;
        fields.set(field::End, date_value(date));
        return put_when(fields);
    });
}

HRESULT Appointment::put_Start(DATE date) {
    if (!is_date(date)) return fail(E_INVALIDARG, "The date is out of range.");
    return guarded([&]() -> HRESULT {
        Series present;
        const HRESULT result = series(present);
        if (FAILED(result)) return result;
        Values fields;
        fields.set(field::Start, date_value(date));
        if (present.start && present.end && date != ZR_PIM_NO_DATE) {
            Moment to = moment_of(date);
            if (present.all_day) to.second = present.start->second;  // whole days stay whole
            fields.set(field::End, date_of(later(to, present.seconds())));
        }
        return put_when(fields);
    });
}

HRESULT Appointment::get_Duration(LONG* minutes) {
    if (minutes == nullptr) return fail(E_POINTER);
    *minutes = 0;
    DATE start = 0;
    DATE end = 0;
    HRESULT result = get_Start(&start);
    if (SUCCEEDED(result)) result = get_End(&end);
    if (FAILED(result) || start == ZR_PIM_NO_DATE || end == ZR_PIM_NO_DATE) return result;
    const LONGLONG seconds = seconds_between(moment_of(start), moment_of(end));
    constexpr LONGLONG kMost = std::numeric_limits<LONG>::max();
    const LONGLONG nearest = std::llround(static_cast<double>(seconds) / kSecondsPerMinute);
    *minutes = static_cast<LONG>(std::clamp(nearest, -kMost, kMost));
    return result;
}

HRESULT Appointment::put_Duration(LONG minutes) {
    DATE start = 0;
    const HRESULT result = get_Start(&start);
    if (FAILED(result)) return result;
    if (minutes < 0 || start == ZR_PIM_NO_DATE)
        return fail(E_INVALIDARG, "A duration needs a start and cannot be negative.");
    LONG present = 0;
    DATE end = 0;
    if (get_Duration(&present) == S_OK && present == minutes && get_End(&end) == S_OK && end != ZR_PIM_NO_DATE)
        return S_OK;
    return put_End(date_of(later(moment_of(start), LONGLONG{minutes} * kSecondsPerMinute)));
}

// Before a save: whole days, and a series that begins with its first occurrence.
HRESULT Appointment::settle_times() {
    bool recurring = false;
    HRESULT result = is_series(recurring);
    if (FAILED(result)) return result;
    const bool changed = recurring && (state_.is_new() || state_.series_changed());
    const bool moved = state_.has_put(field::Start) || state_.has_put(field::End) || state_.has_put(field::AllDayEvent);
    if (!changed && !moved) return S_OK;
    Series settled;
    result = series(settled);
    if (FAILED(result)) return result;
    const Series before = settled;
    Values fields;
    settled.round_to_days();
    if (changed && settled.rule.recurs()) {
        result = settled.begin_with_first();
        if (FAILED(result)) return result;
        // All of it, so that the pattern is whole whatever another program stored meanwhile.
        fields = rule_fields(settled.rule);
        fields.set(field::Start, date_of(*settled.start));
        fields.set(field::End, settled.end ? Value(date_of(*settled.end)) : Value());
    }
    if (settled.start && settled.start != before.start) fields.set(field::Start, date_of(*settled.start));
    if (settled.end && settled.end != before.end) fields.set(field::End, date_of(*settled.end));
    if (!fields.empty()) state_.put_values(fields);
    return S_OK;
}

HRESULT Appointment::Save() {
    const HRESULT result = guarded([&] { return settle_times(); });
    return SUCCEEDED(result) ? ItemObject::Save() : result;
}

// --- as a series ----------------------------------------------------------------------------------------------------

HRESULT Appointment::get_IsRecurring(VARIANT_BOOL* recurring) {
    if (recurring == nullptr) return fail(E_POINTER);
    bool series = false;
    const HRESULT result = is_series(series);
    *recurring = series || state_.occurrence() != nullptr ? VARIANT_TRUE : VARIANT_FALSE;
    return result;
}

HRESULT Appointment::GetRecurrencePattern(IRecurrencePattern** pattern) {
    if (!cleared(pattern)) return fail(E_POINTER);
    if (!state_.session().is_open()) return state_.session().check_open();
    if (state_.occurrence() == nullptr) return make_pattern(*this, false, pattern);
    IAppointment* series = nullptr;
    HRESULT result = get_Series(&series);
    if (FAILED(result)) return result;
    result = make_pattern(*static_cast<Appointment*>(series), true, pattern);
    series->Release();
    return result;
}

HRESULT Appointment::ClearRecurrencePattern() {
    if (state_.occurrence() != nullptr) return fail(E_ACCESSDENIED, "An occurrence has no pattern of its own.");
    return guarded([&]() -> HRESULT {
        bool series = false;
        const HRESULT result = is_series(series);
        return SUCCEEDED(result) && series ? put_rule(Rule()) : result;
    });
}

HRESULT Appointment::series(Series& series) {
    Values all;
    const HRESULT result = state_.everything(all);
    if (SUCCEEDED(result)) series = Series::from(all);
    return result;
}

HRESULT Appointment::put_rule(const Rule& rule) {
    state_.put_values(rule_fields(rule));
    state_.change_series();
    return S_OK;
}

HRESULT Appointment::put_times(const Series& series) {
    Values fields;
    fields.set(field::Start, date_of(*series.start));
    if (series.end) fields.set(field::End, date_of(*series.end));
    return put_when(fields);
}

// --- occurrences ----------------------------------------------------------------------------------------------------

HRESULT Appointment::occurrence_on(Day day, IAppointment** occurrence) {
    if (state_.series_changed() || state_.is_new())
        return fail(E_UNEXPECTED, "The appointment has to be saved before its occurrences are asked for.");
    Values fields;
    ExceptionFields exception;
    const HRESULT result = state_.read_occurrence(day, fields, exception);
    if (FAILED(result)) return result;
    const Series series = Series::from(fields);
    if (!series.start || !series.rule.recurs() || !Occurrences(series.rule).on(day))
        return fail(kGone, "The series does not occur on that day.");
    if (exception.deleted) return fail(kGone, "The occurrence of that day was deleted.");
    return make_occurrence(day, std::move(fields), exception, occurrence);
}

HRESULT Appointment::make_occurrence(Day day, Values fields, const ExceptionFields& exception,
                                     IAppointment** occurrence) {
    const Series series = Series::from(fields);
    auto made = std::make_unique<Occurrence>();
    made->day = day;
    made->exception = exception.exists;
    made->own = occurrence_fields(series, day, exception.values);
    made->series = std::make_shared<const Values>(std::move(fields));
    LONG oid = 0;
    const HRESULT result = state_.oid(&oid);
    if (FAILED(result)) return result;
    auto* object = new Appointment(SessionRef(&state_.session()), olFolderCalendar, {.oid = oid});
    object->state_.become_occurrence(std::move(made));
    *occurrence = object;
    return S_OK;
}

HRESULT Appointment::get_RecurrenceState(INT* state) {
    if (state == nullptr) return fail(E_POINTER);
    state_.settle();
    if (const Occurrence* occurrence = state_.occurrence()) {
        *state = occurrence->exception ? olApptException : olApptOccurrence;
        return S_OK;
    }
    bool series = false;
    const HRESULT result = is_series(series);
    *state = series ? olApptMaster : olApptNotRecurring;
    return result;
}

HRESULT Appointment::get_OriginalDate(DATE* date) {
    if (date == nullptr) return fail(E_POINTER);
    *date = ZR_PIM_NO_DATE;
    if (state_.occurrence() == nullptr) return fail(E_UNEXPECTED, "The appointment is not an occurrence of a series.");
    *date = state_.occurrence()->day;
    return S_OK;
}

HRESULT Appointment::get_Series(IAppointment** series) {
    if (!cleared(series)) return fail(E_POINTER);
    if (state_.occurrence() == nullptr) return fail(E_UNEXPECTED, "The appointment is not an occurrence of a series.");
    return guarded([&]() -> HRESULT {
        LONG oid = 0;
        HRESULT result = state_.oid(&oid);
        if (SUCCEEDED(result)) result = state_.check_stored();
        if (SUCCEEDED(result)) *series = new Appointment(SessionRef(&state_.session()), olFolderCalendar, {.oid = oid});
        return result;
    });
}

HRESULT find_occurrence(const SessionRef& session, LONG oid, Day day, IAppointment** occurrence) {
    auto* series = new Appointment(session, olFolderCalendar, {.oid = oid});
    const HRESULT result = guarded([&] { return series->occurrence_on(day, occurrence); });
    series->Release();
    return result;
}

IDispatch* make_appointment(const SessionRef& session, Given&& given) {
    return static_cast<IAppointment*>(new (std::nothrow) Appointment(session, olFolderCalendar, std::move(given)));
}

}  // namespace zr::platform::pim
