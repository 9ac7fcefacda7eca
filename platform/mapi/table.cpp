#include "table.h"

#include <algorithm>

#include "buffers.h"
#include "com/com_object.h"
#include "prop_object.h"

namespace zr::platform::mapi {
namespace {

// Rows that are read at once: few at first, more while the table is walked on; and no more once they have so many
// bytes.
constexpr int kAhead = 64;
constexpr int kMostAhead = 512;
constexpr std::size_t kMostAheadBytes = 262144;
constexpr int kStride = 512;  // rows that are looked at with the lock held
constexpr ULONG kMostSorts = 8;

class Table final : public IMAPITable {
public:
    Table(SessionRef session, std::unique_ptr<RowSource> source)
        : session_(std::move(session)),
          source_(std::move(source)),
          columns_(source_->columns().begin(), source_->columns().end()),
          tags_(columns_),
          dated_(source_->is_dated()) {}

    HRESULT QueryInterface(REFIID riid, void** object) override {
        if (!cleared(object)) return E_POINTER;
        if (riid != IID_IUnknown && riid != IID_IMAPITable) return fail(E_NOINTERFACE);
        AddRef();
        *object = static_cast<IMAPITable*>(this);
        return S_OK;
    }
    ULONG AddRef() override { return references_.add(); }
    ULONG Release() override {
        const ULONG left = references_.remove();
        if (left == 0) delete this;
        return left;
    }
    HRESULT GetLastError(HRESULT, ULONG flags, LPMAPIERROR* error) override { return last_error(flags, error); }
    HRESULT Advise(ULONG, LPMAPIADVISESINK, ULONG* connection) override {
        if (connection != nullptr) *connection = 0;
        return unsupported();
    }
    HRESULT Unadvise(ULONG) override { return unsupported(); }
    HRESULT GetStatus(ULONG* status, ULONG* type) override {
        if (status == nullptr || type == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
        *status = TBLSTAT_COMPLETE;
        *type = TBLTYPE_DYNAMIC;
        return S_OK;
    }
    HRESULT SetColumns(LPSPropTagArray tags, ULONG flags) override {
        return guarded([&] { return set_columns(tags, flags); });
    }
    HRESULT QueryColumns(ULONG flags, LPSPropTagArray* tags) override {
        return guarded([&] {
            if (!cleared(tags)) return fail(MAPI_E_INVALID_PARAMETER);
            const HRESULT result = check_flags(flags, TBL_ALL_COLUMNS);
            return SUCCEEDED(result) ? give_tags(columns_, tags) : result;
        });
    }
    HRESULT GetRowCount(ULONG flags, ULONG* count) override {
        return guarded([&] { return row_count(flags, count); });
    }
    HRESULT SeekRow(BOOKMARK from, LONG count, LONG* sought) override {
        return guarded([&] { return seek(from, count, sought); });
    }
    HRESULT SeekRowApprox(ULONG, ULONG) override { return unsupported(); }
    HRESULT QueryPosition(ULONG*, ULONG*, ULONG*) override { return unsupported(); }
    HRESULT FindRow(LPSRestriction restriction, BOOKMARK from, ULONG flags) override {
        return guarded([&] { return find(restriction, from, flags); });
    }
    HRESULT Restrict(LPSRestriction restriction, ULONG flags) override {
        return guarded([&] { return restrict(restriction, flags); });
    }
    HRESULT CreateBookmark(BOOKMARK* bookmark) override {
        if (bookmark != nullptr) *bookmark = 0;
        return unsupported();
    }
    HRESULT FreeBookmark(BOOKMARK) override { return unsupported(); }
    HRESULT SortTable(LPSSortOrderSet order, ULONG flags) override {
        return guarded([&] { return sort(order, flags); });
    }
    HRESULT QuerySortOrder(LPSSortOrderSet* order) override {
        if (!cleared(order)) return fail(MAPI_E_INVALID_PARAMETER);
        Buffer<SSortOrderSet> buffer(sizeof(SSortOrderSet) + order_.size() * sizeof(SSortOrder));
        if (!buffer) return fail(MAPI_E_NOT_ENOUGH_MEMORY);
        buffer->cSorts = static_cast<ULONG>(order_.size());
        buffer->cCategories = buffer->cExpanded = 0;
        std::copy(order_.begin(), order_.end(), &buffer->aSort[0]);
        *order = buffer.release();
        return S_OK;
    }
    HRESULT QueryRows(LONG count, ULONG flags, LPSRowSet* rows) override {
        return guarded([&] { return query(count, flags, rows); });
    }
    HRESULT Abort() override { return S_OK; }
    HRESULT ExpandRow(ULONG, BYTE*, ULONG, ULONG, LPSRowSet* rows, ULONG* more) override {
        cleared(rows);
        if (more != nullptr) *more = 0;
        return unsupported();
    }
    HRESULT CollapseRow(ULONG, BYTE*, ULONG, ULONG* count) override {
        if (count != nullptr) *count = 0;
        return unsupported();
    }
    HRESULT WaitForCompletion(ULONG, ULONG, ULONG* status) override {
        if (status != nullptr) *status = TBLSTAT_COMPLETE;
        return S_OK;
    }
    HRESULT GetCollapseState(ULONG, ULONG, BYTE*, ULONG* size, BYTE** state) override {
        if (size != nullptr) *size = 0;
        cleared(state);
        return unsupported();
    }
    HRESULT SetCollapseState(ULONG, ULONG, BYTE*, BOOKMARK* bookmark) override {
        if (bookmark != nullptr) *bookmark = 0;
        return unsupported();
    }

private:
    struct Ahead {
        Place place;
        Buffer<SPropValue> values;
    };

    ~Table() = default;

    MailStore& store() { return session_->store(); }
    HRESULT begin_call() {
        const HRESULT result = session_->check_open();
        return SUCCEEDED(result) ? store().refresh() : result;
    }

    HRESULT set_columns(LPSPropTagArray tags, ULONG flags) {
        if (tags == nullptr || tags->cValues == 0) return fail(MAPI_E_INVALID_PARAMETER);
        if (const HRESULT result = check_flags(flags, TBL_BATCH); FAILED(result)) return result;
        columns_.assign(tags->aulPropTag, tags->aulPropTag + tags->cValues);
        gather_tags();
        return S_OK;
    }

    // What is read of a row: the columns, and behind them what the restriction looks at.
    void gather_tags() {
        tags_ = columns_;
        if (restriction_) restriction_->tags(tags_);
        drop_ahead();
    }

    bool fits(const SPropValue* row) const { return !restriction_ || restriction_->fits(row, tags_.size()); }

    // --- dated tables: a place among rows that come and go ---

    bool descends() const { return !order_.empty() && order_.front().ulOrder == TABLE_SORT_DESCEND; }
    Place first_place() const { return descends() ? kBehindAll : kBeforeAll; }
    Place last_place() const { return descends() ? kBeforeAll : kBehindAll; }

    // A place parts the rows in the order of their dates: those up to it, and those behind it. An ascending table goes
    // on with the ones behind it, a descending one with the ones up to it.
    HRESULT walk(const Place& from, bool back, int limit, std::span<const ULONG> tags, const RowSource::Visit& visit) {
        return source_->walk(from, descends() != back, limit, tags, visit);
    }

    static Place just_before(const Place& row) { return {row.date, row.id - 1}; }
    Place behind(const Place& row) const { return descends() ? just_before(row) : row; }
    Place before(const Place& row) const { return descends() ? row : just_before(row); }

    bool has_ahead() const { return ahead_at_ != ahead_.size(); }
    void drop_ahead() {
        ahead_.clear();
        ahead_at_ = 0;
    }

    HRESULT read_ahead() {
        if (ahead_seq_ != store().seq()) {
            drop_ahead();
            ahead_limit_ = kAhead;
        }
        ahead_seq_ = store().seq();
        if (has_ahead()) return S_OK;
        drop_ahead();
        Place from = place_;
        const int limit = std::exchange(ahead_limit_, std::min(2 * ahead_limit_, kMostAhead));
        for (bool more = true; more && ahead_.empty();) {
            int seen = 0;
            std::size_t bytes = 0;
            const HRESULT result = walk(from, false, limit, tags_, [&](const Place& place, Row& row) {
                ++seen;
                from = behind(place);
                std::size_t size = 0;
                Buffer<SPropValue> values(row.finish(&size));
                if (!fits(values.get())) return true;
                ahead_.push_back({from, std::move(values)});
                bytes += size;
                return bytes < kMostAheadBytes;
            });
            if (FAILED(result)) return result;
            more = seen == limit;
        }
        return S_OK;
    }

    // Goes over `count` rows from a place, forward or back, and says how many there were.
    HRESULT stride(Place& place, bool back, LONGLONG count, LONGLONG& gone) {
        gone = 0;
        std::vector<ULONG> tags;
        if (restriction_) restriction_->tags(tags);
        Place from = place;
        for (bool more = true; more && gone < count;) {
            int seen = 0;
            const HRESULT result = walk(from, back, kStride, tags, [&](const Place& row_place, Row& row) {
                ++seen;
                from = back ? before(row_place) : behind(row_place);
                bool fitting = true;
                if (restriction_) {
                    const Buffer<SPropValue> values(row.finish());
                    fitting = restriction_->fits(values.get(), tags.size());
                }
                if (fitting) {
                    ++gone;
                    place = from;
                }
                return gone < count;
            });
            if (FAILED(result)) return result;
            more = seen == kStride && gone < count;
        }
        return S_OK;
    }

    // Puts the table back where it stood, unless its rows were handed out.
    class Standing {
    public:
        explicit Standing(Table& table) : table_(table), place_(table.place_), at_(table.at_) {}
        ~Standing() {
            if (went_on_) return;
            table_.place_ = place_;
            table_.at_ = at_;
            table_.drop_ahead();
        }
        Standing(const Standing&) = delete;
        Standing& operator=(const Standing&) = delete;
        void go_on() { went_on_ = true; }

    private:
        Table& table_;
        const Place place_;
        const std::size_t at_;
        bool went_on_ = false;
    };

    HRESULT query_dated(LONG count, std::vector<Buffer<SPropValue>>& taken) {
        taken.reserve(static_cast<std::size_t>(std::min<LONG>(count, kMostAhead)));
        while (taken.size() < static_cast<std::size_t>(count)) {
            if (const HRESULT result = read_ahead(); FAILED(result)) return result;
            if (!has_ahead()) break;
            place_ = ahead_[ahead_at_].place;
            taken.push_back(std::move(ahead_[ahead_at_++].values));
        }
        return S_OK;
    }

    // --- other tables: a list of rows ---

    HRESULT gather_keys() {
        if (gathered_ && generation_ == store().generation()) return S_OK;
        std::vector<LONGLONG> keys;
        HRESULT result = source_->keys(restriction_ ? &*restriction_ : nullptr, keys);
        if (SUCCEEDED(result) && restriction_) result = leave_out(keys);
        if (SUCCEEDED(result) && !order_.empty()) result = put_in_order(keys);
        if (FAILED(result)) return result;
        keys_ = std::move(keys);
        at_ = 0;
        gathered_ = true;
        generation_ = store().generation();
        return S_OK;
    }

    HRESULT leave_out(std::vector<LONGLONG>& keys) {
        std::vector<ULONG> tags;
        restriction_->tags(tags);
        std::vector<LONGLONG> fitting;
        Row row;
        for (const LONGLONG key : keys) {
            row.clear();
            const HRESULT result = source_->fill(key, tags, row);
            if (FAILED(result)) return result;
            if (result != S_OK) continue;
            const Buffer<SPropValue> values(row.finish());
            if (restriction_->fits(values.get(), tags.size())) fitting.push_back(key);
        }
        keys = std::move(fitting);
        return S_OK;
    }

    HRESULT put_in_order(std::vector<LONGLONG>& keys) {
        std::vector<ULONG> tags;
        for (const SSortOrder& each : order_) {
            tags.push_back(each.ulPropTag);
        }
        std::vector<std::pair<Buffer<SPropValue>, LONGLONG>> rows;
        Row row;
        for (const LONGLONG key : keys) {
            row.clear();
            const HRESULT result = source_->fill(key, tags, row);
            if (FAILED(result)) return result;
            if (result == S_OK) rows.emplace_back(Buffer<SPropValue>(row.finish()), key);
        }
        std::stable_sort(rows.begin(), rows.end(),
                         [&](const auto& a, const auto& b) { return comes_before(a.first.get(), b.first.get()); });
        keys.clear();
        for (const auto& [values, key] : rows) {
            keys.push_back(key);
        }
        return S_OK;
    }

    // Rows without the property come first.
    bool comes_before(const SPropValue* a, const SPropValue* b) const {
        for (std::size_t i = 0; i < order_.size(); ++i) {
            const bool has_a = PROP_TYPE(a[i].ulPropTag) != PT_ERROR;
            const bool has_b = PROP_TYPE(b[i].ulPropTag) != PT_ERROR;
            int order = has_a == has_b ? 0 : has_a ? 1 : -1;
            if (has_a && has_b) order = compare_values(a[i], b[i], true);
            if (order_[i].ulOrder == TABLE_SORT_DESCEND) order = -order;
            if (order != 0) return order < 0;
        }
        return false;
    }

    HRESULT query_listed(LONG count, std::vector<Buffer<SPropValue>>& taken) {
        HRESULT result = S_OK;
        Row row;
        while (SUCCEEDED(result) && at_ < keys_.size() && taken.size() < static_cast<std::size_t>(count)) {
            row.clear();
            result = source_->fill(keys_[at_++], tags_, row);
            if (result == S_OK) taken.push_back(Buffer<SPropValue>(row.finish()));
        }
        return FAILED(result) ? result : S_OK;
    }

    // --- the calls ---

    HRESULT row_count(ULONG flags, ULONG* count) {
        if (count == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
        *count = 0;
        if (const HRESULT result = check_flags(flags, 0); FAILED(result)) return result;
        const auto reading = store().lock();
        HRESULT result = begin_call();
        if (FAILED(result)) return result;
        LONGLONG rows = 0;
        if (!dated_) {
            result = gather_keys();
            rows = static_cast<LONGLONG>(keys_.size());
        } else if (!restriction_) {
            result = source_->count(rows);
        } else {
            Place place = first_place();
            result = stride(place, false, INT64_MAX, rows);
        }
        if (SUCCEEDED(result)) *count = static_cast<ULONG>(rows);
        return result;
    }

    HRESULT seek(BOOKMARK from, LONG count, LONG* sought) {
        if (sought != nullptr) *sought = 0;
        if (from > BOOKMARK_END) return fail(MAPI_E_INVALID_BOOKMARK);
        const auto reading = store().lock();
        HRESULT result = begin_call();
        if (SUCCEEDED(result) && !dated_) result = gather_keys();
        if (FAILED(result)) return result;
        LONGLONG gone = 0;
        const bool back = count < 0;
        const LONGLONG wanted = back ? -LONGLONG{count} : LONGLONG{count};
        if (dated_) {
            Place place = from == BOOKMARK_BEGINNING ? first_place() : from == BOOKMARK_END ? last_place() : place_;
            if (wanted != 0) result = stride(place, back, wanted, gone);
            if (FAILED(result)) return result;
            place_ = place;
            drop_ahead();
        } else {
            const auto size = static_cast<LONGLONG>(keys_.size());
            const LONGLONG base = from == BOOKMARK_BEGINNING ? 0
                                  : from == BOOKMARK_END     ? size
                                                             : static_cast<LONGLONG>(at_);
            const LONGLONG target = std::clamp<LONGLONG>(back ? base - wanted : base + wanted, 0, size);
            gone = back ? base - target : target - base;
            at_ = static_cast<std::size_t>(target);
        }
        if (sought != nullptr) *sought = static_cast<LONG>(back ? -gone : gone);
        return S_OK;
    }

    HRESULT find(LPSRestriction given, BOOKMARK from, ULONG flags) {
        if (given == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
        if (from > BOOKMARK_END) return fail(MAPI_E_INVALID_BOOKMARK);
        HRESULT result = check_flags(flags, DIR_BACKWARD);
        Restriction wanted;
        if (SUCCEEDED(result)) result = Restriction::take(*given, wanted);
        if (FAILED(result)) return result;
        const bool back = (flags & DIR_BACKWARD) != 0;
        const auto reading = store().lock();
        result = begin_call();
        if (FAILED(result)) return result;
        std::vector<ULONG> tags;
        wanted.tags(tags);
        if (restriction_) restriction_->tags(tags);
        return dated_ ? find_dated(wanted, tags, from, back) : find_listed(wanted, tags, from, back);
    }

    HRESULT find_dated(const Restriction& wanted, const std::vector<ULONG>& tags, BOOKMARK from, bool back) {
        Place place = from == BOOKMARK_BEGINNING ? first_place() : from == BOOKMARK_END ? last_place() : place_;
        bool found = false;
        for (bool more = true; more && !found;) {
            int seen = 0;
            const HRESULT result = walk(place, back, kStride, tags, [&](const Place& row_place, Row& row) {
                ++seen;
                place = back ? before(row_place) : behind(row_place);
                const Buffer<SPropValue> values(row.finish());
                found = wanted.fits(values.get(), tags.size()) &&
                        (!restriction_ || restriction_->fits(values.get(), tags.size()));
                if (found) place_ = before(row_place);
                return !found;
            });
            if (FAILED(result)) return result;
            more = seen == kStride;
        }
        if (!found) return fail(MAPI_E_NOT_FOUND);
        drop_ahead();
        return S_OK;
    }

    HRESULT find_listed(const Restriction& wanted, const std::vector<ULONG>& tags, BOOKMARK from, bool back) {
        if (const HRESULT result = gather_keys(); FAILED(result)) return result;
        std::size_t at = from == BOOKMARK_BEGINNING ? 0 : from == BOOKMARK_END ? keys_.size() : at_;
        Row row;
        while (back ? at > 0 : at < keys_.size()) {
            const std::size_t here = back ? at - 1 : at;
            row.clear();
            const HRESULT result = source_->fill(keys_[here], tags, row);
            if (FAILED(result)) return result;
            if (result == S_OK) {
                const Buffer<SPropValue> values(row.finish());
                if (wanted.fits(values.get(), tags.size())) {
                    at_ = here;
                    return S_OK;
                }
            }
            at = back ? here : at + 1;
        }
        return fail(MAPI_E_NOT_FOUND);
    }

    HRESULT restrict(LPSRestriction given, ULONG flags) {
        HRESULT result = check_flags(flags, TBL_BATCH);
        std::optional<Restriction> taken;
        if (SUCCEEDED(result) && given != nullptr) {
            taken.emplace();
            result = Restriction::take(*given, *taken);
        }
        if (FAILED(result)) return result;
        restriction_ = std::move(taken);
        gather_tags();
        start_over();
        return S_OK;
    }

    HRESULT sort(LPSSortOrderSet order, ULONG flags) {
        if (const HRESULT result = check_flags(flags, TBL_BATCH); FAILED(result)) return result;
        std::vector<SSortOrder> taken;
        if (order != nullptr) {
            if (order->cCategories != 0 || order->cExpanded != 0) return unsupported();
            if (order->cSorts > kMostSorts) return fail(MAPI_E_TOO_COMPLEX);
            taken.assign(&order->aSort[0], &order->aSort[0] + order->cSorts);
            for (const SSortOrder& each : taken) {
                if (each.ulOrder > TABLE_SORT_DESCEND) return fail(MAPI_E_TOO_COMPLEX);
            }
        }
        order_ = std::move(taken);
        start_over();
        return S_OK;
    }

    void start_over() {
        const bool by_date = order_.empty() || (order_.size() == 1 && order_[0].ulPropTag == PR_MESSAGE_DELIVERY_TIME);
        const bool by_id = restriction_ && restriction_->required_text(PR_INTERNET_MESSAGE_ID_W);
        dated_ = source_->is_dated() && by_date && !by_id;
        place_ = first_place();
        drop_ahead();
        ahead_limit_ = kAhead;
        gathered_ = false;
        at_ = 0;
    }

    HRESULT query(LONG count, ULONG flags, LPSRowSet* rows) {
        if (!cleared(rows)) return fail(MAPI_E_INVALID_PARAMETER);
        if (const HRESULT result = check_flags(flags, TBL_NOADVANCE); FAILED(result)) return result;
        if (count < 0) return unsupported();
        if (count == 0) return fail(MAPI_E_INVALID_PARAMETER);
        const auto reading = store().lock();
        HRESULT result = begin_call();
        if (SUCCEEDED(result) && !dated_) result = gather_keys();
        if (FAILED(result)) return result;
        Standing standing(*this);
        std::vector<Buffer<SPropValue>> taken;
        result = dated_ ? query_dated(count, taken) : query_listed(count, taken);
        if (FAILED(result)) return result;
        Buffer<SRowSet> set(sizeof(SRowSet) + taken.size() * sizeof(SRow));
        if (!set) return fail(MAPI_E_NOT_ENOUGH_MEMORY);
        set->cRows = static_cast<ULONG>(taken.size());
        for (std::size_t i = 0; i < taken.size(); ++i) {
            set.get()->aRow[i] = {0, static_cast<ULONG>(columns_.size()), taken[i].release()};
        }
        *rows = set.release();
        if ((flags & TBL_NOADVANCE) == 0) standing.go_on();
        return S_OK;
    }

    References references_;
    const SessionRef session_;
    const std::unique_ptr<RowSource> source_;
    std::vector<ULONG> columns_;
    std::vector<ULONG> tags_;
    std::optional<Restriction> restriction_;
    std::vector<SSortOrder> order_;
    bool dated_;

    Place place_ = kBeforeAll;
    std::vector<Ahead> ahead_;
    std::size_t ahead_at_ = 0;  // those before it were handed out
    int ahead_limit_ = kAhead;
    LONGLONG ahead_seq_ = 0;

    std::vector<LONGLONG> keys_;
    std::size_t at_ = 0;
    bool gathered_ = false;
    ULONG generation_ = 0;
};

}  // namespace

HRESULT make_table(const SessionRef& session, std::unique_ptr<RowSource> source, IMAPITable** table) {
    *table = new Table(session, std::move(source));
    return S_OK;
}

}  // namespace zr::platform::mapi
