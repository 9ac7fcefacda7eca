#pragma once

#include "com/com_object.h"
#include "session.h"

namespace zr::platform::pim {

// A default folder: where its items are, and its own properties.
class FolderObject final : public EarlyBound<IFolder>, public EarlyBound<IItem> {
public:
    FolderObject(const SessionRef& session, INT folder) : session_(session), folder_(folder) {}

    HRESULT QueryInterface(REFIID riid, void** object) override;
    ULONG AddRef() override { return references_.add(); }
    ULONG Release() override;

    HRESULT get_Items(IPOutlookItemCollection** items) override;
    HRESULT get_DefaultItemType(INT* type) override;
    HRESULT AddItemToInfraredFolder(IDispatch*) override { return fail(E_NOTIMPL); }
    HRESULT SendToInfrared() override { return fail(E_NOTIMPL); }
    HRESULT get_Application(IPOutlookApp** app) override;

    HRESULT GetProps(const CEPROPID* ids, ULONG flags, WORD count, CEPROPVAL** values, ULONG* size,
                     HANDLE heap) override;
    HRESULT SetProps(ULONG flags, WORD count, CEPROPVAL* values) override;
    HRESULT Save() override;
    HRESULT Delete() override { return fail(E_ACCESSDENIED, "A default folder cannot be deleted."); }
    HRESULT Copy(IItem** copy) override;
    HRESULT Display(HWND) override { return fail(E_NOTIMPL); }
    HRESULT Edit(HWND) override { return fail(E_NOTIMPL); }
    HRESULT get_Oid(LONG* oid) override;

private:
    ~FolderObject() = default;

    HRESULT value(CEPROPID id, Value& value);
    HRESULT all_values(std::vector<Values::Entry>& found);

    SessionRef session_;
    const INT folder_;
    Values pending_;
    References references_;
};

}  // namespace zr::platform::pim
