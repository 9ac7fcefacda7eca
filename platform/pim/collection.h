#pragma once

#include <mutex>
#include <string>

#include "item_collection.h"
#include "order.h"

namespace zr::platform::pim {

class Collection final : public ItemCollection {
public:
    // The items that meet a restriction; an empty one is met by all.
    Collection(const SessionRef& session, INT folder, Restriction filter = {})
        : ItemCollection(session, folder), filter_(std::move(filter)) {}

    HRESULT Item(INT index, IDispatch** item) override;
    HRESULT Remove(INT index) override;
    HRESULT Restrict(BSTR restriction, IPOutlookItemCollection** items) override;
    HRESULT Sort(BSTR tag, VARIANT_BOOL descending) override;
    HRESULT get_IncludeRecurrences(VARIANT_BOOL* include) override;
    HRESULT put_IncludeRecurrences(VARIANT_BOOL include) override;

private:
    ~Collection() override = default;

    HRESULT follow() override;
    std::size_t size() const override { return order_.size(); }
    HRESULT find_from(std::size_t position, IDispatch** item) override;
    // With the store's lock held.
    HRESULT load(CEPROPID sort, bool descending, Order& order, LONGLONG& seq);
    HRESULT keep_filtered(std::vector<LONG>& oids);
    HRESULT follow_change(const Change& change);
    HRESULT meets(const Restriction& restriction, LONG oid, bool& met);
    HRESULT give(LONG oid, RowRef row, IDispatch** item);
    RowRef row_at(std::size_t position);
    HRESULT read_ahead(std::size_t position);

    // A walk in another order than the identifiers': where it goes on, and how far it was read ahead.
    struct Walk {
        std::size_t next = 0;
        int misses = 0;
        std::size_t window = 0;  // 0: not read ahead
        std::size_t window_end = 0;
    };

    const Restriction filter_;
    VARIANT_BOOL include_recurrences_ = VARIANT_FALSE;
    // All of this under the store's lock.
    Order order_;
    CEPROPID sort_ = 0;
    bool descending_ = false;
    bool loaded_ = false;
    LONGLONG seq_ = 0;
    Walk walk_;
};

}  // namespace zr::platform::pim
