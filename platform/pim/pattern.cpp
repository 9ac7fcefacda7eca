#include "pattern.h"

namespace zr::platform::pim {
namespace {

constexpr const char* kNoSuchField = "This type of pattern has no such field, or the value is out of its range.";

// The faces of a rule's fields: a getter and a setter each.
#define ZRPIM_RULE_FIELD(name, member)                                                        \
    HRESULT get_##name(LONG* value) override {                                                \
        return read(value, LONG{0}, [](const Series& series) { return series.rule.member; }); \
    }                                                                                         \
    HRESULT put_##name(LONG value) override {                                                 \
        return change([value](Rule& rule) {                                                   \
            /* A field that the type does not have is 0. */                                   \
            if (rule.member == 0) return false;                                               \
            rule.member = value;                                                              \
            return true;                                                                      \
        });                                                                                   \
    }

class Pattern final : public Part<IRecurrencePattern, IID_IRecurrencePattern> {
public:
    Pattern(Appointment& appointment, bool read_only) : Part(appointment), read_only_(read_only) {}

    ZRPIM_RULE_FIELD(Interval, interval)
    ZRPIM_RULE_FIELD(DayOfWeekMask, weekdays)
    ZRPIM_RULE_FIELD(DayOfMonth, day_of_month)
    ZRPIM_RULE_FIELD(Instance, instance)
    ZRPIM_RULE_FIELD(MonthOfYear, month)

    HRESULT get_RecurrenceType(LONG* type) override {
        return read(type, LONG{olRecursOnce}, [](const Series& series) { return series.rule.type; });
    }
    HRESULT put_RecurrenceType(LONG type) override;
    HRESULT get_PatternStartDate(DATE* date) override;
    HRESULT put_PatternStartDate(DATE date) override;
    HRESULT get_StartTime(DATE* time) override;
    HRESULT put_StartTime(DATE time) override;
    HRESULT get_EndTime(DATE* time) override;
    HRESULT put_EndTime(DATE time) override;
    HRESULT get_PatternEndDate(DATE* date) override;
    HRESULT put_PatternEndDate(DATE date) override;
    HRESULT get_NoEndDate(VARIANT_BOOL* endless) override;
    HRESULT put_NoEndDate(VARIANT_BOOL endless) override;
    HRESULT get_Occurrences(LONG* count) override;
    HRESULT put_Occurrences(LONG count) override;
    HRESULT get_Duration(LONG* minutes) override { return appointment_.get_Duration(minutes); }
    HRESULT put_Duration(LONG minutes) override;
    HRESULT get_Exceptions(IExceptions** exceptions) override { return make_exceptions(appointment_, exceptions); }
    HRESULT GetOccurrence(DATE date, IAppointment** occurrence) override;

private:
    ~Pattern() override = default;

    // Gives what `of(Series)` says.
    template <class T, class Of>
    HRESULT read(T* value, T otherwise, Of of);
    // Changes the series in hand by `with(Series&)`, which says what is wrong.
    template <class With>
    HRESULT change_series(With with);
    // Changes the rule by `with(Rule&)`, which says whether it can have the value at all.
    template <class With>
    HRESULT change(With with);

    const bool read_only_;
};

DATE time_of_day(LONG second) {
    return date_of({0, second});
}

template <class T, class Of>
HRESULT Pattern::read(T* value, T otherwise, Of of) {
    if (value == nullptr) return fail(E_POINTER);
    *value = otherwise;
    return guarded([&]() -> HRESULT {
        Series series;
        const HRESULT result = appointment_.series(series);
        if (SUCCEEDED(result)) *value = of(std::as_const(series));
        return result;
    });
}

template <class With>
HRESULT Pattern::change_series(With with) {
    if (read_only_) return fail(E_ACCESSDENIED, "An occurrence has no pattern of its own.");
    return guarded([&]() -> HRESULT {
        Series series;
        const HRESULT result = appointment_.series(series);
        return SUCCEEDED(result) ? with(series) : result;
    });
}

