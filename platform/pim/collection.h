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
    void read_ahead_if_walking(std::size_t position, const RowRef& row);

    const Restriction filter_;
    VARIANT_BOOL include_recurrences_ = VARIANT_FALSE;
    // All of this under the store's lock.
    Order order_;
    CEPROPID sort_ = 0;
    bool descending_ = false;
    bool loaded_ = false;
    LONGLONG seq_ = 0;
    std::size_t walk_position_ = 0;
    int walk_misses_ = 0;
};

}  // namespace zr::platform::pim
