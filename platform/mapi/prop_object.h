#pragma once

// What stores, folders, messages and attachments have in common: IMAPIProp over a few operations of their own.

#include <algorithm>
#include <optional>
#include <span>
#include <type_traits>

#include "buffers.h"
#include "com/com_object.h"
#include "session.h"
#include "streams.h"

namespace zr::platform::mapi {

// Adds a stored value to a row, or why it cannot be given. Null: there is none. With the store's lock held.
HRESULT fill_value(MailStore& store, ULONG tag, const Value* value, Row& row);

// What stores and folders share: a name that stands apart from their properties, which are kept at once.
// `tags`: those that are computed, and the ones of the owner's properties. With the store's lock held.
HRESULT list_kept(MailStore& store, LONGLONG owner, std::span<const ULONG> computed, std::vector<ULONG>& tags);
SCODE settable_beside_name(ULONG tag);
std::optional<Value> take_name(Edit& edit);

// Copies an array of problems, or null when there are none.
HRESULT give_problems(const std::vector<SPropProblem>& problems, LPSPropProblemArray* array);
HRESULT give_tags(const std::vector<ULONG>& tags, LPSPropTagArray* array);

// The operations of an object; the calls of IMAPIProp in terms of them.
class PropCore : public StreamTarget {
public:
    PropCore(SessionRef session, bool writable) : session_(std::move(session)), writable_(writable) {}

    HRESULT get_props(LPSPropTagArray tags, ULONG flags, ULONG* count, LPSPropValue* values);
    HRESULT get_prop_list(ULONG flags, LPSPropTagArray* tags);
    HRESULT open_property(ULONG tag, LPCIID iid, ULONG options, ULONG flags, IUnknown** object);
    HRESULT set_props(ULONG count, LPSPropValue values, LPSPropProblemArray* problems);
    HRESULT delete_props(LPSPropTagArray tags, LPSPropProblemArray* problems);
    HRESULT copy_to(LPSPropTagArray excluded, IMAPIProp* target, ULONG flags, LPSPropProblemArray* problems);

    HRESULT take_stream(WORD id, Value value) override;

protected:
    ~PropCore() = default;

    MailStore& store() { return session_->store(); }
    // The state of the session and of the object; brings the object up to date. With the store's lock held.
    HRESULT look_all();
    HRESULT check_writable() const { return writable_ ? S_OK : fail(MAPI_E_NO_ACCESS); }

    virtual HRESULT look() = 0;                          // with the lock held, after refresh()
    virtual HRESULT list(std::vector<ULONG>& tags) = 0;  // likewise
    virtual HRESULT fill(ULONG tag, Row& row) = 0;       // likewise; adds one entry
    virtual HRESULT stored(WORD id, Value& value) = 0;   // likewise; PT_NULL: none
    virtual SCODE settable(ULONG tag) = 0;               // S_OK, or why it cannot be set
    virtual HRESULT apply(Edit& edit) = 0;               // without the lock
    virtual HRESULT open_table(ULONG tag, IMAPITable** table) {
        static_cast<void>(tag);
        static_cast<void>(table);
        return fail(MAPI_E_NOT_FOUND);
    }

    const SessionRef session_;
    bool writable_;
};

template <class Face>
class PropObject : public Face, public PropCore {
public:
    using PropCore::PropCore;

    HRESULT QueryInterface(REFIID riid, void** object) override {
        if (!cleared(object)) return E_POINTER;
        if (!is_kind(riid)) return fail(E_NOINTERFACE);
        AddRef();
        *object = static_cast<Face*>(this);
        return S_OK;
    }
    ULONG AddRef() override { return references_.add(); }
    ULONG Release() override {
        const ULONG left = references_.remove();
        if (left == 0) delete this;
        return left;
    }
    HRESULT GetLastError(HRESULT, ULONG flags, LPMAPIERROR* error) override { return last_error(flags, error); }
    HRESULT SaveChanges(ULONG flags) override {
        return check_flags(flags, KEEP_OPEN_READONLY | KEEP_OPEN_READWRITE | FORCE_SAVE | MAPI_DEFERRED_ERRORS);
    }
    HRESULT GetProps(LPSPropTagArray tags, ULONG flags, ULONG* count, LPSPropValue* values) override {
        return guarded([&] { return get_props(tags, flags, count, values); });
    }
    HRESULT GetPropList(ULONG flags, LPSPropTagArray* tags) override {
        return guarded([&] { return get_prop_list(flags, tags); });
    }
    HRESULT OpenProperty(ULONG tag, LPCIID iid, ULONG options, ULONG flags, IUnknown** object) override {
        return guarded([&] { return open_property(tag, iid, options, flags, object); });
    }
    HRESULT SetProps(ULONG count, LPSPropValue values, LPSPropProblemArray* problems) override {
        return guarded([&] { return set_props(count, values, problems); });
    }
    HRESULT DeleteProps(LPSPropTagArray tags, LPSPropProblemArray* problems) override {
        return guarded([&] { return delete_props(tags, problems); });
    }
    HRESULT CopyTo(ULONG, LPCIID, LPSPropTagArray excluded, ULONG_PTR, IMAPIProgress*, LPCIID iid, void* target,
                   ULONG flags, LPSPropProblemArray* problems) override {
        if (target == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
        if (iid != nullptr && !is_kind(*iid)) return fail(MAPI_E_INTERFACE_NOT_SUPPORTED);
        return guarded([&] {
            const HRESULT result = copy_to(excluded, static_cast<Face*>(target), flags, problems);
            return FAILED(result) ? result : copy_parts(excluded, static_cast<Face*>(target), result);
        });
    }
    HRESULT CopyProps(LPSPropTagArray, ULONG_PTR, IMAPIProgress*, LPCIID, void*, ULONG,
                      LPSPropProblemArray* problems) override {
        cleared(problems);
        return unsupported();
    }
    HRESULT GetNamesFromIDs(LPSPropTagArray*, GUID*, ULONG, ULONG* count, MAPINAMEID*** names) override {
        if (count != nullptr) *count = 0;
        cleared(names);
        return unsupported();
    }
    HRESULT GetIDsFromNames(ULONG, MAPINAMEID**, ULONG, LPSPropTagArray* tags) override {
        cleared(tags);
        return unsupported();
    }

    IUnknown* stream_owner() override { return static_cast<Face*>(this); }

protected:
    virtual ~PropObject() = default;
    virtual bool is_kind(REFIID riid) const = 0;
    // What besides properties CopyTo copies; `so_far` is the result when there is nothing to say.
    virtual HRESULT copy_parts(LPSPropTagArray excluded, Face* target, HRESULT so_far) {
        static_cast<void>(excluded);
        static_cast<void>(target);
        return so_far;
    }

private:
    References references_;
};

inline bool is_excluded(const SPropTagArray* excluded, ULONG tag) {
    if (excluded == nullptr) return false;
    const ULONG* const end = excluded->aulPropTag + excluded->cValues;
    return std::find_if(excluded->aulPropTag, end, [tag](ULONG each) { return PROP_ID(each) == PROP_ID(tag); }) != end;
}

}  // namespace zr::platform::mapi
