#pragma once

#include "appointment.h"

namespace zr::platform::pim {

// The pattern of an appointment in hand, which it keeps alive.
HRESULT make_pattern(Appointment& appointment, bool read_only, IRecurrencePattern** pattern);
// Its exceptions as the store has them now.
HRESULT make_exceptions(Appointment& appointment, IExceptions** exceptions);

// What the parts of an appointment share: they count references of their own and keep it alive.
template <class Face, const IID& iid>
class Part : public EarlyBound<Face> {
public:
    explicit Part(Appointment& appointment) : appointment_(appointment) { appointment_.AddRef(); }
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;

    HRESULT QueryInterface(REFIID riid, void** object) override {
        if (!cleared(object)) return fail(E_POINTER);
        if (riid != iid && riid != IID_IDispatch && riid != IID_IUnknown) return fail(E_NOINTERFACE);
        *object = static_cast<Face*>(this);
        references_.add();
        return S_OK;
    }
    ULONG AddRef() override { return references_.add(); }
    ULONG Release() override {
        const ULONG left = references_.remove();
        if (left == 0) delete this;
        return left;
    }
    HRESULT get_Application(IPOutlookApp** app) override { return appointment_.get_Application(app); }

protected:
    virtual ~Part() { appointment_.Release(); }

    Appointment& appointment_;

private:
    References references_;
};

}  // namespace zr::platform::pim
