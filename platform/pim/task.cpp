#include "item_makers.h"
#include "item_object.h"
#include "ole_date.h"

namespace zr::platform::pim {

// A task; completing it notes the day.
class Task final : public ItemObject<ITask, IID_ITask> {
public:
    using ItemObject::ItemObject;

    ZRPIM_FIELD(BSTR, Categories)
    ZRPIM_FIELD(DATE, StartDate)
    ZRPIM_FIELD(DATE, DueDate)
    ZRPIM_FIELD(LONG, Importance)
    ZRPIM_FIELD(LONG, ReminderOptions)
    ZRPIM_FIELD(VARIANT_BOOL, ReminderSet)
    ZRPIM_FIELD(BSTR, ReminderSoundFile)
    ZRPIM_FIELD(DATE, ReminderTime)
    ZRPIM_FIELD(LONG, Sensitivity)
    ZRPIM_FIELD(BSTR, Subject)
    ZRPIM_FIELD(VARIANT_BOOL, TeamTask)
    ZRPIM_FIELD(BSTR, Body)

    HRESULT get_Complete(VARIANT_BOOL* complete) override { return this->get(field::Complete, complete); }
    HRESULT put_Complete(VARIANT_BOOL complete) override {
        const HRESULT result = this->put(field::Complete, complete);
        if (FAILED(result)) return result;
        return this->put(field::DateCompleted, complete != VARIANT_FALSE ? today() : ZR_PIM_NO_DATE);
    }
    HRESULT get_DateCompleted(DATE* date) override { return this->get(field::DateCompleted, date); }
    HRESULT get_IsRecurring(VARIANT_BOOL* recurring) override {
        if (recurring == nullptr) return fail(E_POINTER);
        *recurring = VARIANT_FALSE;
        return S_OK;
    }
    HRESULT GetRecurrencePattern(IRecurrencePattern** pattern) override {
        return cleared(pattern) ? fail(E_NOTIMPL) : fail(E_POINTER);
    }
    HRESULT ClearRecurrencePattern() override { return S_OK; }
    HRESULT SkipRecurrence() override { return fail(E_NOTIMPL); }
};

IDispatch* make_task(const SessionRef& session, Given&& given) {
    return static_cast<ITask*>(new (std::nothrow) Task(session, olFolderTasks, std::move(given)));
}

}  // namespace zr::platform::pim
