// Folders: IMAPIFolder.

#include "objects.h"
#include "prop_object.h"
#include "row_source.h"
#include "rows.h"
#include "table.h"

namespace zr::platform::mapi {
namespace {

class FolderObject final : public PropObject<IMAPIFolder> {
public:
    FolderObject(SessionRef session, LONGLONG folder, bool writable)
        : PropObject(std::move(session), writable), folder_(folder) {}

    HRESULT GetContentsTable(ULONG flags, LPMAPITABLE* table) override {
        return guarded([&] { return give_table(flags, MAPI_UNICODE | MAPI_DEFERRED_ERRORS, table, false); });
    }
    HRESULT GetHierarchyTable(ULONG flags, LPMAPITABLE* table) override {
        return guarded(
            [&] { return give_table(flags, MAPI_UNICODE | MAPI_DEFERRED_ERRORS | CONVENIENT_DEPTH, table, true); });
    }
    HRESULT OpenEntry(ULONG size, LPENTRYID entry, LPCIID iid, ULONG flags, ULONG* type, IUnknown** object) override {
        return guarded([&] {
            LONGLONG account = 0;
            cleared(object);
            const HRESULT result = own_account(account);
            return SUCCEEDED(result) ? open_entry(session_, account, size, entry, iid, flags, type, object) : result;
        });
    }
    HRESULT SetSearchCriteria(LPSRestriction, LPENTRYLIST, ULONG) override { return unsupported(); }
    HRESULT GetSearchCriteria(ULONG, LPSRestriction* restriction, LPENTRYLIST* containers, ULONG* state) override {
        cleared(restriction);
        cleared(containers);
        if (state != nullptr) *state = 0;
        return unsupported();
    }

    HRESULT CreateMessage(LPCIID iid, ULONG flags, LPMESSAGE* message) override {
        return guarded([&] {
            if (!cleared(message)) return fail(MAPI_E_INVALID_PARAMETER);
            if ((flags & MAPI_ASSOCIATED) != 0) return unsupported();
            HRESULT result = check_flags(flags, MAPI_DEFERRED_ERRORS);
            if (SUCCEEDED(result) && iid != nullptr && *iid != IID_IMessage && *iid != IID_IMAPIProp)
                result = fail(MAPI_E_INTERFACE_NOT_SUPPORTED);
            if (SUCCEEDED(result)) result = check_writable();
            if (SUCCEEDED(result)) result = session_->check_open();
            return SUCCEEDED(result) ? make_new_message(session_, folder_, message) : result;
        });
    }
    HRESULT CopyMessages(LPENTRYLIST messages, LPCIID iid, void* destination, ULONG_PTR, IMAPIProgress*,
                         ULONG flags) override {
        return guarded([&] { return copy_messages(messages, iid, destination, flags); });
    }
    HRESULT DeleteMessages(LPENTRYLIST messages, ULONG_PTR, IMAPIProgress*, ULONG flags) override {
        return guarded([&] {
            HRESULT result = check_flags(flags, MESSAGE_DIALOG);
            if (SUCCEEDED(result)) result = check_writable();
            return SUCCEEDED(result) ? with_messages(messages,
                                                     [&](Transaction& change, auto& numbers, bool& missed) {
                                                         return change.delete_messages(folder_, numbers, missed);
                                                     })
                                     : result;
        });
    }
    HRESULT CreateFolder(ULONG type, LPWSTR name, LPWSTR comment, LPCIID iid, ULONG flags,
                         LPMAPIFOLDER* folder) override {
        return guarded([&] { return create_folder(type, name, comment, iid, flags, folder); });
    }
    HRESULT CopyFolder(ULONG size, LPENTRYID entry, LPCIID iid, void* destination, LPWSTR name, ULONG_PTR,
                       IMAPIProgress*, ULONG flags) override {
        return guarded([&] { return copy_folder(size, entry, iid, destination, name, flags); });
    }
    HRESULT DeleteFolder(ULONG size, LPENTRYID entry, ULONG_PTR, IMAPIProgress*, ULONG flags) override {
        return guarded([&] {
            LONGLONG folder = 0;
            HRESULT result = check_flags(flags, DEL_MESSAGES | DEL_FOLDERS | FOLDER_DIALOG);
            if (SUCCEEDED(result)) result = check_writable();
            if (SUCCEEDED(result)) result = own_folder(size, entry, folder);
            if (FAILED(result)) return result;
            return session_->write([&](Transaction& change) {
                return change.delete_folder(folder, (flags & DEL_MESSAGES) != 0, (flags & DEL_FOLDERS) != 0);
            });
        });
    }
    HRESULT SetReadFlags(LPENTRYLIST messages, ULONG_PTR, IMAPIProgress*, ULONG flags) override {
        return guarded([&] {
            HRESULT result = check_flags(flags, SUPPRESS_RECEIPT | CLEAR_READ_FLAG | MESSAGE_DIALOG);
            if (SUCCEEDED(result)) result = check_writable();
            if (FAILED(result)) return result;
            const bool read = (flags & CLEAR_READ_FLAG) == 0;
            if (messages != nullptr) {
                return with_messages(messages, [&](Transaction& change, auto& numbers, bool& missed) {
                    return change.mark_read(folder_, numbers, false, read, missed);
                });
            }
            bool missed = false;
            return session_->write(
                [&](Transaction& change) { return change.mark_read(folder_, {}, true, read, missed); });
        });
    }
    HRESULT GetMessageStatus(ULONG, LPENTRYID, ULONG, ULONG* status) override {
        if (status != nullptr) *status = 0;
        return unsupported();
    }
    HRESULT SetMessageStatus(ULONG, LPENTRYID, ULONG, ULONG, ULONG* status) override {
        if (status != nullptr) *status = 0;
        return unsupported();
    }
    HRESULT SaveContentsSort(LPSSortOrderSet, ULONG) override { return unsupported(); }
    HRESULT EmptyFolder(ULONG_PTR, IMAPIProgress*, ULONG) override { return unsupported(); }

private:
    bool is_kind(REFIID riid) const override {
        return riid == IID_IUnknown || riid == IID_IMAPIProp || riid == IID_IMAPIContainer || riid == IID_IMAPIFolder;
    }

