#include "item_collection.h"

#include "application.h"
#include "item_object.h"

namespace zr::platform::pim {

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

HRESULT ItemCollection::Add(IDispatch** item) {
    if (!cleared(item)) return fail(E_POINTER);
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        *item = make_item(session_, folder_, 0, {});
        return *item != nullptr ? S_OK : fail(E_OUTOFMEMORY);
    });
}

HRESULT ItemCollection::get_Count(INT* count) {
    if (count == nullptr) return fail(E_POINTER);
    *count = 0;
    return guarded([&]() -> HRESULT {
        const auto lock = session_->store().lock();
        const HRESULT result = follow();
        if (SUCCEEDED(result)) *count = static_cast<INT>(size());
        return result;
    });
}

HRESULT ItemCollection::position_of(INT index, std::size_t& position) {
    const HRESULT result = follow();
    if (FAILED(result)) return result;
    if (index < 1 || static_cast<std::size_t>(index) > size())
        return fail(E_INVALIDARG, "There is no item at this index.");
    position = static_cast<std::size_t>(index) - 1;
    return S_OK;
}

HRESULT ItemCollection::parse(BSTR text, Restriction& restriction) const {
    if (!session_->is_open()) return session_->check_open();
    restriction.clear();
    if (text != nullptr && restriction.parse(folder_, text)) return S_OK;
    return fail(E_INVALIDARG, "The restriction cannot be understood.");
}

HRESULT ItemCollection::Find(BSTR restriction, IDispatch** item) {
    if (!cleared(item)) return fail(E_POINTER);
    return guarded([&]() -> HRESULT {
        const HRESULT result = parse(restriction, sought_);
        return SUCCEEDED(result) ? find_from(0, item) : result;
    });
}

HRESULT ItemCollection::FindNext(IDispatch** item) {
    if (!cleared(item)) return fail(E_POINTER);
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        if (sought_.empty()) return fail(E_UNEXPECTED, "FindNext goes on from a Find.");
        return find_from(found_, item);
    });
}

HRESULT ItemCollection::get_Application(IPOutlookApp** app) {
    return give_application(*session_, app);
}

}  // namespace zr::platform::pim
