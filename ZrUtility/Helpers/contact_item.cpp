#include "ZrUtility/Helpers/contact_item.h"

namespace {

bool Is(IDispatch* item, REFIID kind) {
    void* other = nullptr;
    if (item->QueryInterface(kind, &other) < 0 || other == nullptr) return false;
    static_cast<IUnknown*>(other)->Release();
    return true;
}

}  // namespace

LONG ContactOfItem(IDispatch* item, IContact*& contact) {
    contact = nullptr;
    if (item == nullptr) return S_OK;
    void* same = nullptr;
    if (item->QueryInterface(IID_IContact, &same) >= 0 && same != nullptr) {
        item->Release();
        contact = static_cast<IContact*>(same);
        return S_OK;
    }
    if (Is(item, IID_IAppointment) || Is(item, IID_ITask)) {
        item->Release();
        return E_NOINTERFACE;
    }
    contact = static_cast<IContact*>(item);
    return S_OK;
}
