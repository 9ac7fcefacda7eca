#pragma once

#include <unordered_set>

#include "com/com_object.h"
#include "item_state.h"
#include "restriction.h"
#include "session.h"

namespace zr::platform::pim {

// What collections share: the moment that they show, positions from 1, and searches that go on where the last one
// ended.
//
// A collection shows its folder as it was at one moment. What the calling thread itself did since is followed, change
// by change; what others did waits for the next moment. Who was deleted by others keeps the place until then.
class ItemCollection : public EarlyBound<IPOutlookItemCollection> {
public:
    HRESULT QueryInterface(REFIID riid, void** object) override;
    ULONG AddRef() override { return references_.add(); }
    ULONG Release() override;

    HRESULT Add(IDispatch** item) override;
    HRESULT get_Count(INT* count) override;
    HRESULT Find(BSTR restriction, IDispatch** item) override;
    HRESULT FindNext(IDispatch** item) override;
    HRESULT Remove(INT index) override;
    HRESULT get_Application(IPOutlookApp** app) override;

    // Hands out a new collection, which shows the present moment; null: memory is short. Others show that of their
    // first use.
    static HRESULT open(ItemCollection* collection, IPOutlookItemCollection** items);

protected:
    ItemCollection(const SessionRef& session, INT folder) : session_(session), folder_(folder) {}
    virtual ~ItemCollection() = default;

    // All of these with the store's lock held.

    // Reads the folder as it is, and the number of the change up to which that holds.
    virtual HRESULT load(LONGLONG& seq) = 0;
    // Applies changes of the folder, in their order.
    virtual HRESULT apply(const std::vector<Change>& changes) = 0;
    virtual std::size_t size() const = 0;
    virtual LONG oid_at(std::size_t position) = 0;
    virtual void drop(std::size_t position) = 0;
    virtual void forget_found() = 0;

    // Moves on to the present moment.
    HRESULT refresh();
    // What a derived class has read by itself is the moment.
    void begin_moment(LONGLONG seq);
    // Stays at the moment and follows what this thread changed.
    HRESULT follow();
    // Follows, and gives the position of an index.
    HRESULT position_of(INT index, std::size_t& position);
    // Whether others deleted an item since the moment, or set its store aside.
    bool has_left(LONG oid) const { return is_orphaned() || (!left_.empty() && left_.contains(oid)); }

    // Without the lock.

    // Deletes the item at a position, which cannot change meanwhile.
    virtual HRESULT remove_at(std::size_t position, Transaction& transaction) = 0;
    // The first item behind the one that was found last that meets what is sought. S_FALSE: none.
    virtual HRESULT find_next(IDispatch** item) = 0;

    HRESULT parse(BSTR text, Restriction& restriction) const;

    const SessionRef session_;
    const INT folder_;
    Restriction sought_;  // by Find; empty before. Under the store's lock, as all that follows.

private:
    bool is_orphaned() const { return generation_ != session_->store().generation(); }
    bool note(const Change& change);

    bool loaded_ = false;
    bool used_ = false;              // the caller knows of its items
    LONG generation_ = 0;            // of the store
    LONGLONG moment_ = 0;            // the change up to which everything is shown,
    LONGLONG followed_ = 0;          // and up to which this thread's own ones are
    std::unordered_set<LONG> left_;  // deleted by others between the two
    References references_;
};

}  // namespace zr::platform::pim
