#include "item_makers.h"
#include "item_object.h"

#include <cmath>

namespace zr::platform::pim {

// An appointment; its duration is the distance between start and end.
class Appointment final : public ItemObject<IAppointment, IID_IAppointment> {
public:
    using ItemObject::ItemObject;

    ZRPIM_FIELD(VARIANT_BOOL, AllDayEvent)
    ZRPIM_FIELD(LONG, BusyStatus)
    ZRPIM_FIELD(BSTR, Categories)
    ZRPIM_FIELD(DATE, End)
    ZRPIM_FIELD(BSTR, Location)
    ZRPIM_FIELD(LONG, MeetingStatus)
    ZRPIM_FIELD(LONG, ReminderMinutesBeforeStart)
    ZRPIM_FIELD(LONG, ReminderOptions)
    ZRPIM_FIELD(VARIANT_BOOL, ReminderSet)
    ZRPIM_FIELD(BSTR, ReminderSoundFile)
    ZRPIM_FIELD(LONG, Sensitivity)
    ZRPIM_FIELD(DATE, Start)
    ZRPIM_FIELD(BSTR, Subject)
    ZRPIM_FIELD(BSTR, Body)

    HRESULT get_Duration(LONG* minutes) override;
    HRESULT put_Duration(LONG minutes) override;
    HRESULT get_IsRecurring(VARIANT_BOOL* recurring) override {
        if (recurring == nullptr) return fail(E_POINTER);
        *recurring = VARIANT_FALSE;
        return S_OK;
    }
    HRESULT GetRecurrencePattern(IRecurrencePattern** pattern) override {
        return cleared(pattern) ? fail(E_NOTIMPL) : fail(E_POINTER);
    }
    HRESULT ClearRecurrencePattern() override { return S_OK; }
    HRESULT get_Recipients(IRecipients** recipients) override {
        return cleared(recipients) ? fail(E_NOTIMPL) : fail(E_POINTER);
    }
    HRESULT Cancel() override { return fail(E_NOTIMPL); }
    HRESULT Send() override { return fail(E_NOTIMPL); }
};

namespace {

constexpr double kMinutesPerDay = 1440.0;

}  // namespace

HRESULT Appointment::get_Duration(LONG* minutes) {
    if (minutes == nullptr) return fail(E_POINTER);
    *minutes = 0;
    DATE start = 0;
    DATE end = 0;
    HRESULT result = get_Start(&start);
    if (SUCCEEDED(result)) result = get_End(&end);
    if (SUCCEEDED(result) && start != ZR_PIM_NO_DATE && end != ZR_PIM_NO_DATE)
        *minutes = static_cast<LONG>(std::lround((end - start) * kMinutesPerDay));
    return result;
}

HRESULT Appointment::put_Duration(LONG minutes) {
    DATE start = 0;
    const HRESULT result = get_Start(&start);
    if (FAILED(result)) return result;
    if (minutes < 0 || start == ZR_PIM_NO_DATE)
        return fail(E_INVALIDARG, "A duration needs a start and cannot be negative.");
    return put_End(start + minutes / kMinutesPerDay);
}

IDispatch* make_appointment(const SessionRef& session, LONG oid, RowRef row) {
    return static_cast<IAppointment*>(new (std::nothrow) Appointment(session, olFolderCalendar, oid, std::move(row)));
}

}  // namespace zr::platform::pim
