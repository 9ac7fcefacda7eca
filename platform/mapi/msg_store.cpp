// Message stores: IMsgStore.

#include "notifier.h"
#include "objects.h"
#include "prop_object.h"
#include "rows.h"

namespace zr::platform::mapi {
namespace {

constexpr ULONG kEvents = fnevCriticalError | fnevNewMail | fnevObjectCreated | fnevObjectDeleted | fnevObjectModified |
                          fnevObjectMoved | fnevObjectCopied;

class MsgStoreObject final : public PropObject<IMsgStore> {
public:
    MsgStoreObject(SessionRef session, LONGLONG account, bool writable)
        : PropObject(std::move(session), writable), account_(account) {}

    HRESULT Advise(ULONG size, LPENTRYID entry, ULONG mask, LPMAPIADVISESINK sink, ULONG* connection) override {
        return guarded([&] { return advise(size, entry, mask, sink, connection); });
    }
    HRESULT Unadvise(ULONG connection) override {
        return guarded([&] { return store().notifier().remove(this, connection); });
    }
    HRESULT CompareEntryIDs(ULONG size1, LPENTRYID entry1, ULONG size2, LPENTRYID entry2, ULONG, ULONG* same) override {
        return compare_entries(size1, entry1, size2, entry2, same);
    }
    HRESULT OpenEntry(ULONG size, LPENTRYID entry, LPCIID iid, ULONG flags, ULONG* type, IUnknown** object) override {
        return guarded([&] {
            if (size != 0) return open_entry(session_, account_, size, entry, iid, flags, type, object);
            if (!cleared(object)) return fail(MAPI_E_INVALID_PARAMETER);
            EntryIdBytes top;
            if (const HRESULT result = folder_entry(Role::Top, top); FAILED(result)) return result;
            return open_entry(session_, account_, kEntryIdSize, reinterpret_cast<const ENTRYID*>(top.data()), iid,
                              flags, type, object);
        });
    }
    HRESULT SetReceiveFolder(LPWSTR, ULONG, ULONG, LPENTRYID) override { return unsupported(); }
    HRESULT GetReceiveFolder(LPWSTR, ULONG flags, ULONG* size, LPENTRYID* entry, LPWSTR* explicit_class) override {
        return guarded([&] {
            cleared(explicit_class);
            if (size != nullptr) *size = 0;
            if (!cleared(entry) || size == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
            EntryIdBytes inbox;
            HRESULT result = check_flags(flags, MAPI_UNICODE);
            if (SUCCEEDED(result)) result = folder_entry(Role::Inbox, inbox);
            if (FAILED(result)) return result;
            *entry = static_cast<LPENTRYID>(allocate_buffer(inbox.size()));
            if (*entry == nullptr) return fail(MAPI_E_NOT_ENOUGH_MEMORY);
            std::memcpy(static_cast<void*>(*entry), inbox.data(), inbox.size());
            *size = kEntryIdSize;
            return S_OK;
        });
    }
    HRESULT GetReceiveFolderTable(ULONG, LPMAPITABLE* table) override {
        cleared(table);
        return unsupported();
    }
    HRESULT StoreLogoff(ULONG*) override { return S_OK; }
    HRESULT AbortSubmit(ULONG, LPENTRYID, ULONG) override { return unsupported(); }
    HRESULT GetOutgoingQueue(ULONG, LPMAPITABLE* table) override {
        cleared(table);
        return unsupported();
    }
    HRESULT SetLockState(LPMESSAGE, ULONG) override { return unsupported(); }
    HRESULT FinishedMsg(ULONG, ULONG, LPENTRYID) override { return unsupported(); }
    HRESULT NotifyNewMail(LPNOTIFICATION) override { return unsupported(); }

private:
    ~MsgStoreObject() override { store().notifier().remove_all(this); }

    bool is_kind(REFIID riid) const override {
        return riid == IID_IUnknown || riid == IID_IMAPIProp || riid == IID_IMsgStore;
    }

    HRESULT look() override {
        return store().account(account_) != nullptr ? S_OK : fail(MAPI_E_OBJECT_DELETED, "The store was deleted.");
    }
    HRESULT list(std::vector<ULONG>& tags) override {
        return list_kept(store(), owner_of(MAPI_STORE, account_), kAccountTags, tags);
    }
    HRESULT fill(ULONG tag, Row& row) override {
        return fill_account(store(), *store().account(account_), writable_, tag, row);
    }
    HRESULT stored(WORD id, Value& value) override {
        if (id == id_of(PR_DISPLAY_NAME_W)) {
            value = Value::of_text(store().account(account_)->name);
            return S_OK;
        }
        return store().property(owner_of(MAPI_STORE, account_), 0, id, value);
    }
    SCODE settable(ULONG tag) override {
        return is_computed_of_account(id_of(tag)) ? MAPI_E_COMPUTED : settable_beside_name(tag);
    }
    HRESULT apply(Edit& edit) override {
        const std::optional<Value> name = take_name(edit);
        const HRESULT result = session_->write(
            [&](Transaction& change) { return change.edit_account(account_, edit, name ? &*name : nullptr); });
        return result == MAPI_E_NOT_FOUND ? fail(MAPI_E_OBJECT_DELETED, "The store was deleted.") : result;
    }

    HRESULT folder_entry(Role role, EntryIdBytes& bytes) {
        const auto reading = store().lock();
        const HRESULT result = look_all();
        if (FAILED(result)) return result;
        const Account& account = *store().account(account_);
        const LONGLONG folder = account.roles[static_cast<LONG>(role)];
        if (folder == 0) return fail(MAPI_E_NOT_FOUND);
        bytes = entry_id_bytes({account.uid, MAPI_FOLDER, folder});
        return S_OK;
    }

    HRESULT advise(ULONG size, const ENTRYID* entry, ULONG mask, LPMAPIADVISESINK sink, ULONG* connection) {
        if (connection == nullptr || sink == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
        *connection = 0;
        if ((mask & kEvents) == 0) return unsupported();
        Subject subject{account_, MAPI_STORE, account_};
        {
            const auto reading = store().lock();
            if (const HRESULT result = look_all(); FAILED(result)) return result;
            const auto id = read_entry_id(size, entry);
            if (size != 0 && (!id || id->account != store().account(account_)->uid))
                return fail(MAPI_E_INVALID_ENTRYID);
            if (id) {
                subject.type = id->type;
                subject.number = id->number;
            }
        }
        return store().notifier().add(this, subject, mask, sink, connection);
    }

    const LONGLONG account_;
};

}  // namespace

HRESULT make_msg_store(const SessionRef& session, LONGLONG account, bool writable, LPMDB* store) {
    *store = new MsgStoreObject(session, account, writable);
    return S_OK;
}

}  // namespace zr::platform::mapi
