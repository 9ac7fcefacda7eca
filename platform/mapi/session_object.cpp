// Logging on, and the session as programs hold it: IMAPISession, ICEMAPISession, IZrMail.

#include <atomic>

#include "base/utf.h"
#include "com/com_object.h"
#include "find_query.h"
#include "objects.h"
#include "row_source.h"
#include "table.h"

namespace zr::platform::mapi {
namespace {

constexpr ULONG kStoreFlags =
    MAPI_BEST_ACCESS | MAPI_MODIFY | MDB_WRITE | MDB_NO_DIALOG | MAPI_DEFERRED_ERRORS | MAPI_UNICODE;

constinit std::atomic<LONG> initialised{0};

class SessionObject final : public ICEMAPISession, public IZrMail {
public:
    explicit SessionObject(SessionRef session) : session_(std::move(session)) {}

    HRESULT QueryInterface(REFIID riid, void** object) override {
        if (!cleared(object)) return E_POINTER;
        if (riid == IID_IZrMail) {
            *object = static_cast<IZrMail*>(this);
        } else if (riid == IID_IUnknown || riid == IID_IMAPISession || riid == IID_ICEMAPISession) {
            *object = static_cast<ICEMAPISession*>(this);
        } else {
            return fail(E_NOINTERFACE);
        }
        AddRef();
        return S_OK;
    }
    ULONG AddRef() override { return references_.add(); }
    ULONG Release() override {
        const ULONG left = references_.remove();
        if (left == 0) delete this;
        return left;
    }
    HRESULT GetLastError(HRESULT, ULONG flags, LPMAPIERROR* error) override { return last_error(flags, error); }

    HRESULT GetMsgStoresTable(ULONG flags, LPMAPITABLE* table) override {
        return guarded([&] {
            if (!cleared(table)) return fail(MAPI_E_INVALID_PARAMETER);
            HRESULT result = check_flags(flags, MAPI_UNICODE | MAPI_DEFERRED_ERRORS);
            if (SUCCEEDED(result)) result = ready();
            return SUCCEEDED(result) ? make_table(session_, stores_source(store()), table) : result;
        });
    }
    HRESULT OpenMsgStore(ULONG_PTR, ULONG size, LPENTRYID entry, LPCIID iid, ULONG flags, LPMDB* object) override {
        return guarded([&] { return open_store(size, entry, iid, flags, object); });
    }
    HRESULT OpenAddressBook(ULONG_PTR, LPCIID, ULONG, IUnknown** book) override { return refuse(book); }
    HRESULT OpenProfileSection(LPMAPIUID, LPCIID, ULONG, IUnknown** object) override { return refuse(object); }
    HRESULT GetStatusTable(ULONG, LPMAPITABLE* table) override { return refuse(table); }
    HRESULT OpenEntry(ULONG size, LPENTRYID entry, LPCIID iid, ULONG flags, ULONG* type, IUnknown** object) override {
        return guarded([&] { return open_entry(session_, 0, size, entry, iid, flags, type, object); });
    }
    HRESULT CompareEntryIDs(ULONG size1, LPENTRYID entry1, ULONG size2, LPENTRYID entry2, ULONG, ULONG* same) override {
        return compare_entries(size1, entry1, size2, entry2, same);
    }
    HRESULT Advise(ULONG, LPENTRYID, ULONG, LPMAPIADVISESINK, ULONG* connection) override {
        if (connection != nullptr) *connection = 0;
        return unsupported();
    }
    HRESULT Unadvise(ULONG) override { return unsupported(); }
    HRESULT MessageOptions(ULONG_PTR, ULONG, LPWSTR, LPMESSAGE) override { return unsupported(); }
    HRESULT QueryDefaultMessageOpt(LPWSTR, ULONG, ULONG* count, LPSPropValue* options) override {
        if (count != nullptr) *count = 0;
        return refuse(options);
    }
    HRESULT EnumAdrTypes(ULONG, ULONG* count, LPWSTR** types) override {
        if (count != nullptr) *count = 0;
        return refuse(types);
    }
    HRESULT QueryIdentity(ULONG* size, LPENTRYID* entry) override {
        if (size != nullptr) *size = 0;
        return refuse(entry);
    }
    HRESULT Logoff(ULONG_PTR, ULONG, ULONG) override {
        return guarded([&] {
            const HRESULT result = session_->check_open();
            if (SUCCEEDED(result)) session_->end();
            return result;
        });
    }
    HRESULT SetDefaultStore(ULONG, ULONG, LPENTRYID) override { return unsupported(); }
    HRESULT AdminServices(ULONG, IUnknown** services) override { return refuse(services); }
    HRESULT ShowForm(ULONG_PTR, LPMDB, LPMAPIFOLDER, LPCIID, ULONG, LPMESSAGE, ULONG, ULONG, ULONG, ULONG,
                     LPSTR) override {
        return unsupported();
    }
    HRESULT PrepareForm(LPCIID, LPMESSAGE, ULONG* token) override {
        if (token != nullptr) *token = 0;
        return unsupported();
    }

