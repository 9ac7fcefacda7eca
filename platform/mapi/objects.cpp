#include "objects.h"

#include "buffers.h"

namespace zr::platform::mapi {
namespace {

constexpr ULONG kOpenFlags = MAPI_MODIFY | MAPI_BEST_ACCESS | MAPI_DEFERRED_ERRORS | MAPI_UNICODE;

bool is_interface_of(ULONG type, const IID& iid) {
    if (iid == IID_IUnknown || iid == IID_IMAPIProp) return true;
    switch (type) {
        case MAPI_STORE:
            return iid == IID_IMsgStore;
        case MAPI_FOLDER:
            return iid == IID_IMAPIFolder || iid == IID_IMAPIContainer;
        default:
            return iid == IID_IMessage;
    }
}

// Whether the folder or store is there, in the store that its identifier names.
HRESULT check_there(MailStore& store, const EntryId& id) {
    const auto reading = store.lock();
    const HRESULT result = store.refresh();
    if (FAILED(result)) return result;
    const Account* const account = store.account(id.account);
    if (account == nullptr) return fail(MAPI_E_NOT_FOUND);
    if (id.type == MAPI_STORE) return account->id == id.number ? S_OK : fail(MAPI_E_NOT_FOUND);
    const Folder* const folder = store.folder(id.number);
    return folder != nullptr && folder->account == account->id ? S_OK : fail(MAPI_E_NOT_FOUND);
}

}  // namespace

HRESULT open_entry(const SessionRef& session, LONGLONG account, ULONG size, const ENTRYID* entry, LPCIID iid,
                   ULONG flags, ULONG* type, IUnknown** object) {
    if (type != nullptr) *type = 0;
    if (object == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
    *object = nullptr;
    HRESULT result = check_flags(flags, kOpenFlags);
    if (SUCCEEDED(result)) result = session->check_open();
    if (FAILED(result)) return result;
    const auto id = read_entry_id(size, entry);
    if (!id) return fail(MAPI_E_INVALID_ENTRYID);
    if (iid != nullptr && !is_interface_of(id->type, *iid)) return fail(MAPI_E_INTERFACE_NOT_SUPPORTED);
    if (account != 0) {
        const auto reading = session->store().lock();
        const Account* const own = session->store().account(account);
        if (own == nullptr || own->uid != id->account) return fail(MAPI_E_NOT_FOUND);
    }
    if (id->type != MAPI_MESSAGE) result = check_there(session->store(), *id);
    if (FAILED(result)) return result;
    const bool writable = (flags & (MAPI_MODIFY | MAPI_BEST_ACCESS)) != 0;
    if (id->type == MAPI_STORE) {
        LPMDB made = nullptr;
        result = make_msg_store(session, id->number, writable, &made);
        *object = made;
    } else if (id->type == MAPI_FOLDER) {
        LPMAPIFOLDER made = nullptr;
        result = make_folder(session, id->number, writable, &made);
        *object = made;
    } else {
        LPMESSAGE made = nullptr;
        result = make_message(session, *id, writable, &made);
        *object = made;
    }
    if (SUCCEEDED(result) && type != nullptr) *type = id->type;
    return result;
}

HRESULT compare_entries(ULONG size1, const ENTRYID* entry1, ULONG size2, const ENTRYID* entry2, ULONG* same) {
    if (same == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
    *same = FALSE;
    const auto a = read_entry_id(size1, entry1);
    const auto b = read_entry_id(size2, entry2);
    if (!a || !b) return fail(MAPI_E_INVALID_ENTRYID);
    *same = *a == *b ? TRUE : FALSE;
    return S_OK;
}

HRESULT folder_of(const SessionRef& session, LPCIID iid, void* folder, LONGLONG& number) {
    if (folder == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
    if (iid != nullptr && !is_interface_of(MAPI_FOLDER, *iid)) return fail(MAPI_E_INTERFACE_NOT_SUPPORTED);
    SPropTagArray tags = {1, {PR_ENTRYID}};
    ULONG count = 0;
    LPSPropValue values = nullptr;
    const HRESULT result =
        static_cast<IMAPIProp*>(static_cast<IMAPIFolder*>(folder))->GetProps(&tags, MAPI_UNICODE, &count, &values);
    const Buffer<SPropValue> buffer(values);
    if (FAILED(result)) return result;
    const auto id = values[0].ulPropTag == PR_ENTRYID ? read_entry_id(values[0].Value.bin.cb, values[0].Value.bin.lpb)
                                                      : std::nullopt;
    if (!id || id->type != MAPI_FOLDER) return fail(MAPI_E_INVALID_OBJECT);
    number = id->number;
    const auto reading = session->store().lock();
    const Account* const account = session->store().account(id->account);
    return account != nullptr ? S_OK : fail(MAPI_E_INVALID_OBJECT);
}

void fill_number(ULONG tag, ULONG type, LONGLONG number, Row& row) {
    if (PROP_TYPE(tag) == type || PROP_TYPE(tag) == PT_UNSPECIFIED) {
        row.number(CHANGE_PROP_TYPE(tag, type), number);
    } else {
        row.error(tag, MAPI_E_UNEXPECTED_TYPE);
    }
}

void fill_text(ULONG tag, std::string_view units, Row& row) {
    const ULONG type = PROP_TYPE(tag);
    if (type == PT_STRING8) {
        row.error(tag, MAPI_E_BAD_CHARWIDTH);
    } else if (type != PT_UNICODE && type != PT_UNSPECIFIED) {
        row.error(tag, MAPI_E_UNEXPECTED_TYPE);
    } else if (units.size() > kMostGiven) {
        row.error(tag, MAPI_E_NOT_ENOUGH_MEMORY);
    } else {
        row.bytes(CHANGE_PROP_TYPE(tag, PT_UNICODE), units);
    }
}

bool is_identity(WORD id) {
    switch (id) {
        case id_of(PR_ENTRYID):
        case id_of(PR_RECORD_KEY):
        case id_of(PR_INSTANCE_KEY):
        case id_of(PR_STORE_ENTRYID):
        case id_of(PR_STORE_RECORD_KEY):
        case id_of(PR_OBJECT_TYPE):
            return true;
        default:
            return false;
    }
}

bool fill_identity(ULONG tag, const EntryId& id, LONGLONG account, Row& row) {
    const ULONG type = PROP_TYPE(tag);
    const bool binary = type == PT_BINARY || type == PT_UNSPECIFIED;
    if (!is_identity(id_of(tag))) return false;
    if (id_of(tag) == id_of(PR_OBJECT_TYPE)) {
        fill_number(tag, PT_LONG, id.type, row);
        return true;
    }
    if (!binary) {
        row.error(tag, MAPI_E_UNEXPECTED_TYPE);
        return true;
    }
    const ULONG full = CHANGE_PROP_TYPE(tag, PT_BINARY);
    switch (id_of(tag)) {
        case id_of(PR_STORE_ENTRYID):
            add_entry_id(full, {id.account, MAPI_STORE, account}, row);
            break;
        case id_of(PR_STORE_RECORD_KEY):
            row.copy(full, id.account.data(), id.account.size());
            break;
        default:
            if (id.number == 0) {
                row.error(tag, MAPI_E_NOT_FOUND);  // a message that was not saved
            } else {
                add_entry_id(full, id, row);
            }
            break;
    }
    return true;
}

}  // namespace zr::platform::mapi
