#pragma once

#include "com/com_object.h"
#include "restriction.h"
#include "session.h"

namespace zr::platform::pim {

// What collections share: positions from 1, and searches that go on where the last one ended.
class ItemCollection : public EarlyBound<IPOutlookItemCollection> {
public:
    HRESULT QueryInterface(REFIID riid, void** object) override;
    ULONG AddRef() override { return references_.add(); }
    ULONG Release() override;

    HRESULT Add(IDispatch** item) override;
    HRESULT get_Count(INT* count) override;
    HRESULT Find(BSTR restriction, IDispatch** item) override;
    HRESULT FindNext(IDispatch** item) override;
    HRESULT get_Application(IPOutlookApp** app) override;

protected:
    ItemCollection(const SessionRef& session, INT folder) : session_(session), folder_(folder) {}
    virtual ~ItemCollection() = default;

    // With the store's lock held: takes notice of every change.
    virtual HRESULT follow() = 0;
    virtual std::size_t size() const = 0;
    // The first item at `position` or behind it that meets what is sought; found_ is the position behind it. S_FALSE:
    // none.
    virtual HRESULT find_from(std::size_t position, IDispatch** item) = 0;

    // With the store's lock held: follows, and gives the position of an index.
    HRESULT position_of(INT index, std::size_t& position);
    HRESULT parse(BSTR text, Restriction& restriction) const;

    const SessionRef session_;
    const INT folder_;
    // Under the store's lock.
    Restriction sought_;     // by Find; empty before
    std::size_t found_ = 0;  // where FindNext goes on

private:
    References references_;
};

}  // namespace zr::platform::pim