    HRESULT CreateMsgStore(LPCWSTR name, LPMDB* object) override {
        return guarded([&] {
            if (!cleared(object) || name == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
            LONGLONG account = 0;
            HRESULT result = ready();
            if (SUCCEEDED(result))
                result = session_->write([&](Transaction& change) { return change.create_account(name, account); });
            return SUCCEEDED(result) ? make_msg_store(session_, account, true, object) : result;
        });
    }
    HRESULT DeleteMsgStore(ULONG size, LPENTRYID entry) override {
        return guarded([&] {
            LONGLONG account = 0;
            HRESULT result = session_->check_open();
            if (SUCCEEDED(result)) result = account_of(size, entry, account);
            if (FAILED(result)) return result;
            return session_->write([&](Transaction& change) { return change.delete_account(account); });
        });
    }

    HRESULT BeginBatch() override {
        return guarded([&] { return session_->begin_batch(); });
    }
    HRESULT CommitBatch() override {
        return guarded([&] { return session_->commit_batch(); });
    }
    HRESULT RollbackBatch() override {
        return guarded([&] { return session_->rollback_batch(); });
    }
    HRESULT Find(LPCWSTR words, IMAPITable** table) override {
        return guarded([&] {
            if (!cleared(table)) return fail(MAPI_E_INVALID_PARAMETER);
            const std::u16string_view text = words != nullptr ? std::u16string_view(words) : std::u16string_view();
            HRESULT result = ready();
            std::string query = find_query(text);
            if (SUCCEEDED(result) && query.empty() && text.find_first_not_of(u" \t\r\n") != text.npos)
                result = fail(MAPI_E_INVALID_PARAMETER, "There is no word to look for.");
            return SUCCEEDED(result) ? make_table(session_, found_source(store(), std::move(query)), table) : result;
        });
    }
    HRESULT LastErrorText(BSTR* text) override {
        if (text == nullptr) return E_POINTER;
        *text = SysAllocString(last_error_text());
        return *text != nullptr ? S_OK : E_OUTOFMEMORY;
    }
    HRESULT get_StorePath(BSTR* path) override {
        return guarded([&] {
            if (path == nullptr) return fail(E_POINTER);
            *path = SysAllocString(host_to_wide(store().shared().path()).c_str());
            return *path != nullptr ? S_OK : fail(E_OUTOFMEMORY);
        });
    }

private:
    ~SessionObject() { session_->end(); }

    MailStore& store() { return session_->store(); }

    // What was set aside has to have an account before anything else.
    HRESULT ready() {
        const HRESULT result = session_->check_open();
        return SUCCEEDED(result) ? store().ensure_account() : result;
    }

    template <class T>
    static HRESULT refuse(T** output) {
        cleared(output);
        return unsupported();
    }

    HRESULT open_store(ULONG size, const ENTRYID* entry, LPCIID iid, ULONG flags, LPMDB* object) {
        if (!cleared(object)) return fail(MAPI_E_INVALID_PARAMETER);
        HRESULT result = check_flags(flags, kStoreFlags);
        if (SUCCEEDED(result) && iid != nullptr && *iid != IID_IMsgStore && *iid != IID_IMAPIProp)
            result = fail(MAPI_E_INTERFACE_NOT_SUPPORTED);
        if (SUCCEEDED(result)) result = ready();
        if (FAILED(result)) return result;
        LONGLONG account = 0;
        {
            const auto id = read_entry_id(size, entry);
            if (size != 0 && (!id || id->type != MAPI_STORE)) return fail(MAPI_E_INVALID_ENTRYID);
            const auto reading = store().lock();
            result = store().refresh();
            if (FAILED(result)) return result;
            const Account* const found = size == 0 ? store().default_account() : store().account(id->account);
            if (found == nullptr) return fail(MAPI_E_NOT_FOUND);
            account = found->id;
        }
        const bool writable = (flags & (MAPI_BEST_ACCESS | MAPI_MODIFY | MDB_WRITE)) != 0;
        return make_msg_store(session_, account, writable, object);
    }

    HRESULT account_of(ULONG size, const ENTRYID* entry, LONGLONG& account) {
        const auto id = read_entry_id(size, entry);
        if (!id || id->type != MAPI_STORE) return fail(MAPI_E_INVALID_ENTRYID);
        const auto reading = store().lock();
        const HRESULT result = store().refresh();
        if (FAILED(result)) return result;
        const Account* const found = store().account(id->account);
        if (found == nullptr) return fail(MAPI_E_NOT_FOUND);
        if (found == store().default_account()) return fail(MAPI_E_NO_ACCESS, "The default store is not deleted.");
        account = found->id;
        return S_OK;
    }

    References references_;
    const SessionRef session_;
};

}  // namespace
}  // namespace zr::platform::mapi

using namespace zr::platform;
using namespace zr::platform::mapi;

HRESULT MAPIInitialize(LPVOID) {
    initialised.fetch_add(1);
    return S_OK;
}

void MAPIUninitialize() {
    LONG count = initialised.load();
    while (count > 0 && !initialised.compare_exchange_weak(count, count - 1)) {
    }
}

HRESULT MAPILogonEx(ULONG_PTR, LPWSTR, LPWSTR, ULONG, LPMAPISESSION* session) {
    return guarded([&] {
        if (!cleared(session)) return fail(MAPI_E_INVALID_PARAMETER);
        if (initialised.load() <= 0) return fail(MAPI_E_NOT_INITIALIZED);
        MailStore* store = nullptr;
        const HRESULT result = MailStore::join(store);
        if (FAILED(result)) return result;
        *session = new SessionObject(std::make_shared<Session>(*store));
        return S_OK;
    });
}
