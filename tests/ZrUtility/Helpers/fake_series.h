#pragma once

// A series of appointments of which every step can be made to fail, and the application that it is in.

#include <map>
#include <string>
#include <vector>

#include "platform/pim.h"

namespace zr::test {

struct SeriesWorld {
    std::map<std::string, HRESULT> results;  // by name of the step; what is missing succeeds
    std::vector<DATE> deleted;
    std::vector<DATE> changed;  // behind the deleted ones
    LONG occurrences = 5;
    DATE asked = 0;  // of GetOccurrence
    DATE start = 0;
    int alive = 0;
    int exceptions_read = 0;

    HRESULT step(const char* name) {
        const auto found = results.find(name);
        return found == results.end() ? S_OK : found->second;
    }
};

#define ZR_FAKE_FIELD(type, name)        \
    HRESULT get_##name(type*) override { \
        return E_NOTIMPL;                \
    }                                    \
    HRESULT put_##name(type) override {  \
        return E_NOTIMPL;                \
    }
#define ZR_FAKE_CALL(name, ...)          \
    HRESULT name(__VA_ARGS__) override { \
        return E_NOTIMPL;                \
    }

template <class Face>
class FakeObject : public Face {
public:
    explicit FakeObject(SeriesWorld& world) : world_(world) { ++world_.alive; }
    HRESULT QueryInterface(REFIID, void** object) override {
        *object = nullptr;
        const HRESULT result = world_.step("QueryInterface");
        if (SUCCEEDED(result)) {
            *object = this;
            AddRef();
        }
        return result;
    }
    ULONG AddRef() override { return ++count_; }
    ULONG Release() override {
        const ULONG left = --count_;
        if (left == 0) delete this;
        return left;
    }
    ZR_FAKE_CALL(GetTypeInfoCount, UINT*)
    ZR_FAKE_CALL(GetTypeInfo, UINT, LCID, ITypeInfo**)
    ZR_FAKE_CALL(GetIDsOfNames, REFIID, LPOLESTR*, UINT, LCID, DISPID*)
    ZR_FAKE_CALL(Invoke, DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*)

protected:
    virtual ~FakeObject() { --world_.alive; }
    template <class T>
    HRESULT give(const char* name, T* object, T** out) {
        *out = nullptr;
        const HRESULT result = world_.step(name);
        if (SUCCEEDED(result))
            *out = object;
        else
            object->Release();
        return result;
    }
    SeriesWorld& world_;

private:
    ULONG count_ = 1;
};

class FakeAppointment final : public FakeObject<IAppointment> {
public:
    using FakeObject::FakeObject;
    ZR_FAKE_FIELD(VARIANT_BOOL, AllDayEvent)
    ZR_FAKE_FIELD(LONG, BusyStatus)
    ZR_FAKE_FIELD(BSTR, Categories)
    ZR_FAKE_FIELD(LONG, Duration)
    ZR_FAKE_FIELD(DATE, End)
    ZR_FAKE_FIELD(BSTR, Location)
    ZR_FAKE_FIELD(LONG, MeetingStatus)
    ZR_FAKE_FIELD(LONG, ReminderMinutesBeforeStart)
    ZR_FAKE_FIELD(LONG, ReminderOptions)
    ZR_FAKE_FIELD(VARIANT_BOOL, ReminderSet)
    ZR_FAKE_FIELD(BSTR, ReminderSoundFile)
    ZR_FAKE_FIELD(LONG, Sensitivity)
    HRESULT get_Start(DATE* date) override {
        *date = world_.start;
        return S_OK;
    }
    ZR_FAKE_CALL(put_Start, DATE)
    ZR_FAKE_FIELD(BSTR, Subject)
    ZR_FAKE_FIELD(BSTR, Body)
    ZR_FAKE_CALL(get_IsRecurring, VARIANT_BOOL*)
    HRESULT GetRecurrencePattern(IRecurrencePattern** pattern) override;
    ZR_FAKE_CALL(ClearRecurrencePattern)
    ZR_FAKE_CALL(get_Recipients, IRecipients**)
    ZR_FAKE_CALL(Save)
    ZR_FAKE_CALL(Delete)
    ZR_FAKE_CALL(Cancel)
    ZR_FAKE_CALL(Send)
    ZR_FAKE_CALL(Copy, IAppointment**)
    ZR_FAKE_CALL(Display)
    ZR_FAKE_CALL(get_Oid, LONG*)
    ZR_FAKE_CALL(get_Application, IPOutlookApp**)
};