    HRESULT look() override {
        return store().folder(folder_) != nullptr ? S_OK : fail(MAPI_E_OBJECT_DELETED, "The folder was deleted.");
    }
    HRESULT list(std::vector<ULONG>& tags) override {
        return list_kept(store(), owner_of(MAPI_FOLDER, folder_), kFolderTags, tags);
    }
    HRESULT fill(ULONG tag, Row& row) override {
        return fill_folder(store(), *store().folder(folder_), writable_, tag, row);
    }
    HRESULT stored(WORD id, Value& value) override {
        if (id == id_of(PR_DISPLAY_NAME_W)) {
            value = Value::of_text(store().folder(folder_)->name);
            return S_OK;
        }
        return store().property(owner_of(MAPI_FOLDER, folder_), 0, id, value);
    }
    SCODE settable(ULONG tag) override {
        return is_computed_of_folder(id_of(tag)) ? MAPI_E_COMPUTED : settable_beside_name(tag);
    }
    HRESULT apply(Edit& edit) override {
        const std::optional<Value> name = take_name(edit);
        return gone_if_not_found(session_->write(
            [&](Transaction& change) { return change.edit_folder(folder_, edit, name ? &*name : nullptr); }));
    }
    HRESULT open_table(ULONG tag, IMAPITable** table) override {
        if (tag == PR_CONTAINER_CONTENTS) return GetContentsTable(0, table);
        return tag == PR_CONTAINER_HIERARCHY ? GetHierarchyTable(0, table) : fail(MAPI_E_NOT_FOUND);
    }

    static HRESULT gone_if_not_found(HRESULT result) {
        return result == MAPI_E_NOT_FOUND ? fail(MAPI_E_OBJECT_DELETED, "The folder was deleted.") : result;
    }

    HRESULT own_account(LONGLONG& account) {
        const auto reading = store().lock();
        const HRESULT result = look_all();
        if (SUCCEEDED(result)) account = store().folder(folder_)->account;
        return result;
    }

    HRESULT give_table(ULONG flags, ULONG known, LPMAPITABLE* table, bool hierarchy) {
        if (!cleared(table)) return fail(MAPI_E_INVALID_PARAMETER);
        if ((flags & MAPI_ASSOCIATED) != 0) return unsupported();
        HRESULT result = check_flags(flags, known);
        LONGLONG account = 0;
        if (SUCCEEDED(result)) result = own_account(account);
        if (FAILED(result)) return result;
        return make_table(session_,
                          hierarchy ? hierarchy_source(store(), folder_, (flags & CONVENIENT_DEPTH) != 0)
                                    : contents_source(store(), folder_),
                          table);
    }

    // The messages' numbers; what is none of ours, or of another store, is passed over.
    HRESULT numbers_of(LPENTRYLIST list, std::vector<LONGLONG>& numbers, bool& missed) {
        if (list == nullptr || (list->cValues != 0 && list->lpbin == nullptr)) return fail(MAPI_E_INVALID_PARAMETER);
        const auto reading = store().lock();
        const HRESULT result = look_all();
        if (FAILED(result)) return result;
        const AccountUid uid = store().account(store().folder(folder_)->account)->uid;
        for (ULONG i = 0; i < list->cValues; ++i) {
            const auto id = read_entry_id(list->lpbin[i].cb, list->lpbin[i].lpb);
            if (!id || id->type != MAPI_MESSAGE) return fail(MAPI_E_INVALID_ENTRYID);
            if (id->account == uid) {
                numbers.push_back(id->number);
            } else {
                missed = true;
            }
        }
        return S_OK;
    }

