#include "application.h"

#include "base/utf.h"
#include "com/com_class.h"
#include "folder.h"
#include "item_object.h"
#include "ole_date.h"

namespace zr::platform::pim {
namespace {

const BuiltinClass application_class(CLSID_Application, &Application::create);

HRESULT give_text(std::u16string_view text, BSTR* string) {
    *string = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    return *string != nullptr ? S_OK : fail(E_OUTOFMEMORY);
}

}  // namespace

HRESULT Application::create(REFIID riid, void** object) noexcept {
    auto* app = new (std::nothrow) Application;
    if (app == nullptr) return fail(E_OUTOFMEMORY);
    app->AddRef();
    const HRESULT result = app->QueryInterface(riid, object);
    app->Release();
    return result;
}

HRESULT Application::QueryInterface(REFIID riid, void** object) {
    if (!cleared(object)) return fail(E_POINTER);
    if (riid == IID_IZrStore) {
        *object = static_cast<IZrStore*>(this);
    } else if (riid == IID_IPOutlookApp || riid == IID_IDispatch || riid == IID_IUnknown) {
        *object = static_cast<IPOutlookApp*>(this);
    } else {
        return fail(E_NOINTERFACE);
    }
    AddRef();
    return S_OK;
}

ULONG Application::AddRef() {
    const ULONG before = references_.fetch_add(1, std::memory_order_relaxed);
    if (before == 0) {
        hold();
        count_live(ZrLiveKind::Interfaces, 1);
    }
    return before + 1;
}

ULONG Application::Release() {
    const ULONG left = references_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) {
        Logoff();
        count_live(ZrLiveKind::Interfaces, -1);
        unhold();
    }
    return left;
}

SessionRef Application::session() {
    const InCall in_call;
    const std::lock_guard lock(mutex_);
    if (!session_) fail(HRESULT_FROM_WIN32(kNotLoggedOn));
    return session_;
}

HRESULT Application::Logon(HWND window) {
    return guarded([&]() -> HRESULT {
        const InCall in_call;
        const std::lock_guard lock(mutex_);
        if (session_) return S_FALSE;
        std::shared_ptr<Store> store;
        HRESULT result = Store::join(store);
        if (FAILED(result)) return result;
        const SessionRef session = SessionRef::adopt(new Session(*this, std::move(store)));
        result = session->start(window);
        if (SUCCEEDED(result)) session_ = session;
        return result;
    });
}

HRESULT Application::Logoff() {
    SessionRef session;
    {
        const InCall in_call;
        const std::lock_guard lock(mutex_);
        std::swap(session, session_);
    }
    if (!session) return fail(HRESULT_FROM_WIN32(kNotLoggedOn));
    session->end();
    return S_OK;
}

HRESULT Application::get_Version(BSTR* version) {
    return cleared(version) ? give_text(u"5.2", version) : fail(E_POINTER);
}

HRESULT Application::GetDefaultFolder(OlDefaultFolders folder, IFolder** object) {
    if (!cleared(object)) return fail(E_POINTER);
    const SessionRef session = this->session();
    if (!session) return HRESULT_FROM_WIN32(kNotLoggedOn);
    if (!is_folder(folder)) return fail(E_INVALIDARG, "There is no such default folder.");
    *object = new (std::nothrow) FolderObject(session, folder);
    return *object != nullptr ? S_OK : fail(E_OUTOFMEMORY);
}

HRESULT Application::CreateItem(OlItemType type, IDispatch** item) {
    if (!cleared(item)) return fail(E_POINTER);
    const SessionRef session = this->session();
    if (!session) return HRESULT_FROM_WIN32(kNotLoggedOn);
    return guarded([&]() -> HRESULT {
        for (const INT folder : {olFolderContacts, olFolderCalendar, olFolderTasks}) {
            if (item_type(folder) != type) continue;
            *item = make_item(session, folder, {});
            return *item != nullptr ? S_OK : fail(E_OUTOFMEMORY);
        }
        return fail(E_INVALIDARG, "There is no such type of item.");
    });
}

HRESULT Application::GetItemFromOid(LONG oid, IDispatch** item) {
    if (!cleared(item)) return fail(E_POINTER);
    const SessionRef session = this->session();
    if (!session) return HRESULT_FROM_WIN32(kNotLoggedOn);
    return guarded([&]() -> HRESULT {
        Given given = {.oid = oid};
        {
            Store& store = session->store();
            const auto lock = store.lock();
            HRESULT result = store.refresh();
            do {
                given.seq = store.seq();
                if (SUCCEEDED(result))
                    result =
                        folder_of(oid) == olFolderContacts ? store.rows().read(oid, 0, given.row) : store.exists(oid);
                if (SUCCEEDED(result)) result = store.refresh();
                if (FAILED(result)) return result;
                // Its identifier was freed meanwhile: whose row is it?
            } while (store.deleted_since(given.seq, oid));
        }
        *item = make_item(session, folder_of(oid), std::move(given));
        return *item != nullptr ? S_OK : fail(E_OUTOFMEMORY);
    });
}

