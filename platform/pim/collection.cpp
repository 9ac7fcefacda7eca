#include "collection.h"

#include <algorithm>
#include <map>
#include <unordered_map>

#include "application.h"
#include "calendar_view.h"
#include "item_object.h"

namespace zr::platform::pim {
namespace {

// A walk in another order than the identifiers' that meets this many unread contacts reads ahead, first this many and
// then more each time.
constexpr int kWalkMisses = 16;
constexpr std::size_t kFirstWindow = 512;
constexpr std::size_t kWindowGrowth = 16;

}  // namespace

HRESULT Collection::load(CEPROPID sort, bool descending, Order& order, LONGLONG& seq) {
    Store& store = session_->store();
    return store.at_once([&]() -> HRESULT {
        std::vector<LONG> oids;
        order = Order(first_oid(folder_), sort != 0, descending);
        HRESULT result = store.oids(folder_, oids, seq);
        if (SUCCEEDED(result) && sort != 0)
            result = store.each_key(folder_, sort,
                                    [&order](LONG oid, std::u16string key) { order.set_key(oid, std::move(key)); });
        if (SUCCEEDED(result) && !filter_.empty()) result = keep_filtered(oids);
        if (SUCCEEDED(result)) order.assign(std::move(oids));
        return result;
    });
}

// Leaves only the identifiers of items that meet the filter.
HRESULT Collection::keep_filtered(std::vector<LONG>& oids) {
    std::map<CEPROPID, std::unordered_map<LONG, std::u16string>> keys;
    for (const CEPROPID id : filter_.fields()) {
        auto& of_field = keys[id];
        const HRESULT result = session_->store().each_key(
            folder_, id, [&of_field](LONG oid, std::u16string key) { of_field.emplace(oid, std::move(key)); });
        if (FAILED(result)) return result;
    }
    std::erase_if(oids, [&](LONG oid) {
        return !filter_.holds([&](CEPROPID id) {
            const auto& of_field = keys[id];
            const auto found = of_field.find(oid);
            return found != of_field.end() ? found->second : key_of(id, nullptr);
        });
    });
    return S_OK;
}

// kGone: there is no such item any more.
HRESULT Collection::meets(const Restriction& restriction, LONG oid, bool& met) {
    HRESULT result = S_OK;
    met = restriction.holds([&](CEPROPID id) {
        std::u16string key;
        if (SUCCEEDED(result)) result = session_->store().key(oid, id, key);
        return key;
    });
    return result;
}

HRESULT Collection::apply(const std::vector<Change>& changes) {
    for (const Change& change : changes) {
        const HRESULT result = apply(change);
        if (FAILED(result)) return result;
    }
    return S_OK;
}

HRESULT Collection::apply(const Change& change) {
    if (change.kind == ChangeKind::Deleted) {
        order_.erase(change.oid);
        return S_OK;
    }
    if (sort_ == 0 && filter_.empty()) {
        order_.put(change.oid, {});
        return S_OK;
    }
    bool met = true;
    std::u16string key;
    HRESULT result = filter_.empty() ? S_OK : meets(filter_, change.oid, met);
    if (SUCCEEDED(result) && sort_ != 0) result = session_->store().key(change.oid, sort_, key);
    if (result == kGone) return S_OK;  // a later change says so
    if (FAILED(result)) return result;
    if (met) {
        order_.put(change.oid, std::move(key));
    } else {
        order_.erase(change.oid);
    }
    return S_OK;
}

// What is at hand of the contact at a position. A walk finds its next ones here.
RowRef Collection::row_at(std::size_t position, LONG oid) {
    if (folder_ != olFolderContacts) return {};
    ContactRows& rows = session_->store().rows();
    RowRef row = rows.cached(oid);
    if (sort_ == 0 || position + 1 == walk_.next) return row;
    if (position != walk_.next) walk_ = {};
    walk_.next = position + 1;
    const bool expected = walk_.window != 0 && position >= walk_.window_end;
    if (row || (!expected && ++walk_.misses < kWalkMisses)) return row;
    walk_.misses = 0;
    walk_.window = expected ? std::min(walk_.window * kWindowGrowth, rows.fit()) : kFirstWindow;
    // Only an attempt: what could not be read ahead is read when it is asked for, and fails there.
    if (FAILED(read_ahead(position)) || FAILED(session_->store().refresh())) return {};
    return rows.cached(oid);  // unless it changed meanwhile
}

HRESULT Collection::read_ahead(std::size_t position) {
    walk_.window_end = position + std::min(walk_.window, order_.size() - position);
    std::vector<LONG> oids;
    oids.reserve(walk_.window_end - position);
    while (position < walk_.window_end) {
        oids.push_back(order_.at(position++));
    }
    return session_->store().rows().read_ahead(std::move(oids));
}

Given Collection::given_at(std::size_t position) {
    const LONG oid = order_.at(position);
    if (has_left(oid)) return {.oid = oid, .listed = true, .left = true};
    const LONGLONG seq = session_->store().seq();  // before anything is read
    return {.oid = oid, .row = row_at(position, oid), .seq = seq, .listed = true};
}

HRESULT Collection::give(Given&& given, IDispatch** item) {
    *item = make_item(session_, folder_, std::move(given));
    return *item != nullptr ? S_OK : fail(E_OUTOFMEMORY);
}

HRESULT Collection::Item(INT index, IDispatch** item) {
    if (!cleared(item)) return fail(E_POINTER);
    return guarded([&]() -> HRESULT {
        Given given;
        {
            const auto lock = session_->store().lock();
            std::size_t position = 0;
            const HRESULT result = position_of(index, position);
            if (FAILED(result)) return result;
            given = given_at(position);
        }
        return give(std::move(given), item);
    });
}

HRESULT Collection::remove_at(std::size_t position, Transaction& transaction) {
    LONG oid = 0;
    {
        const auto lock = session_->store().lock();
        oid = order_.at(position);
    }
    return transaction.remove(oid);
}

HRESULT Collection::Restrict(BSTR restriction, IPOutlookItemCollection** items) {
    if (!cleared(items)) return fail(E_POINTER);
    return guarded([&]() -> HRESULT {
        Restriction wanted;
        const HRESULT result = parse(restriction, wanted);
        if (FAILED(result)) return result;
        wanted = Restriction::both(filter_, wanted);
        if (include_recurrences_ != VARIANT_FALSE && folder_ == olFolderCalendar)
            return make_calendar_view(session_, std::move(wanted), items);
        *items = new Collection(session_, folder_, std::move(wanted));
        return S_OK;
    });
}

HRESULT Collection::Sort(BSTR tag, VARIANT_BOOL descending) {
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        const CEPROPID sort = tag != nullptr ? field_of_tag(folder_, tag) : 0;
        if (sort == 0 || type_of(sort) == CEVT_I4) return fail(E_INVALIDARG, "The items cannot be sorted by this tag.");
        const auto lock = session_->store().lock();
        HRESULT result = session_->store().refresh();
        Order order;
        LONGLONG seq = 0;
        if (SUCCEEDED(result)) result = load(sort, descending != VARIANT_FALSE, order, seq);
        if (FAILED(result)) return result;
        order_ = std::move(order);
        sort_ = sort;
        descending_ = descending != VARIANT_FALSE;
        begin_moment(seq);
        found_.reset();
        return S_OK;
    });
}

HRESULT Collection::find_next(IDispatch** item) {
    const auto lock = session_->store().lock();
    const HRESULT result = follow();
    if (FAILED(result)) return result;
    for (std::size_t position = found_ ? order_.through(found_->key, found_->oid) : 0; position < size(); ++position) {
        Given given = given_at(position);
        bool met = false;
        const HRESULT read = given.left ? kGone : meets(sought_, given.oid, met);
        if (FAILED(read) && read != kGone) return read;
        if (FAILED(read) || !met) continue;
        found_ = {order_.key_of(given.oid), given.oid};
        return give(std::move(given), item);
    }
    return S_FALSE;
}

HRESULT Collection::get_IncludeRecurrences(VARIANT_BOOL* include) {
    if (include == nullptr) return fail(E_POINTER);
    *include = include_recurrences_;
    return S_OK;
}

HRESULT Collection::put_IncludeRecurrences(VARIANT_BOOL include) {
    include_recurrences_ = include != VARIANT_FALSE ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

}  // namespace zr::platform::pim