template <class With>
HRESULT Pattern::change(With with) {
    return change_series([&](Series& series) -> HRESULT {
        Rule rule = series.rule;
        if (!rule.recurs() || !with(rule) || !rule.valid()) return fail(E_INVALIDARG, kNoSuchField);
        return rule != series.rule ? appointment_.put_rule(rule) : S_OK;
    });
}

HRESULT Pattern::put_RecurrenceType(LONG type) {
    return change_series([&](Series& series) -> HRESULT {
        if (type == series.rule.type) return S_OK;
        if (type == olRecursOnce) return appointment_.ClearRecurrencePattern();
        Rule rule = rule_for(type, series.rule.first);
        rule.end = series.rule.end;
        rule.count = series.rule.count;
        rule.last = series.rule.last;
        if (!rule.valid()) return fail(E_INVALIDARG, "There is no such type of pattern.");
        return appointment_.put_rule(rule);
    });
}

HRESULT Pattern::get_PatternStartDate(DATE* date) {
    return read(date, ZR_PIM_NO_DATE, [](const Series& series) {
        return series.start ? date_of({series.start->day, 0}) : ZR_PIM_NO_DATE;
    });
}

HRESULT Pattern::put_PatternStartDate(DATE date) {
    return change_series([&](Series& series) -> HRESULT {
        if (!is_date(date) || date == ZR_PIM_NO_DATE) return fail(E_INVALIDARG, "A pattern starts on some day.");
        const Moment start = {moment_of(date).day, series.start ? series.start->second : 0};
        if (series.end && series.start) series.end = later(start, series.seconds());
        series.start = start;
        return appointment_.put_times(series);
    });
}

HRESULT Pattern::get_StartTime(DATE* time) {
    return read(time, DATE{0},
                [](const Series& series) { return series.start ? time_of_day(series.start->second) : 0; });
}

HRESULT Pattern::put_StartTime(DATE time) {
    return change_series([&](Series& series) -> HRESULT {
        if (!is_date(time)) return fail(E_INVALIDARG, "The date is out of range.");
        const Moment start = {series.rule.first, moment_of(time).second};
        if (series.end && series.start) series.end = later(start, series.seconds());
        series.start = start;
        return appointment_.put_times(series);
    });
}

HRESULT Pattern::get_EndTime(DATE* time) {
    return read(time, DATE{0}, [](const Series& series) { return series.end ? time_of_day(series.end->second) : 0; });
}

HRESULT Pattern::put_EndTime(DATE time) {
    return change_series([&](Series& series) -> HRESULT {
        if (!is_date(time) || !series.start) return fail(E_INVALIDARG, "An end needs a start and a date in range.");
        const LONG second = moment_of(time).second;
        if (series.end && series.end->second == second) return S_OK;
        series.end = Moment{series.start->day + (second < series.start->second ? 1 : 0), second};
        return appointment_.put_times(series);
    });
}

HRESULT Pattern::get_PatternEndDate(DATE* date) {
    return read(date, ZR_PIM_NO_DATE, [](const Series& series) -> DATE {
        if (!series.rule.recurs()) return series.start ? date_of({series.start->day, 0}) : ZR_PIM_NO_DATE;
        const std::optional<Day> last = Occurrences(series.rule).last();
        return last ? date_of({*last, 0}) : ZR_PIM_NO_DATE;
    });
}

HRESULT Pattern::put_PatternEndDate(DATE date) {
    if (date == ZR_PIM_NO_DATE) return put_NoEndDate(VARIANT_TRUE);
    if (!is_date(date)) return fail(E_INVALIDARG, "The date is out of range.");
    const Day day = moment_of(date).day;
    return change([day](Rule& rule) {
        if (Occurrences(rule).last() == day) return true;
        rule.end = Rule::End::Date;
        rule.last = day;
        rule.count = 0;
        return day <= kLastDay;
    });
}

HRESULT Pattern::get_NoEndDate(VARIANT_BOOL* endless) {
    return read(endless, VARIANT_FALSE, [](const Series& series) {
        return series.rule.recurs() && series.rule.end == Rule::End::Never ? VARIANT_TRUE : VARIANT_FALSE;
    });
}

