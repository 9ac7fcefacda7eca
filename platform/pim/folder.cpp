#include "folder.h"

#include "application.h"
#include "collection.h"
#include "item_object.h"
#include "notifier.h"
#include "property_block.h"

namespace zr::platform::pim {

HRESULT FolderObject::QueryInterface(REFIID riid, void** object) {
    if (!cleared(object)) return fail(E_POINTER);
    if (riid == IID_IItem) {
        *object = static_cast<IItem*>(this);
    } else if (riid == IID_IFolder || riid == IID_IDispatch || riid == IID_IUnknown) {
        *object = static_cast<IFolder*>(this);
    } else {
        return fail(E_NOINTERFACE);
    }
    references_.add();
    return S_OK;
}

ULONG FolderObject::Release() {
    const ULONG left = references_.remove();
    if (left == 0) delete this;
    return left;
}

HRESULT FolderObject::get_Items(IPOutlookItemCollection** items) {
    if (!cleared(items)) return fail(E_POINTER);
    if (!session_->is_open()) return session_->check_open();
    return ItemCollection::open(new (std::nothrow) Collection(session_, folder_), items);
}

HRESULT FolderObject::get_DefaultItemType(INT* type) {
    if (type == nullptr) return fail(E_POINTER);
    *type = item_type(folder_);
    return S_OK;
}

HRESULT FolderObject::get_Application(IPOutlookApp** app) {
    return give_application(*session_, app);
}

HRESULT FolderObject::get_Oid(LONG* oid) {
    if (oid == nullptr) return fail(E_POINTER);
    *oid = folder_oid(folder_);
    return S_OK;
}

HRESULT FolderObject::Copy(IItem** copy) {
    return cleared(copy) ? fail(E_ACCESSDENIED, "A default folder cannot be copied.") : fail(E_POINTER);
}

HRESULT FolderObject::value(CEPROPID id, Value& value) {
    Store& store = session_->store();
    if (id == PIMPR_FOLDERNOTIFICATIONS) {
        ULONG flags = 0;
        const HRESULT result = store.notifier().flags(folder_, flags);
        value = LONGLONG{flags};
        return result;
    }
    if (const Value* put = pending_.find(id)) {
        value = *put;
        return S_OK;
    }
    const auto lock = store.lock();
    const HRESULT result = store.refresh();
    return SUCCEEDED(result) ? store.value(folder_oid(folder_), id, value) : result;
}

HRESULT FolderObject::all_values(std::vector<Values::Entry>& found) {
    Values all;
    {
        Store& store = session_->store();
        const auto lock = store.lock();
        HRESULT result = store.refresh();
        if (SUCCEEDED(result)) result = store.values(folder_oid(folder_), false, all);
        if (FAILED(result)) return result;
    }
    for (const auto& [id, put] : pending_.entries()) {
        all.set(id, put);
    }
    Value flags;
    const HRESULT result = value(PIMPR_FOLDERNOTIFICATIONS, flags);
    if (FAILED(result)) return result;
    all.set(PIMPR_FOLDERNOTIFICATIONS, flags);
    for (const auto& entry : all.entries()) {
        if (!std::holds_alternative<std::monostate>(entry.second)) found.push_back(entry);
    }
    return S_OK;
}

HRESULT FolderObject::GetProps(const CEPROPID* ids, ULONG flags, WORD count, CEPROPVAL** values, ULONG* size,
                               HANDLE heap) {
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        if (count != 0 && ids == nullptr) return fail(E_POINTER);
        std::vector<Values::Entry> found;
        for (WORD i = 0; i < count; ++i) {
            if (is_named_field(ids[i])) return fail(E_INVALIDARG, "A named field is not read as a property.");
            Value read;
            const HRESULT result = value(ids[i], read);
            if (FAILED(result)) return result;
            found.emplace_back(ids[i], std::move(read));
        }
        if (count == 0) {
            const HRESULT result = all_values(found);
            if (FAILED(result)) return result;
        }
        return write_property_block(found, flags, values, size, heap);
    });
}

HRESULT FolderObject::SetProps(ULONG, WORD count, CEPROPVAL* values) {
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        std::vector<Values::Entry> entries;
        const HRESULT result = read_property_values(count, values, entries);
        if (FAILED(result)) return result;
        for (auto& [id, value] : entries) {
            if (id == PIMPR_FOLDERNOTIFICATIONS) {
                const auto* number = std::get_if<LONGLONG>(&value);
                const HRESULT set = session_->store().notifier().set_flags(
                    folder_, number != nullptr ? static_cast<ULONG>(*number) : 0);
                if (FAILED(set)) return set;
            }
            pending_.set(id, std::move(value));
        }
        return S_OK;
    });
}

HRESULT FolderObject::Save() {
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        if (pending_.empty()) return S_OK;
        BatchMark mark;
        const HRESULT result = session_->write(
            mark, [&](Transaction& transaction) { return transaction.update_folder(folder_, pending_); });
        if (SUCCEEDED(result) && !mark) pending_ = {};
        return result;
    });
}

}  // namespace zr::platform::pim
