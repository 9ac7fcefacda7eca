#pragma once

#include <mutex>
#include <string>

#include "com_object.h"
#include "order.h"
#include "restriction.h"
#include "session.h"

namespace zr::platform::pim {

class Collection final : public EarlyBound<IPOutlookItemCollection> {
public:
    // The items that meet a restriction; an empty one is met by all.
    Collection(const SessionRef& session, INT folder, Restriction filter = {})
        : session_(session), folder_(folder), filter_(std::move(filter)) {}

    HRESULT QueryInterface(REFIID riid, void** object) override;
    ULONG AddRef() override { return references_.add(); }
    ULONG Release() override;

    HRESULT Add(IDispatch** item) override;
    HRESULT get_Count(INT* count) override;
    HRESULT Find(BSTR restriction, IDispatch** item) override;
    HRESULT FindNext(IDispatch** item) override;
    HRESULT Item(INT index, IDispatch** item) override;
    HRESULT Remove(INT index) override;
    HRESULT Restrict(BSTR restriction, IPOutlookItemCollection** items) override;
    HRESULT Sort(BSTR tag, VARIANT_BOOL descending) override;
    HRESULT get_Application(IPOutlookApp** app) override;
    HRESULT get_IncludeRecurrences(VARIANT_BOOL* include) override;
    HRESULT put_IncludeRecurrences(VARIANT_BOOL include) override;

private:
    ~Collection() = default;

    // With the store's lock held: brings the order up to date.
    HRESULT follow();
    HRESULT load(CEPROPID sort, bool descending, Order& order, LONGLONG& seq);
    HRESULT keep_filtered(std::vector<LONG>& oids);
    HRESULT follow_change(const Change& change);
    HRESULT meets(const Restriction& restriction, LONG oid, bool& met);
    HRESULT give(LONG oid, RowRef row, IDispatch** item);
    void read_ahead_if_walking(std::size_t position, const RowRef& row);
    HRESULT find_from(std::size_t position, IDispatch** item);

    SessionRef session_;
    const INT folder_;
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
    Restriction sought_;     // by Find; empty before
    std::size_t found_ = 0;  // where FindNext goes on
    References references_;
};

}  // namespace zr::platform::pim