class FakeException final : public FakeObject<IException> {
public:
    FakeException(SeriesWorld& world, DATE date, bool deleted) : FakeObject(world), date_(date), deleted_(deleted) {}
    HRESULT get_AppointmentItem(IAppointment** appointment) override {
        return give<IAppointment>("get_AppointmentItem", new FakeAppointment(world_), appointment);
    }
    HRESULT get_Deleted(VARIANT_BOOL* deleted) override {
        *deleted = deleted_ ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    }
    HRESULT get_OriginalDate(DATE* date) override {
        *date = date_;
        return world_.step("get_OriginalDate");
    }
    ZR_FAKE_CALL(get_Application, IPOutlookApp**)

private:
    DATE date_;
    bool deleted_;
};

class FakeExceptions final : public FakeObject<IExceptions> {
public:
    using FakeObject::FakeObject;
    HRESULT get_Count(INT* count) override {
        *count = static_cast<INT>(world_.deleted.size() + world_.changed.size());
        return S_OK;
    }
    HRESULT Item(INT index, IException** exception) override {
        ++world_.exceptions_read;
        const auto at = static_cast<std::size_t>(index - 1);
        const std::size_t gone = world_.deleted.size();
        const bool deleted = at < gone;
        const DATE date = deleted ? world_.deleted[at] : world_.changed[at - gone];
        return give<IException>("Item", new FakeException(world_, date, deleted), exception);
    }
    ZR_FAKE_CALL(get_Application, IPOutlookApp**)
};

class FakePattern final : public FakeObject<IRecurrencePattern> {
public:
    using FakeObject::FakeObject;
    ZR_FAKE_FIELD(LONG, RecurrenceType)
    ZR_FAKE_FIELD(DATE, PatternStartDate)
    ZR_FAKE_FIELD(DATE, StartTime)
    ZR_FAKE_FIELD(DATE, EndTime)
    ZR_FAKE_FIELD(DATE, PatternEndDate)
    ZR_FAKE_FIELD(VARIANT_BOOL, NoEndDate)
    HRESULT get_Occurrences(LONG* count) override {
        *count = world_.occurrences;
        return S_OK;
    }
    ZR_FAKE_CALL(put_Occurrences, LONG)
    ZR_FAKE_FIELD(LONG, Interval)
    ZR_FAKE_FIELD(LONG, DayOfWeekMask)
    ZR_FAKE_FIELD(LONG, DayOfMonth)
    ZR_FAKE_FIELD(LONG, Instance)
    ZR_FAKE_FIELD(LONG, MonthOfYear)
    ZR_FAKE_FIELD(LONG, Duration)
    HRESULT get_Exceptions(IExceptions** exceptions) override {
        return give<IExceptions>("get_Exceptions", new FakeExceptions(world_), exceptions);
    }
    HRESULT GetOccurrence(DATE date, IAppointment** occurrence) override {
        world_.asked = date;
        return give<IAppointment>("GetOccurrence", new FakeAppointment(world_), occurrence);
    }
    ZR_FAKE_CALL(get_Application, IPOutlookApp**)
};

inline HRESULT FakeAppointment::GetRecurrencePattern(IRecurrencePattern** pattern) {
    return give<IRecurrencePattern>("GetRecurrencePattern", new FakePattern(world_), pattern);
}

class FakeApplication final : public FakeObject<IPOutlookApp> {
public:
    using FakeObject::FakeObject;
    ZR_FAKE_CALL(Logon, HWND)
    ZR_FAKE_CALL(Logoff)
    ZR_FAKE_CALL(get_Version, BSTR*)
    ZR_FAKE_CALL(GetDefaultFolder, OlDefaultFolders, IFolder**)
    ZR_FAKE_CALL(CreateItem, OlItemType, IDispatch**)
    HRESULT GetItemFromOid(LONG, IDispatch** item) override {
        return give<IDispatch>("GetItemFromOid", new FakeAppointment(world_), item);
    }
    ZR_FAKE_CALL(get_HomeCity, ICity**)
    ZR_FAKE_CALL(put_HomeCity, ICity*)
    ZR_FAKE_CALL(get_Application, IPOutlookApp**)
    ZR_FAKE_CALL(get_OutlookCompatible, VARIANT_BOOL*)
    ZR_FAKE_CALL(GetTimeZoneFromIndex, INT, ITimeZone**)
    ZR_FAKE_CALL(GetTimeZoneInformationFromIndex, INT, void*)
    ZR_FAKE_CALL(SysFreeString, BSTR)
    ZR_FAKE_CALL(VariantTimeToSystemTime, DATE, SYSTEMTIME*)
    ZR_FAKE_CALL(SystemTimeToVariantTime, const SYSTEMTIME*, DATE*)
    ZR_FAKE_CALL(get_CurrentCityIndex, INT*)
    ZR_FAKE_CALL(put_CurrentCityIndex, INT)
    ZR_FAKE_CALL(ReceiveFromInfrared)
};

#undef ZR_FAKE_FIELD
#undef ZR_FAKE_CALL

}  // namespace zr::test
