#pragma once

#include <mutex>
#include <string>

#include "com_object.h"
#include "order.h"
#include "session.h"

namespace zr::platform::pim {

// A condition "[Field] = \"text\"".
struct Restriction {
    enum class Operator { Equal, NotEqual, Less, LessOrEqual, Greater, GreaterOrEqual };
    CEPROPID field = 0;
    Operator op = Operator::Equal;
    std::u16string key;  // folded

    // False: not a condition on a text field of the folder.
    bool parse(INT folder, std::u16string_view text);
    bool holds(const std::u16string& value_key) const;
};

class Collection final : public EarlyBound<IPOutlookItemCollection> {
public:
    Collection(const SessionRef& session, INT folder) : session_(session), folder_(folder) {}

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
    HRESULT follow_change(const Change& change);
    HRESULT give(LONG oid, RowRef row, IDispatch** item);
    void read_ahead_if_walking(std::size_t position, const RowRef& row);
    HRESULT find_from(std::size_t position, IDispatch** item);

    SessionRef session_;
    const INT folder_;
    VARIANT_BOOL include_recurrences_ = VARIANT_FALSE;
    // All of this under the store's lock.
    Order order_;
    CEPROPID sort_ = 0;
    bool descending_ = false;
    bool loaded_ = false;
    LONGLONG seq_ = 0;
    std::size_t walk_position_ = 0;
    int walk_misses_ = 0;
    Restriction restriction_;
    std::size_t found_ = 0;  // where FindNext goes on
    References references_;
};

}  // namespace zr::platform::pim
