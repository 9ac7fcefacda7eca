#pragma once

#include <atomic>
#include <mutex>

#include "com/com_object.h"
#include "session.h"

namespace zr::platform::pim {

// The application object. Its public count is the callers' references alone; sessions hold the object itself, so that
// an item in hand can still name its application after the callers let go of it.
class Application final : public EarlyBound<IPOutlookApp>, public IZrStore {
public:
    static HRESULT create(REFIID riid, void** object) noexcept;

    void hold() { holds_.fetch_add(1, std::memory_order_relaxed); }
    void unhold() {
        if (holds_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

    HRESULT QueryInterface(REFIID riid, void** object) override;
    ULONG AddRef() override;
    ULONG Release() override;

    HRESULT Logon(HWND window) override;
    HRESULT Logoff() override;
    HRESULT get_Version(BSTR* version) override;
    HRESULT GetDefaultFolder(OlDefaultFolders folder, IFolder** object) override;
    HRESULT CreateItem(OlItemType type, IDispatch** item) override;
    HRESULT GetItemFromOid(LONG oid, IDispatch** item) override;
    HRESULT get_HomeCity(ICity** city) override;
    HRESULT put_HomeCity(ICity* city) override;
    HRESULT get_Application(IPOutlookApp** app) override;
    HRESULT get_OutlookCompatible(VARIANT_BOOL* compatible) override;
    HRESULT GetTimeZoneFromIndex(INT index, ITimeZone** zone) override;
    HRESULT GetTimeZoneInformationFromIndex(INT index, void* information) override;
    HRESULT SysFreeString(BSTR text) override;
    HRESULT VariantTimeToSystemTime(DATE date, SYSTEMTIME* time) override;
    HRESULT SystemTimeToVariantTime(const SYSTEMTIME* time, DATE* date) override;
    HRESULT get_CurrentCityIndex(INT* index) override;
    HRESULT put_CurrentCityIndex(INT index) override;
    HRESULT ReceiveFromInfrared() override;

    HRESULT BeginBatch() override;
    HRESULT CommitBatch() override;
    HRESULT RollbackBatch() override;
    HRESULT LastErrorText(BSTR* text) override;
    HRESULT get_StorePath(BSTR* path) override;
    HRESULT FindByUid(INT folder, LPCWSTR uid, LONG after, LONG* oid) override;
    HRESULT FindByEmail(LPCWSTR address, LONG after, LONG* oid) override;

private:
    Application() = default;
    ~Application() = default;

    SessionRef session();  // empty when not logged on
    template <class Find>
    HRESULT find_item(LONG* oid, Find find);

    std::atomic<ULONG> references_{0};
    std::atomic<std::uint32_t> holds_{0};
    std::mutex mutex_;
    SessionRef session_;
};

// A reference to the application of a session, for the caller.
HRESULT give_application(Session& session, IPOutlookApp** app);

}  // namespace zr::platform::pim