HRESULT Application::get_HomeCity(ICity** city) {
    return cleared(city) ? fail(E_NOTIMPL) : fail(E_POINTER);
}

HRESULT Application::put_HomeCity(ICity*) {
    return fail(E_NOTIMPL);
}

HRESULT Application::get_Application(IPOutlookApp** app) {
    if (!cleared(app)) return fail(E_POINTER);
    AddRef();
    *app = this;
    return S_OK;
}

HRESULT Application::get_OutlookCompatible(VARIANT_BOOL* compatible) {
    if (compatible == nullptr) return fail(E_POINTER);
    *compatible = VARIANT_FALSE;
    return S_OK;
}

HRESULT Application::GetTimeZoneFromIndex(INT, ITimeZone** zone) {
    return cleared(zone) ? fail(E_NOTIMPL) : fail(E_POINTER);
}

HRESULT Application::GetTimeZoneInformationFromIndex(INT, void*) {
    return fail(E_NOTIMPL);
}

HRESULT Application::SysFreeString(BSTR text) {
    ::SysFreeString(text);
    return S_OK;
}

HRESULT Application::VariantTimeToSystemTime(DATE date, SYSTEMTIME* time) {
    if (time == nullptr) return fail(E_POINTER);
    *time = {};
    return date_to_parts(date, *time) ? S_OK : fail(E_INVALIDARG, "The date is out of range.");
}

HRESULT Application::SystemTimeToVariantTime(const SYSTEMTIME* time, DATE* date) {
    if (time == nullptr || date == nullptr) return fail(E_POINTER);
    *date = 0;
    return parts_to_date(*time, *date) ? S_OK : fail(E_INVALIDARG, "The time is no date.");
}

HRESULT Application::get_CurrentCityIndex(INT* index) {
    if (index == nullptr) return fail(E_POINTER);
    *index = 0;
    return fail(E_NOTIMPL);
}

HRESULT Application::put_CurrentCityIndex(INT) {
    return fail(E_NOTIMPL);
}

HRESULT Application::ReceiveFromInfrared() {
    return fail(E_NOTIMPL);
}

HRESULT Application::BeginBatch() {
    const SessionRef session = this->session();
    if (!session) return HRESULT_FROM_WIN32(kNotLoggedOn);
    return guarded([&] { return session->begin_batch(); });
}

HRESULT Application::CommitBatch() {
    const SessionRef session = this->session();
    if (!session) return HRESULT_FROM_WIN32(kNotLoggedOn);
    return guarded([&] { return session->commit_batch(); });
}

HRESULT Application::RollbackBatch() {
    const SessionRef session = this->session();
    return session ? session->rollback_batch() : HRESULT_FROM_WIN32(kNotLoggedOn);
}

HRESULT Application::LastErrorText(BSTR* text) {
    return cleared(text) ? give_text(last_error_text(), text) : fail(E_POINTER);
}

HRESULT Application::get_StorePath(BSTR* path) {
    if (!cleared(path)) return fail(E_POINTER);
    const SessionRef session = this->session();
    if (!session) return HRESULT_FROM_WIN32(kNotLoggedOn);
    return guarded([&] { return give_text(host_to_wide(session->store().shared().path()), path); });
}

template <class Find>
HRESULT Application::find_item(LONG* oid, Find find) {
    const SessionRef session = this->session();
    if (!session) return HRESULT_FROM_WIN32(kNotLoggedOn);
    return guarded([&] {
        Store& store = session->store();
        const auto lock = store.lock();
        const HRESULT result = store.refresh();
        return SUCCEEDED(result) ? find(store, *oid) : result;
    });
}

HRESULT Application::FindByUid(INT folder, LPCWSTR uid, LONG after, LONG* oid) {
    if (oid == nullptr) return fail(E_POINTER);
    *oid = 0;
    if (!is_folder(folder)) return fail(E_INVALIDARG, "There is no such default folder.");
    return find_item(oid, [&](Store& store, LONG& found) {
        return store.with_uid(folder, uid != nullptr ? uid : std::u16string_view(), after, found);
    });
}

HRESULT Application::FindByEmail(LPCWSTR address, LONG after, LONG* oid) {
    if (oid == nullptr) return fail(E_POINTER);
    *oid = 0;
    return find_item(oid, [&](Store& store, LONG& found) {
        return store.with_email(address != nullptr ? address : std::u16string_view(), after, found);
    });
}

HRESULT give_application(Session& session, IPOutlookApp** app) {
    if (!cleared(app)) return fail(E_POINTER);
    session.app().AddRef();
    *app = &session.app();
    return S_OK;
}

}  // namespace zr::platform::pim
