#include "rows.h"

#include "prop_object.h"

namespace zr::platform::mapi {
namespace {

constexpr LONG kAccessAll = MAPI_ACCESS_READ | MAPI_ACCESS_MODIFY | MAPI_ACCESS_DELETE;
constexpr MAPIUID kProvider = {{'Z', 'r', 'M', 'a', 'i', 'l', 'S', 't', 'o', 'r', 'e', 0, 0, 0, 0, 1}};
constexpr LONG kSupport = STORE_ENTRYID_UNIQUE | STORE_MODIFY_OK | STORE_CREATE_OK | STORE_ATTACH_OK | STORE_NOTIFY_OK |
                          STORE_RESTRICTION_OK | STORE_SORT_OK | STORE_UNICODE_OK;
constexpr LONG kValidFolders = FOLDER_IPM_SUBTREE_VALID | FOLDER_IPM_INBOX_VALID | FOLDER_IPM_OUTBOX_VALID |
                               FOLDER_IPM_WASTEBASKET_VALID | FOLDER_IPM_SENTMAIL_VALID;
constexpr LONG kStoreProvider = 33;  // PR_RESOURCE_TYPE

// PR_ACCESS and PR_ACCESS_LEVEL; false: another tag.
bool fill_access(bool writable, ULONG tag, Row& row) {
    if (id_of(tag) == id_of(PR_ACCESS)) {
        fill_number(tag, PT_LONG, writable ? kAccessAll : LONG{MAPI_ACCESS_READ}, row);
    } else if (id_of(tag) == id_of(PR_ACCESS_LEVEL)) {
        fill_number(tag, PT_LONG, writable ? LONG{MAPI_MODIFY} : 0, row);
    } else {
        return false;
    }
    return true;
}

void fill_entry(ULONG tag, const EntryId& id, Row& row) {
    const ULONG type = PROP_TYPE(tag);
    if (type == PT_BINARY || type == PT_UNSPECIFIED) {
        add_entry_id(CHANGE_PROP_TYPE(tag, PT_BINARY), id, row);
    } else {
        row.error(tag, MAPI_E_UNEXPECTED_TYPE);
    }
}

HRESULT fill_count(MailStore& store, LONGLONG folder, bool unread, ULONG tag, Row& row) {
    LONGLONG count = 0;
    const HRESULT result = store.count_messages(folder, unread, count);
    if (SUCCEEDED(result)) fill_number(tag, PT_LONG, count, row);
    return result;
}

Role role_of(WORD id) {
    switch (id) {
        case id_of(PR_IPM_SUBTREE_ENTRYID):
            return Role::Top;
        case id_of(PR_IPM_OUTBOX_ENTRYID):
            return Role::Outbox;
        case id_of(PR_IPM_WASTEBASKET_ENTRYID):
            return Role::Deleted;
        case id_of(PR_IPM_SENTMAIL_ENTRYID):
            return Role::Sent;
        case id_of(PR_CE_IPM_DRAFTS_ENTRYID):
            return Role::Drafts;
        case id_of(PR_CE_IPM_INBOX_ENTRYID):
            return Role::Inbox;
        default:
            return Role::None;
    }
}

HRESULT fill_property(MailStore& store, LONGLONG owner, ULONG tag, Row& row) {
    Value value;
    const HRESULT result = store.property(owner, 0, id_of(tag), value);
    return SUCCEEDED(result) ? fill_value(store, tag, &value, row) : result;
}

}  // namespace

bool is_computed_of_folder(WORD id) {
    if (is_identity(id)) return true;
    switch (id) {
        case id_of(PR_PARENT_ENTRYID):
        case id_of(PR_ACCESS):
        case id_of(PR_ACCESS_LEVEL):
        case id_of(PR_CREATION_TIME):
        case id_of(PR_LAST_MODIFICATION_TIME):
        case id_of(PR_FOLDER_TYPE):
        case id_of(PR_CONTENT_COUNT):
        case id_of(PR_CONTENT_UNREAD):
        case id_of(PR_SUBFOLDERS):
        case id_of(PR_CONTAINER_HIERARCHY):
        case id_of(PR_CONTAINER_CONTENTS):
        case id_of(PR_DEPTH):
            return true;
        default:
            return false;
    }
}

HRESULT fill_folder(MailStore& store, const Folder& folder, bool writable, ULONG tag, Row& row) {
    const EntryId id = store.entry_of(MAPI_FOLDER, folder.account, folder.id);
    if (fill_identity(tag, id, folder.account, row) || fill_access(writable, tag, row)) return S_OK;
    switch (id_of(tag)) {
        case id_of(PR_PARENT_ENTRYID):
            fill_entry(tag, {id.account, MAPI_FOLDER, folder.parent != 0 ? folder.parent : folder.id}, row);
            return S_OK;
        case id_of(PR_DISPLAY_NAME_W):
            fill_text(tag, as_bytes(folder.name), row);
            return S_OK;
        case id_of(PR_CREATION_TIME):
            fill_number(tag, PT_SYSTIME, folder.created, row);
            return S_OK;
        case id_of(PR_LAST_MODIFICATION_TIME):
            fill_number(tag, PT_SYSTIME, folder.modified, row);
            return S_OK;
        case id_of(PR_FOLDER_TYPE):
            fill_number(tag, PT_LONG, folder.role == Role::Top ? LONG{FOLDER_ROOT} : LONG{FOLDER_GENERIC}, row);
            return S_OK;
        case id_of(PR_CONTENT_COUNT):
            return fill_count(store, folder.id, false, tag, row);
        case id_of(PR_CONTENT_UNREAD):
            return fill_count(store, folder.id, true, tag, row);
        case id_of(PR_SUBFOLDERS): {
            bool any = false;
            for (const auto& [number, each] : store.folders()) {
                any = any || each.parent == folder.id;
            }
            fill_number(tag, PT_BOOLEAN, any ? 1 : 0, row);
            return S_OK;
        }
        default:
            return fill_property(store, owner_of(MAPI_FOLDER, folder.id), tag, row);
    }
}

bool is_computed_of_account(WORD id) {
    if (is_identity(id) || role_of(id) != Role::None) return true;
    switch (id) {
        case id_of(PR_ACCESS):
        case id_of(PR_ACCESS_LEVEL):
        case id_of(PR_CREATION_TIME):
        case id_of(PR_DEFAULT_STORE):
        case id_of(PR_STORE_SUPPORT_MASK):
        case id_of(PR_MDB_PROVIDER):
        case id_of(PR_RESOURCE_TYPE):
        case id_of(PR_VALID_FOLDER_MASK):
            return true;
        default:
            return false;
    }
}

HRESULT fill_account(MailStore& store, const Account& account, bool writable, ULONG tag, Row& row) {
    const EntryId id = {account.uid, MAPI_STORE, account.id};
    if (fill_identity(tag, id, account.id, row) || fill_access(writable, tag, row)) return S_OK;
    if (const Role role = role_of(id_of(tag)); role != Role::None) {
        const LONGLONG folder = account.roles[static_cast<LONG>(role)];
        if (folder != 0) {
            fill_entry(tag, {account.uid, MAPI_FOLDER, folder}, row);
        } else {
            row.error(tag, MAPI_E_NOT_FOUND);
        }
        return S_OK;
    }
    switch (id_of(tag)) {
        case id_of(PR_DISPLAY_NAME_W):
            fill_text(tag, as_bytes(account.name), row);
            return S_OK;
        case id_of(PR_CREATION_TIME):
            fill_number(tag, PT_SYSTIME, account.created, row);
            return S_OK;
        case id_of(PR_DEFAULT_STORE):
            fill_number(tag, PT_BOOLEAN, store.default_account()->id == account.id ? 1 : 0, row);
            return S_OK;
        case id_of(PR_STORE_SUPPORT_MASK):
            fill_number(tag, PT_LONG, kSupport, row);
            return S_OK;
        case id_of(PR_RESOURCE_TYPE):
            fill_number(tag, PT_LONG, kStoreProvider, row);
            return S_OK;
        case id_of(PR_VALID_FOLDER_MASK):
            fill_number(tag, PT_LONG, kValidFolders, row);
            return S_OK;
        case id_of(PR_MDB_PROVIDER):
            row.copy(PR_MDB_PROVIDER, &kProvider, sizeof kProvider);
            return S_OK;
        default:
            return fill_property(store, owner_of(MAPI_STORE, account.id), tag, row);
    }
}

bool is_computed_of_message(WORD id) {
    if (is_identity(id)) return true;
    switch (id) {
        case id_of(PR_PARENT_ENTRYID):
        case id_of(PR_ACCESS):
        case id_of(PR_ACCESS_LEVEL):
        case id_of(PR_HASATTACH):
        case id_of(PR_MESSAGE_RECIPIENTS):
        case id_of(PR_MESSAGE_ATTACHMENTS):
            return true;
        default:
            return false;
    }
}

bool fill_message_identity(const MailStore& store, LONGLONG message, LONGLONG folder, LONGLONG flags, bool writable,
                           ULONG tag, Row& row) {
    if (!is_computed_of_message(id_of(tag))) return false;
    const Folder* const home = store.folder(folder);
    const LONGLONG account = home != nullptr ? home->account : 0;
    const EntryId id = store.entry_of(MAPI_MESSAGE, account, message);
    if (fill_identity(tag, id, account, row) || fill_access(writable, tag, row)) return true;
    if (id_of(tag) == id_of(PR_PARENT_ENTRYID)) {
        fill_entry(tag, {id.account, MAPI_FOLDER, folder}, row);
    } else if (id_of(tag) == id_of(PR_HASATTACH)) {
        fill_number(tag, PT_BOOLEAN, (flags & MSGFLAG_HASATTACH) != 0 ? 1 : 0, row);
    } else {
        row.error(tag, MAPI_E_NOT_FOUND);
    }
    return true;
}

void fill_column(ULONG tag, Column column, const ColumnView& view, Row& row) {
    if (!view.present) {
        row.error(tag, MAPI_E_NOT_FOUND);
    } else if (is_text(column)) {
        fill_text(tag, view.bytes, row);
    } else {
        fill_number(tag, PROP_TYPE(kColumnInfo[index_of(column)].tag), view.number, row);
    }
}

}  // namespace zr::platform::mapi