    template <class Work>
    HRESULT with_messages(LPENTRYLIST list, Work work) {
        std::vector<LONGLONG> numbers;
        bool missed = false;
        HRESULT result = numbers_of(list, numbers, missed);
        if (SUCCEEDED(result) && !numbers.empty())
            result = session_->write([&](Transaction& change) { return work(change, numbers, missed); });
        return SUCCEEDED(result) && missed ? MAPI_W_PARTIAL_COMPLETION : gone_if_not_found(result);
    }

    HRESULT copy_messages(LPENTRYLIST messages, LPCIID iid, void* destination, ULONG flags) {
        LONGLONG target = 0;
        HRESULT result = check_flags(flags, MESSAGE_MOVE | MESSAGE_DIALOG);
        const bool move = (flags & MESSAGE_MOVE) != 0;
        if (SUCCEEDED(result) && move) result = check_writable();
        if (SUCCEEDED(result)) result = folder_of(session_, iid, destination, target);
        if (FAILED(result)) return result;
        return with_messages(messages, [&](Transaction& change, auto& numbers, bool& missed) {
            return move ? change.move_messages(folder_, numbers, target, missed)
                        : change.copy_messages(folder_, numbers, target, missed);
        });
    }

    HRESULT create_folder(ULONG type, LPWSTR name, LPWSTR comment, LPCIID iid, ULONG flags, LPMAPIFOLDER* folder) {
        if (!cleared(folder) || name == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
        if (type == FOLDER_SEARCH) return unsupported();
        if (type != FOLDER_GENERIC) return fail(MAPI_E_INVALID_PARAMETER);
        HRESULT result = check_flags(flags, MAPI_UNICODE | OPEN_IF_EXISTS | MAPI_DEFERRED_ERRORS);
        if (SUCCEEDED(result) && iid != nullptr && !is_kind(*iid)) result = fail(MAPI_E_INTERFACE_NOT_SUPPORTED);
        if (SUCCEEDED(result)) result = check_writable();
        if (FAILED(result)) return result;
        LONGLONG number = 0;
        result = session_->write([&](Transaction& change) {
            if ((flags & OPEN_IF_EXISTS) != 0) {
                const HRESULT found = change.find_folder(folder_, name, number);
                if (FAILED(found) || number != 0) return found;
            }
            HRESULT made = change.create_folder(folder_, name, number);
            if (FAILED(made) || comment == nullptr) return made;
            Edit edit;
            edit.set.emplace(id_of(PR_COMMENT_W), Value::of_text(comment));
            return change.edit_folder(number, edit, nullptr);
        });
        if (FAILED(result)) return gone_if_not_found(result);
        return make_folder(session_, number, true, folder);
    }

    // A folder that is directly in this one.
    HRESULT own_folder(ULONG size, const ENTRYID* entry, LONGLONG& number) {
        const auto id = read_entry_id(size, entry);
        if (!id || id->type != MAPI_FOLDER) return fail(MAPI_E_INVALID_ENTRYID);
        const auto reading = store().lock();
        const HRESULT result = look_all();
        if (FAILED(result)) return result;
        const Folder* const folder = store().folder(id->number);
        if (folder == nullptr || folder->parent != folder_ ||
            store().entry_of(MAPI_FOLDER, folder->account, folder->id) != *id)
            return fail(MAPI_E_NOT_FOUND);
        number = id->number;
        return S_OK;
    }

    HRESULT copy_folder(ULONG size, const ENTRYID* entry, LPCIID iid, void* destination, LPCWSTR name, ULONG flags) {
        LONGLONG folder = 0;
        LONGLONG target = 0;
        HRESULT result = check_flags(flags, FOLDER_MOVE | FOLDER_DIALOG | COPY_SUBFOLDERS | MAPI_UNICODE);
        const bool move = (flags & FOLDER_MOVE) != 0;
        if (SUCCEEDED(result) && move) result = check_writable();
        if (SUCCEEDED(result)) result = own_folder(size, entry, folder);
        if (SUCCEEDED(result)) result = folder_of(session_, iid, destination, target);
        if (FAILED(result)) return result;
        const std::u16string_view text = name != nullptr ? std::u16string_view(name) : std::u16string_view();
        return session_->write([&](Transaction& change) {
            return move ? change.move_folder(folder, target, text)
                        : change.copy_folder(folder, target, text, (flags & COPY_SUBFOLDERS) != 0);
        });
    }

    const LONGLONG folder_;
};

}  // namespace

HRESULT make_folder(const SessionRef& session, LONGLONG folder, bool writable, LPMAPIFOLDER* object) {
    *object = new FolderObject(session, folder, writable);
    return S_OK;
}

}  // namespace zr::platform::mapi
