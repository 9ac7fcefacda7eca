// The occurrences of WindowsUtilities: from a series and a time to one of its appointments.

#include <cmath>
#include <memory>

#include "ZrUtility/Helpers/WindowsUtilities.h"
#include "ZrUtility/Helpers/windows_utilities_log.h"
#include "platform/base.h"

namespace {

enum Result : int {
    UNDECIDED = 0,
    NO_PATTERN = 101,
    FOUND = 102,
    FAILED_TO_FIND = 103,
};

struct Releaser {
    void operator()(IUnknown* object) const { object->Release(); }
};
template <typename T>
using Held = std::unique_ptr<T, Releaser>;

void LogFailure(int line, HRESULT result) {
    const DWORD error = GetLastError();
    zrKelDebugBinLog2(WINDOWS_UTILITIES_LOG_SOURCE, line, WINDOWS_UTILITIES_LOG_FAILURE, static_cast<ULONG>(result),
                      error);
}

void LogFound(int line, LONG oid) {
    zrKelDebugBinLog1(WINDOWS_UTILITIES_LOG_SOURCE, line, WINDOWS_UTILITIES_LOG_INFORMATION, static_cast<ULONG>(oid));
}

Held<IRecurrencePattern> PatternOf(IDispatch* item) {
    void* appointment = nullptr;
    HRESULT result = item->QueryInterface(IID_IAppointment, &appointment);
    if (FAILED(result)) {
        LogFailure(__LINE__, result);
        return nullptr;
    }
    const Held<IAppointment> parent(static_cast<IAppointment*>(appointment));
    IRecurrencePattern* pattern = nullptr;
    result = parent->GetRecurrencePattern(&pattern);
    if (FAILED(result)) LogFailure(__LINE__, result);
    return Held<IRecurrencePattern>(FAILED(result) ? nullptr : pattern);
}

// What the exceptions say about the day: the appointment of the one that replaces its occurrence, a failure, or
// nothing. `deleted` counts those met on the way that only take an occurrence away.
Result LookAtExceptions(IExceptions* exceptions, double day, LONG& deleted, IAppointment** out) {
    INT count = 0;
    exceptions->get_Count(&count);
    for (INT i = 1; i <= count; ++i) {
        IException* each = nullptr;
        if (FAILED(exceptions->Item(i, &each))) continue;
        const Held<IException> exception(each);
        VARIANT_BOOL isDeleted = VARIANT_FALSE;
        DATE original = 0;
        exception->get_Deleted(&isDeleted);
        if (isDeleted != VARIANT_FALSE) {
            ++deleted;
            continue;
        }
        if (FAILED(exception->get_OriginalDate(&original)) || original != day) continue;
        const HRESULT result = exception->get_AppointmentItem(out);
        if (SUCCEEDED(result)) return FOUND;
        LogFailure(__LINE__, result);
        return FAILED_TO_FIND;
    }
    return UNDECIDED;
}

}  // namespace

int WindowsUtilities::GetChildAppointmentFromParent(IPOutlookApp* app, LONG oid, FILETIME* instance,
                                                    IAppointment** out) {
    *out = nullptr;
    IDispatch* object = nullptr;
    HRESULT result = app->GetItemFromOid(oid, &object);
    if (FAILED(result)) {
        LogFailure(__LINE__, result);
        return FAILED_TO_FIND;
    }
    const Held<IDispatch> item(object);
    const Held<IRecurrencePattern> pattern = PatternOf(object);
    if (!pattern) return NO_PATTERN;
    double local = 0;
    FileTimeToLocalVariantTime(instance, &local);
    IExceptions* all = nullptr;
    result = pattern->get_Exceptions(&all);
    if (FAILED(result)) {
        LogFailure(__LINE__, result);
        return NO_PATTERN;
    }
    const Held<IExceptions> exceptions(all);
    LONG occurrences = 0;
    pattern->get_Occurrences(&occurrences);
    LONG deleted = 0;
    const Result found = LookAtExceptions(all, std::floor(local), deleted, out);
    if (found == FOUND) LogFound(__LINE__, oid);
    if (found != UNDECIDED) return found;
    if (deleted == occurrences) {
        LogFailure(__LINE__, S_FALSE);
        return FAILED_TO_FIND;
    }
    result = pattern->GetOccurrence(local, out);
    if (FAILED(result)) LogFailure(__LINE__, result);
    return FAILED(result) ? FAILED_TO_FIND : FOUND;
}

FILETIME WindowsUtilities::getRecurrenceId(IAppointment* parent, IException* exception) {
    DATE start = 0;
    DATE original = 0;
    parent->get_Start(&start);
    exception->get_OriginalDate(&original);
    double local = original + (start - std::floor(start));
    FILETIME utc{};
    LocalVariantTimeToFileTime(local, &utc);
    return utc;
}
