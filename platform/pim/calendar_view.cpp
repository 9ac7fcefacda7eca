#include "calendar_view.h"

#include <algorithm>
#include <set>
#include <tuple>

#include "appointment.h"
#include "item_collection.h"

namespace zr::platform::pim {
namespace {

struct Entry {
    LONGLONG start;  // in seconds
    LONG oid;
    std::optional<Day> day;  // of an occurrence in its series' pattern

    friend bool operator<(const Entry& a, const Entry& b) {
        return std::tie(a.start, a.oid, a.day) < std::tie(b.start, b.oid, b.day);
    }
};

// An appointment as it was read, with the exceptions of a series.
struct Read {
    Values fields;
    Series series;
    std::vector<ExceptionDay> exceptions;
};

class CalendarView final : public ItemCollection {
public:
    CalendarView(const SessionRef& session, Restriction filter)
        : ItemCollection(session, olFolderCalendar), filter_(std::move(filter)) {}

    HRESULT Item(INT index, IDispatch** item) override;
    HRESULT Restrict(BSTR restriction, IPOutlookItemCollection** items) override;
    HRESULT Sort(BSTR tag, VARIANT_BOOL descending) override;
    HRESULT get_IncludeRecurrences(VARIANT_BOOL* include) override;
    HRESULT put_IncludeRecurrences(VARIANT_BOOL include) override;

private:
    ~CalendarView() override = default;

    HRESULT load(LONGLONG& seq) override;
    HRESULT apply(const std::vector<Change>& changes) override;
    std::size_t size() const override { return entries_.size(); }
    LONG oid_at(std::size_t position) override { return entry_at(position).oid; }
    void drop(std::size_t position) override;
    void forget_found() override { found_.reset(); }
    HRESULT remove_at(std::size_t position, Transaction& transaction) override;
    HRESULT find_next(IDispatch** item) override;

    // With the store's lock held.
    HRESULT read(LONG oid, Read& appointment);
    HRESULT append(LONG oid);
    HRESULT append_occurrences(LONG oid, const Read& appointment);
    HRESULT append_exception(LONG oid, Day day, const Read& appointment);
    void append_if_met(LONG oid, std::optional<Day> day, const Values& own, const Values& fields);
    std::size_t place_of(std::size_t position) const { return descending_ ? size() - 1 - position : position; }
    const Entry& entry_at(std::size_t position) const { return entries_[place_of(position)]; }
    std::size_t behind_found() const;
    HRESULT meets(const Entry& entry, bool& met);

    HRESULT give(const Entry& entry, bool left, IDispatch** item);