HRESULT Pattern::put_NoEndDate(VARIANT_BOOL endless) {
    return change([endless](Rule& rule) {
        if ((endless != VARIANT_FALSE) == (rule.end == Rule::End::Never)) return true;
        rule.end = endless != VARIANT_FALSE ? Rule::End::Never : Rule::End::Count;
        rule.count = endless != VARIANT_FALSE ? 0 : kDefaultOccurrences;
        rule.last = 0;
        return true;
    });
}

HRESULT Pattern::get_Occurrences(LONG* count) {
    return read(count, LONG{0},
                [](const Series& series) { return series.rule.recurs() ? Occurrences(series.rule).count() : 1; });
}

HRESULT Pattern::put_Occurrences(LONG count) {
    return change([count](Rule& rule) {
        if (count < 1) return false;
        if (Occurrences(rule).count() == count) return true;
        rule.end = Rule::End::Count;
        rule.count = count;
        rule.last = 0;
        return true;
    });
}

HRESULT Pattern::put_Duration(LONG minutes) {
    if (read_only_) return fail(E_ACCESSDENIED, "An occurrence has no pattern of its own.");
    return appointment_.put_Duration(minutes);
}

HRESULT Pattern::GetOccurrence(DATE date, IAppointment** occurrence) {
    if (!cleared(occurrence)) return fail(E_POINTER);
    if (!is_date(date)) return fail(E_INVALIDARG, "The date is out of range.");
    return guarded([&] { return appointment_.occurrence_on(moment_of(date).day, occurrence); });
}

class ExceptionObject final : public Part<IException, IID_IException> {
public:
    ExceptionObject(Appointment& appointment, const ExceptionDay& exception)
        : Part(appointment), exception_(exception) {}

    HRESULT get_AppointmentItem(IAppointment** appointment) override {
        if (!cleared(appointment)) return fail(E_POINTER);
        return guarded([&] { return appointment_.occurrence_on(exception_.day, appointment); });
    }
    HRESULT get_Deleted(VARIANT_BOOL* deleted) override {
        if (deleted == nullptr) return fail(E_POINTER);
        *deleted = exception_.deleted ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    }
    HRESULT get_OriginalDate(DATE* date) override {
        if (date == nullptr) return fail(E_POINTER);
        *date = date_of({exception_.day, 0});
        return S_OK;
    }

private:
    ~ExceptionObject() override = default;

    const ExceptionDay exception_;
};

class ExceptionsObject final : public Part<IExceptions, IID_IExceptions> {
public:
    ExceptionsObject(Appointment& appointment, std::vector<ExceptionDay> exceptions)
        : Part(appointment), exceptions_(std::move(exceptions)) {}

    HRESULT get_Count(INT* count) override {
        if (count == nullptr) return fail(E_POINTER);
        *count = static_cast<INT>(exceptions_.size());
        return S_OK;
    }
    HRESULT Item(INT index, IException** exception) override {
        if (!cleared(exception)) return fail(E_POINTER);
        if (index < 1 || static_cast<std::size_t>(index) > exceptions_.size())
            return fail(E_INVALIDARG, "There is no exception at this index.");
        const ExceptionDay& found = exceptions_[static_cast<std::size_t>(index) - 1];
        *exception = new (std::nothrow) ExceptionObject(appointment_, found);
        return *exception != nullptr ? S_OK : fail(E_OUTOFMEMORY);
    }

private:
    ~ExceptionsObject() override = default;

    const std::vector<ExceptionDay> exceptions_;
};

}  // namespace

HRESULT make_pattern(Appointment& appointment, bool read_only, IRecurrencePattern** pattern) {
    *pattern = new (std::nothrow) Pattern(appointment, read_only);
    return *pattern != nullptr ? S_OK : fail(E_OUTOFMEMORY);
}

HRESULT make_exceptions(Appointment& appointment, IExceptions** exceptions) {
    if (!cleared(exceptions)) return fail(E_POINTER);
    return guarded([&]() -> HRESULT {
        std::vector<ExceptionDay> found;
        const HRESULT result = appointment.exceptions(found);
        if (SUCCEEDED(result)) *exceptions = new ExceptionsObject(appointment, std::move(found));
        return result;
    });
}

}  // namespace zr::platform::pim
