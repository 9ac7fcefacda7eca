#pragma once

#include <optional>
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
    HRESULT Restrict(BSTR restriction, IPOutlookItemCollection** items) override;
    HRESULT Sort(BSTR tag, VARIANT_BOOL descending) override;
    HRESULT get_IncludeRecurrences(VARIANT_BOOL* include) override;
    HRESULT put_IncludeRecurrences(VARIANT_BOOL include) override;

private:
    ~Collection() override = default;

    HRESULT load(LONGLONG& seq) override { return load(sort_, descending_, order_, seq); }
    HRESULT apply(const std::vector<Change>& changes) override;
    std::size_t size() const override { return order_.size(); }
    LONG oid_at(std::size_t position) override { return order_.at(position); }
    void drop(std::size_t position) override { order_.erase(order_.at(position)); }
    void forget_found() override { found_.reset(); }
    HRESULT remove_at(std::size_t position, Transaction& transaction) override;
    HRESULT find_next(IDispatch** item) override;
    // With the store's lock held.
    HRESULT load(CEPROPID sort, bool descending, Order& order, LONGLONG& seq);
    HRESULT keep_filtered(std::vector<LONG>& oids);
    HRESULT apply(const Change& change);
    HRESULT meets(const Restriction& restriction, LONG oid, bool& met);
    RowRef row_at(std::size_t position, LONG oid);
    HRESULT read_ahead(std::size_t position);
    Given given_at(std::size_t position);
    HRESULT give(Given&& given, IDispatch** item);

    // A walk in another order than the identifiers': where it goes on, and how far it was read ahead.
    struct Walk {
        std::size_t next = 0;
        int misses = 0;
        std::size_t window = 0;  // 0: not read ahead
        std::size_t window_end = 0;
    };
    // Where the item stood that was found last.
    struct Found {
        std::u16string key;
        LONG oid;
    };

    const Restriction filter_;
    VARIANT_BOOL include_recurrences_ = VARIANT_FALSE;
    // All of this under the store's lock.
    Order order_;
    CEPROPID sort_ = 0;
    bool descending_ = false;
    Walk walk_;
    std::optional<Found> found_;
};

}  // namespace zr::platform::pim