    const Restriction filter_;
    bool descending_ = false;
    // All of this under the store's lock.
    std::vector<Entry> entries_;  // in order, also when descending
    std::optional<Entry> found_;  // last
};

LONGLONG seconds_of(Moment moment) {
    return seconds_between({0, 0}, moment);
}

const Value* find_in(const Values& own, const Values& fields, CEPROPID id) {
    const Value* mine = own.find(id);
    return mine != nullptr ? mine : fields.find(id);
}

// --- what it holds --------------------------------------------------------------------------------------------------

HRESULT CalendarView::read(LONG oid, Read& appointment) {
    Store& store = session_->store();
    return store.at_once([&]() -> HRESULT {
        HRESULT result = store.values(oid, true, appointment.fields);
        appointment.series = Series::from(appointment.fields);
        if (SUCCEEDED(result) && appointment.series.rule.recurs())
            result = store.exceptions(oid, appointment.exceptions);
        return result;
    });
}

void CalendarView::append_if_met(LONG oid, std::optional<Day> day, const Values& own, const Values& fields) {
    const auto find = [&](CEPROPID id) { return find_in(own, fields, id); };
    if (!filter_.holds([&](CEPROPID id) { return key_of(id, find(id)); })) return;
    const Value* start = find(field::Start);
    const auto* date = start != nullptr ? std::get_if<double>(start) : nullptr;
    entries_.push_back({date != nullptr ? seconds_of(moment_of(*date)) : 0, oid, day});
}

HRESULT CalendarView::append_exception(LONG oid, Day day, const Read& appointment) {
    ExceptionFields exception;
    const HRESULT result = session_->store().exception(oid, day, exception);
    if (FAILED(result) || !exception.exists || exception.deleted) return result;
    append_if_met(oid, day, occurrence_fields(appointment.series, day, exception.values), appointment.fields);
    return S_OK;
}

HRESULT CalendarView::append_occurrences(LONG oid, const Read& appointment) {
    const Series& series = appointment.series;
    const Occurrences days(series.rule);
    const Day last = filter_.latest()->day;
    Day from = days.first();
    // One that starts earlier may still be under way at the earliest time.
    if (const auto earliest = filter_.earliest())
        from = std::max(from, later(*earliest, -series.seconds() - kSecondsPerDay).day);
    auto exception = appointment.exceptions.begin();
    for (auto day = days.next(from); day && *day <= last; day = days.next(*day + 1)) {
        while (exception != appointment.exceptions.end() && exception->day < *day) {
            ++exception;
        }
        if (exception != appointment.exceptions.end() && exception->day == *day) continue;
        append_if_met(oid, *day, occurrence_fields(series, *day, {}), appointment.fields);
    }
    // Changed ones may have been moved here from anywhere.
    for (const ExceptionDay& each : appointment.exceptions) {
        const HRESULT result = each.deleted ? S_OK : append_exception(oid, each.day, appointment);
        if (FAILED(result)) return result;
    }
    return S_OK;
}

HRESULT CalendarView::append(LONG oid) {
    Read appointment;
    const HRESULT result = read(oid, appointment);
    if (FAILED(result)) return result;
    if (appointment.series.rule.recurs() && appointment.series.start) return append_occurrences(oid, appointment);
    append_if_met(oid, std::nullopt, {}, appointment.fields);
    return S_OK;
}

HRESULT CalendarView::load(LONGLONG& seq) {
    entries_.clear();
    return session_->store().at_once([&]() -> HRESULT {
        std::vector<LONG> oids;
        HRESULT result = session_->store().oids(olFolderCalendar, oids, seq);
        for (const LONG oid : oids) {
            if (SUCCEEDED(result)) result = append(oid);
        }
        std::sort(entries_.begin(), entries_.end());
        return result;
    });
}

HRESULT CalendarView::apply(const std::vector<Change>& changes) {
    if (changes.empty()) return S_OK;
    std::set<LONG> changed;
    for (const Change& change : changes) {
        changed.insert(change.oid);
    }
    std::erase_if(entries_, [&](const Entry& entry) { return changed.contains(entry.oid); });
    HRESULT result = S_OK;
    for (const LONG oid : changed) {
        if (SUCCEEDED(result)) result = append(oid);
    }
    std::sort(entries_.begin(), entries_.end());
    return result;
}

// --- the collection -------------------------------------------------------------------------------------------------

HRESULT CalendarView::give(const Entry& entry, bool left, IDispatch** item) {
    if (entry.day && !left) {
        IAppointment* occurrence = nullptr;
        const HRESULT result = find_occurrence(session_, entry.oid, *entry.day, &occurrence);
        *item = occurrence;
        if (result != kGone) return result;
        left = true;
    }
    *item = make_item(session_, olFolderCalendar, {.oid = entry.oid, .listed = true, .left = left});
    return *item != nullptr ? S_OK : fail(E_OUTOFMEMORY);
}

HRESULT CalendarView::Item(INT index, IDispatch** item) {
    if (!cleared(item)) return fail(E_POINTER);
    return guarded([&]() -> HRESULT {
        Entry entry = {};
        bool left = false;
        {
            const auto lock = session_->store().lock();
            std::size_t position = 0;
            const HRESULT result = position_of(index, position);
            if (FAILED(result)) return result;
            entry = entry_at(position);
            left = has_left(entry.oid);
        }
        return give(entry, left, item);
    });
}

void CalendarView::drop(std::size_t position) {
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(place_of(position)));
}

HRESULT CalendarView::remove_at(std::size_t position, Transaction& transaction) {
    Entry entry = {};
    {
        const auto lock = session_->store().lock();
        entry = entry_at(position);
    }
    return entry.day ? transaction.remove_occurrence(entry.oid, *entry.day) : transaction.remove(entry.oid);
}

HRESULT CalendarView::meets(const Entry& entry, bool& met) {
    Read appointment;
    HRESULT result = read(entry.oid, appointment);
    ExceptionFields exception;
    Values own;
    if (SUCCEEDED(result) && entry.day) result = session_->store().exception(entry.oid, *entry.day, exception);
    if (SUCCEEDED(result) && entry.day && appointment.series.start)
        own = occurrence_fields(appointment.series, *entry.day, exception.values);
    met = sought_.holds([&](CEPROPID id) { return key_of(id, find_in(own, appointment.fields, id)); });
    return result;
}

std::size_t CalendarView::behind_found() const {
    if (!found_) return 0;
    const auto begin = entries_.begin();
    return static_cast<std::size_t>(descending_ ? entries_.end() - std::lower_bound(begin, entries_.end(), *found_)
                                                : std::upper_bound(begin, entries_.end(), *found_) - begin);
}

HRESULT CalendarView::find_next(IDispatch** item) {
    {
        const auto lock = session_->store().lock();
        HRESULT result = follow();
        bool met = false;
        for (std::size_t position = behind_found(); SUCCEEDED(result) && !met && position < size(); ++position) {
            const Entry& entry = entry_at(position);
            if (has_left(entry.oid)) continue;
            result = meets(entry, met);
            if (met) found_ = entry;
        }
        if (FAILED(result)) return result;
        if (!met) return S_FALSE;
    }
    return give(*found_, false, item);
}

HRESULT CalendarView::Restrict(BSTR restriction, IPOutlookItemCollection** items) {
    if (!cleared(items)) return fail(E_POINTER);
    return guarded([&]() -> HRESULT {
        Restriction wanted;
        const HRESULT result = parse(restriction, wanted);
        if (FAILED(result)) return result;
        return make_calendar_view(session_, Restriction::both(filter_, wanted), items);
    });
}

HRESULT CalendarView::Sort(BSTR tag, VARIANT_BOOL descending) {
    if (!session_->is_open()) return session_->check_open();
    return guarded([&]() -> HRESULT {
        if (tag == nullptr || field_of_tag(olFolderCalendar, tag) != field::Start)
            return fail(E_INVALIDARG, "Occurrences are sorted by their start only.");
        descending_ = descending != VARIANT_FALSE;
        found_.reset();
        return S_OK;
    });
}

HRESULT CalendarView::get_IncludeRecurrences(VARIANT_BOOL* include) {
    if (include == nullptr) return fail(E_POINTER);
    *include = VARIANT_TRUE;
    return S_OK;
}

HRESULT CalendarView::put_IncludeRecurrences(VARIANT_BOOL include) {
    return include != VARIANT_FALSE ? S_OK : fail(E_INVALIDARG, "The collection was made of occurrences.");
}

}  // namespace

HRESULT make_calendar_view(const SessionRef& session, Restriction restriction, IPOutlookItemCollection** items) {
    if (!restriction.latest())
        return fail(E_INVALIDARG, "With recurrences the restriction has to say until when, by [Start] or [End].");
    *items = new CalendarView(session, std::move(restriction));
    return S_OK;
}

}  // namespace zr::platform::pim
