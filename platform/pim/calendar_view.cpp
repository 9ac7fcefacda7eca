#include "calendar_view.h"

#include <algorithm>
#include <set>
#include <tuple>

#include "appointment.h"
#include "item_collection.h"

namespace zr::platform::pim {
namespace {

// More changed appointments than this are followed faster by starting over.
constexpr std::size_t kFollowedChanges = 256;

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
    HRESULT Remove(INT index) override;
    HRESULT Restrict(BSTR restriction, IPOutlookItemCollection** items) override;
    HRESULT Sort(BSTR tag, VARIANT_BOOL descending) override;
    HRESULT get_IncludeRecurrences(VARIANT_BOOL* include) override;
    HRESULT put_IncludeRecurrences(VARIANT_BOOL include) override;

private:
    ~CalendarView() override = default;

    HRESULT follow() override;
    std::size_t size() const override { return entries_.size(); }
    HRESULT find_from(std::size_t position, IDispatch** item) override;

    // With the store's lock held.
    HRESULT load();
    HRESULT read(LONG oid, Read& appointment);
    HRESULT append(LONG oid);
    HRESULT append_occurrences(LONG oid, const Read& appointment);
    HRESULT append_exception(LONG oid, Day day, const Read& appointment);
    void append_if_met(LONG oid, std::optional<Day> day, const Values& own, const Values& fields);
    HRESULT entry_at(INT index, Entry& entry);
    HRESULT meets(const Entry& entry, bool& met);

    HRESULT give(const Entry& entry, IDispatch** item);

    const Restriction filter_;
    bool descending_ = false;
    // All of this under the store's lock.
    std::vector<Entry> entries_;  // in order, also when descending
    bool loaded_ = false;
    LONGLONG seq_ = 0;
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

HRESULT CalendarView::load() {
    entries_.clear();
    std::vector<LONG> oids;
    const HRESULT result = session_->store().oids(olFolderCalendar, oids, seq_);
    if (FAILED(result)) return result;
    // What changes from here on is in the log behind `seq_` and followed next time.
    for (const LONG oid : oids) {
        const HRESULT appended = append(oid);
        if (FAILED(appended)) return appended;
    }
    std::sort(entries_.begin(), entries_.end());
    return S_OK;
}

HRESULT CalendarView::follow() {
    if (!session_->is_open()) return session_->check_open();
    Store& store = session_->store();
    HRESULT result = store.refresh();
    if (FAILED(result) || (loaded_ && seq_ >= store.seq())) return result;
    std::vector<Change> changes;
    std::set<LONG> changed;
    bool known = loaded_ && store.recent(seq_, changes);
    for (const Change& change : changes) {
        if (folder_of(change.oid) == olFolderCalendar) changed.insert(change.oid);
    }
    known = known && changed.size() <= kFollowedChanges;
    loaded_ = false;  // unless all of it is followed
    if (!known) {
        result = load();
    } else {
        std::erase_if(entries_, [&](const Entry& entry) { return changed.contains(entry.oid); });
        seq_ = store.seq();
        for (const LONG oid : changed) {
            if (SUCCEEDED(result)) result = append(oid);
        }
        std::sort(entries_.begin(), entries_.end());
    }
    loaded_ = SUCCEEDED(result);
    return result;
}

HRESULT CalendarView::entry_at(INT index, Entry& entry) {
    std::size_t position = 0;
    const HRESULT result = position_of(index, position);
    if (FAILED(result)) return result;
    entry = entries_[descending_ ? entries_.size() - 1 - position : position];
    return S_OK;
}

// --- the collection -------------------------------------------------------------------------------------------------

HRESULT CalendarView::give(const Entry& entry, IDispatch** item) {
    if (!entry.day) {
        *item = make_item(session_, olFolderCalendar, entry.oid, {});
        return *item != nullptr ? S_OK : fail(E_OUTOFMEMORY);
    }
    IAppointment* occurrence = nullptr;
    const HRESULT result = find_occurrence(session_, entry.oid, *entry.day, &occurrence);
    *item = occurrence;
    return result;
}

HRESULT CalendarView::Item(INT index, IDispatch** item) {
    if (!cleared(item)) return fail(E_POINTER);
    return guarded([&]() -> HRESULT {
        Entry entry = {};
        {
            const auto lock = session_->store().lock();
            const HRESULT result = entry_at(index, entry);
            if (FAILED(result)) return result;
        }
        return give(entry, item);
    });
}

HRESULT CalendarView::Remove(INT index) {
    return guarded([&]() -> HRESULT {
        BatchMark mark;
        return session_->write(mark, [&](Transaction& transaction) -> HRESULT {
            Entry entry = {};
            {
                const auto lock = session_->store().lock();
                const HRESULT result = entry_at(index, entry);
                if (FAILED(result)) return result;
            }
            return entry.day ? transaction.remove_occurrence(entry.oid, *entry.day) : transaction.remove(entry.oid);
        });
    });
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

HRESULT CalendarView::find_from(std::size_t position, IDispatch** item) {
    Entry entry = {};
    bool met = false;
    {
        const auto lock = session_->store().lock();
        HRESULT result = follow();
        for (; SUCCEEDED(result) && !met && position < entries_.size(); ++position) {
            entry = entries_[descending_ ? entries_.size() - 1 - position : position];
            result = meets(entry, met);
        }
        if (FAILED(result)) return result;
        found_ = position;
    }
    return met ? give(entry, item) : S_FALSE;
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
        found_ = 0;
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
