#pragma once

// The object around an item: its own face, IItem's and IZrItem's over one state.

#include "application.h"
#include "com/com_object.h"
#include "item_state.h"

namespace zr::platform::pim {

// A new, unsaved item of a folder, or one of the store, as its own face with one reference. Null when memory is short.
IDispatch* make_item(const SessionRef& session, INT folder, Given&& given);
OlItemType item_type(INT folder);

template <class Face, const IID& iid>
class ItemObject : public EarlyBound<Face>, public EarlyBound<IItem>, public IZrItem {
public:
    ItemObject(const SessionRef& session, INT folder, Given&& given) : state_(session, folder, std::move(given)) {}

    HRESULT QueryInterface(REFIID riid, void** object) override {
        if (!cleared(object)) return fail(E_POINTER);
        if (riid == IID_IItem) {
            *object = static_cast<IItem*>(this);
        } else if (riid == IID_IZrItem) {
            *object = static_cast<IZrItem*>(this);
        } else if (riid == iid || riid == IID_IDispatch || riid == IID_IUnknown) {
            *object = static_cast<Face*>(this);
        } else {
            return fail(E_NOINTERFACE);
        }
        references_.add();
        return S_OK;
    }
    ULONG AddRef() override { return references_.add(); }
    ULONG Release() override {
        const ULONG left = references_.remove();
        if (left == 0) delete this;
        return left;
    }

    HRESULT GetProps(const CEPROPID* ids, ULONG flags, WORD count, CEPROPVAL** values, ULONG* size,
                     HANDLE heap) override {
        return state_.get_props(ids, flags, count, values, size, heap);
    }
    HRESULT SetProps(ULONG, WORD count, CEPROPVAL* values) override { return state_.set_props(count, values); }
    HRESULT Save() override { return state_.save(); }
    HRESULT Delete() override { return state_.remove(); }
    HRESULT Copy(IItem** copy) override {
        if (!cleared(copy)) return fail(E_POINTER);
        Face* face = nullptr;
        const HRESULT result = copy_face(&face);
        if (SUCCEEDED(result)) *copy = static_cast<ItemObject*>(face);
        return result;
    }
    HRESULT Copy(Face** copy) override {
        if (!cleared(copy)) return fail(E_POINTER);
        return copy_face(copy);
    }
    HRESULT Display() override { return fail(E_NOTIMPL); }
    HRESULT Display(HWND) override { return fail(E_NOTIMPL); }
    HRESULT Edit(HWND) override { return fail(E_NOTIMPL); }
    HRESULT get_Oid(LONG* oid) override { return state_.oid(oid); }
    HRESULT get_DefaultItemType(INT* type) override {
        if (type == nullptr) return fail(E_POINTER);
        *type = item_type(state_.folder());
        return S_OK;
    }
    HRESULT get_Application(IPOutlookApp** app) override { return give_application(state_.session(), app); }
    HRESULT get_HasLeft(VARIANT_BOOL* left) override {
        if (left == nullptr) return fail(E_POINTER);
        *left = state_.has_left() ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    }
    HRESULT get_Born(LONGLONG* number) override {
        if (number == nullptr) return fail(E_POINTER);
        *number = 0;
        return guarded([&] { return state_.born(*number); });
    }

protected:
    virtual ~ItemObject() = default;

    HRESULT get(CEPROPID id, BSTR* text) { return state_.get_text(id, text); }
    HRESULT put(CEPROPID id, BSTR text) { return state_.put_text(id, text); }
    HRESULT get(CEPROPID id, DATE* date) { return state_.get_date(id, date); }
    HRESULT put(CEPROPID id, DATE date) { return state_.put_date(id, date); }
    HRESULT get(CEPROPID id, LONG* number) { return get_number(id, number, 0); }
    HRESULT put(CEPROPID id, LONG number) { return state_.put_number(id, number); }
    HRESULT get(CEPROPID id, VARIANT_BOOL* truth) { return get_number(id, truth, VARIANT_FALSE); }
    HRESULT put(CEPROPID id, VARIANT_BOOL truth) {
        return state_.put_number(id, truth != VARIANT_FALSE ? VARIANT_TRUE : VARIANT_FALSE);
    }

    ItemState state_;

private:
    template <class Number>
    HRESULT get_number(CEPROPID id, Number* number, Number otherwise) {
        if (number == nullptr) return fail(E_POINTER);
        LONGLONG found = otherwise;
        const HRESULT result = state_.get_number(id, otherwise, found);
        *number = static_cast<Number>(found);
        return result;
    }
    HRESULT copy_face(Face** copy) {
        return guarded([&]() -> HRESULT {
            auto* made = static_cast<Face*>(make_item(SessionRef(&state_.session()), state_.folder(), {}));
            if (made == nullptr) return fail(E_OUTOFMEMORY);
            const HRESULT result = state_.copy_to(static_cast<ItemObject*>(made)->state_);
            if (FAILED(result)) {
                made->Release();
                return result;
            }
            *copy = made;
            return S_OK;
        });
    }

    References references_;
};

#define ZRPIM_FIELD(type, name)                \
    HRESULT get_##name(type* value) override { \
        return this->get(field::name, value);  \
    }                                          \
    HRESULT put_##name(type value) override {  \
        return this->put(field::name, value);  \
    }

}  // namespace zr::platform::pim
