#pragma once

#include "item_object.h"
#include "series.h"

namespace zr::platform::pim {

// An appointment, a series or an occurrence of one. Its duration is the distance between start and end.
class Appointment final : public ItemObject<IAppointment, IID_IAppointment>, public IZrOccurrence {
public:
    using ItemObject::ItemObject;

    HRESULT QueryInterface(REFIID riid, void** object) override;
    ULONG AddRef() override { return ItemObject::AddRef(); }
    ULONG Release() override { return ItemObject::Release(); }

    ZRPIM_FIELD(LONG, BusyStatus)
    ZRPIM_FIELD(BSTR, Categories)
    ZRPIM_FIELD(BSTR, Location)
    ZRPIM_FIELD(LONG, MeetingStatus)
    ZRPIM_FIELD(LONG, ReminderMinutesBeforeStart)
    ZRPIM_FIELD(LONG, ReminderOptions)
    ZRPIM_FIELD(VARIANT_BOOL, ReminderSet)
    ZRPIM_FIELD(BSTR, ReminderSoundFile)
    ZRPIM_FIELD(LONG, Sensitivity)
    ZRPIM_FIELD(BSTR, Subject)
    ZRPIM_FIELD(BSTR, Body)

    HRESULT get_AllDayEvent(VARIANT_BOOL* value) override { return get(field::AllDayEvent, value); }
    HRESULT put_AllDayEvent(VARIANT_BOOL value) override;
    HRESULT get_Duration(LONG* minutes) override;
    HRESULT put_Duration(LONG minutes) override;
    HRESULT get_End(DATE* date) override { return get(field::End, date); }
    HRESULT put_End(DATE date) override;
    HRESULT get_Start(DATE* date) override { return get(field::Start, date); }
    HRESULT put_Start(DATE date) override;
    HRESULT get_IsRecurring(VARIANT_BOOL* recurring) override;
    HRESULT GetRecurrencePattern(IRecurrencePattern** pattern) override;
    HRESULT ClearRecurrencePattern() override;
    HRESULT get_Recipients(IRecipients** recipients) override {
        return cleared(recipients) ? fail(E_NOTIMPL) : fail(E_POINTER);
    }
    HRESULT Save() override;
    HRESULT Cancel() override { return fail(E_NOTIMPL); }
    HRESULT Send() override { return fail(E_NOTIMPL); }

    HRESULT get_RecurrenceState(INT* state) override;
    HRESULT get_OriginalDate(DATE* date) override;
    HRESULT get_Series(IAppointment** series) override;

    // --- for its pattern; all of these may throw std::bad_alloc ---
    HRESULT series(Series& series);
    HRESULT put_rule(const Rule& rule);  // a valid one, or none
    HRESULT put_times(const Series& series);
    HRESULT exceptions(std::vector<ExceptionDay>& exceptions) { return state_.exceptions(exceptions); }
    HRESULT occurrence_on(Day day, IAppointment** occurrence);

private:
    ~Appointment() override = default;

    HRESULT put_when(const Values& fields);
    HRESULT is_series(bool& series);
    HRESULT settle_times();
    HRESULT make_occurrence(Day day, Values series, const ExceptionFields& exception, IAppointment** occurrence);
};

// The occurrence of the series `oid` on a day. May throw std::bad_alloc.
HRESULT find_occurrence(const SessionRef& session, LONG oid, Day day, IAppointment** occurrence);

}  // namespace zr::platform::pim
