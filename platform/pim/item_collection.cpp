#include "item_collection.h"

#include <algorithm>

#include "application.h"
#include "item_object.h"

namespace zr::platform::pim {
namespace {

// More changes than this are followed faster by starting over.
constexpr std::size_t kFollowedChanges = 2048;

}  // namespace

HRESULT ItemCollection::QueryInterface(REFIID riid, void** object) {
    if (!cleared(object)) return fail(E_POINTER);
    if (riid != IID_IPOutlookItemCollection && riid != IID_IDispatch && riid != IID_IUnknown)
        return fail(E_NOINTERFACE);
    *object = static_cast<IPOutlookItemCollection*>(this);
    references_.add();
    return S_OK;
}

ULONG ItemCollection::Release() {
    const ULONG left = references_.remove();
    if (left == 0) delete this;
    return left;
}

// --- the moment -----------------------------------------------------------------------------------------------------

HRESULT ItemCollection::open(ItemCollection* collection, IPOutlookItemCollection** items) {
    if (collection == nullptr) return fail(E_OUTOFMEMORY);
    const HRESULT result = guarded([&] {
        const auto lock = collection->session_->store().lock();
        return collection->refresh();
    });
    if (SUCCEEDED(result)) {
        *items = collection;
    } else {
        collection->Release();
    }
    return result;
}

void ItemCollection::begin_moment(LONGLONG seq) {
    moment_ = followed_ = seq;
    generation_ = session_->store().generation();
    left_.clear();
    loaded_ = true;
}

HRESULT ItemCollection::refresh() {
    if (!session_->is_open()) return session_->check_open();
    Store& store = session_->store();
    HRESULT result = store.refresh();
    loaded_ = loaded_ && !is_orphaned();
    if (FAILED(result) || (loaded_ && moment_ >= store.seq())) return result;
    std::vector<Change> changes;
    const bool known = loaded_ && store.recent(moment_, changes) && changes.size() <= kFollowedChanges;
    loaded_ = false;  // unless all of it succeeds
    LONGLONG seq = store.seq();
    if (known) {
        std::erase_if(changes, [&](const Change& change) { return folder_of(change.oid) != folder_; });
        result = apply(changes);
    } else {
        result = load(seq);
    }
    if (SUCCEEDED(result)) begin_moment(seq);
    return result;
}

// Takes notice of a change of the folder. True: it is this thread's own and to be applied.
bool ItemCollection::note(const Change& change) {
    if (!session_->store().own_commits().has(change.seq)) {
        if (change.kind == ChangeKind::Deleted) left_.insert(change.oid);
        return false;
    }
    // The identifier of somebody who left may be somebody else's now, who is here if this thread has saved them.
    if (change.kind != ChangeKind::Deleted) left_.erase(change.oid);
    return !left_.contains(change.oid);
}

HRESULT ItemCollection::follow() {
    if (!loaded_) return refresh();
    if (!session_->is_open()) return session_->check_open();
    Store& store = session_->store();
    HRESULT result = store.refresh();
    if (FAILED(result) || is_orphaned() || followed_ >= store.seq()) return result;
    std::vector<Change> changes;
    if (!store.recent(followed_, changes)) {
        // More than is at hand. Who left shows when the item is read.
        if (store.own_commits().any(followed_ + 1, store.seq())) return refresh();
        followed_ = store.seq();
        return S_OK;
    }
    loaded_ = false;  // unless all of it is followed
    const std::size_t all = changes.size();
    std::erase_if(changes, [&](const Change& change) { return folder_of(change.oid) == folder_ && !note(change); });
    const bool nothing_waits = moment_ == followed_ && changes.size() == all;
    std::erase_if(changes, [&](const Change& change) { return folder_of(change.oid) != folder_; });
    result = apply(changes);
    if (FAILED(result)) return result;
    followed_ = store.seq();
    if (nothing_waits) moment_ = followed_;
    loaded_ = true;
    return S_OK;
}

HRESULT ItemCollection::get_Count(INT* count) {
    if (count == nullptr) return fail(E_POINTER);
    *count = 0;
    return guarded([&]() -> HRESULT {
        const auto lock = session_->store().lock();
        const HRESULT result = refresh();
        if (SUCCEEDED(result)) *count = static_cast<INT>(size());
        used_ = true;
        return result;
    });
}

HRESULT ItemCollection::position_of(INT index, std::size_t& position) {
    const HRESULT result = follow();
    if (FAILED(result)) return result;
    if (index < 1 || static_cast<std::size_t>(index) > size())
        return fail(E_INVALIDARG, "There is no item at this index.");
    position = static_cast<std::size_t>(index) - 1;
    used_ = true;
    return S_OK;
}

// --- changes --------------------------------------------------------------------------------------------------------

HRESULT ItemCollection::Add(IDispatch** item) {
    if (!cleared(item)) return fail(E_POINTER);
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        *item = make_item(session_, folder_, {});
        return *item != nullptr ? S_OK : fail(E_OUTOFMEMORY);
    });
}

// Nobody else can write meanwhile. Who left before only has the place to give up.
HRESULT ItemCollection::Remove(INT index) {
    return guarded([&]() -> HRESULT {
        BatchMark mark;
        return session_->write(mark, [&](Transaction& transaction) -> HRESULT {
            std::size_t position = 0;
            bool left = false;
            {
                const auto lock = session_->store().lock();
                // An index into what the caller never looked at means the present.
                HRESULT result = used_ ? S_OK : refresh();
                if (SUCCEEDED(result)) result = position_of(index, position);
                if (FAILED(result)) return result;
                left = has_left(oid_at(position));
            }
            const HRESULT result = left ? kGone : remove_at(position, transaction);
            if (!left && (result != kGone || mark)) return result;
            const auto lock = session_->store().lock();
            drop(position);
            return S_OK;
        });
    });
}

// --- searches -------------------------------------------------------------------------------------------------------

HRESULT ItemCollection::parse(BSTR text, Restriction& restriction) const {
    if (!session_->is_open()) return session_->check_open();
    restriction.clear();
    if (text != nullptr && restriction.parse(folder_, text)) return S_OK;
    return fail(E_INVALIDARG, "The restriction cannot be understood.");
}

HRESULT ItemCollection::Find(BSTR restriction, IDispatch** item) {
    if (!cleared(item)) return fail(E_POINTER);
    return guarded([&]() -> HRESULT {
        HRESULT result = parse(restriction, sought_);
        if (FAILED(result)) return result;
        {
            const auto lock = session_->store().lock();
            forget_found();
            result = refresh();
            used_ = true;
        }
        return SUCCEEDED(result) ? find_next(item) : result;
    });
}

HRESULT ItemCollection::FindNext(IDispatch** item) {
    if (!cleared(item)) return fail(E_POINTER);
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        if (sought_.empty()) return fail(E_UNEXPECTED, "FindNext goes on from a Find.");
        return find_next(item);
    });
}

HRESULT ItemCollection::get_Application(IPOutlookApp** app) {
    return give_application(*session_, app);
}

}  // namespace zr::platform::pim
