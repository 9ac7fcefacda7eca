#include "platform/notify.h"

#include <new>
#include <string_view>

#include "base/fail.h"
#include "kernel/thread.h"
#include "platform/base.h"
#include "time_watch.h"

using namespace zr::platform;

namespace {

constexpr std::u16string_view kPrefix = NAMED_EVENT_PREFIX_TEXT;

// The changes of the time that are a system event; 0 for what is not offered.
unsigned changes_of(LONG system_event) {
    switch (system_event) {
        case NOTIFICATION_EVENT_TIME_CHANGE:
            return TimeWatch::kClock | TimeWatch::kZone;
        case NOTIFICATION_EVENT_TZ_CHANGE:
            return TimeWatch::kZone;
        default:
            return 0;
    }
}

// The name of the event; false, with the reason as last error, when the text is no path of one.
bool event_name(LPCWSTR application, std::u16string_view& name) {
    if (application == nullptr) return fail(ERROR_INVALID_PARAMETER, false);
    if (_wcsnicmp(application, kPrefix.data(), kPrefix.size()) != 0) return fail(ERROR_NOT_SUPPORTED, false);
    name = application + kPrefix.size();
    return (!name.empty() && name.size() < MAX_PATH) || fail(ERROR_INVALID_PARAMETER, false);
}

bool add(std::u16string_view name, LONG system_event) {
    if (system_event < NOTIFICATION_EVENT_NONE || system_event > NOTIFICATION_EVENT_LAST) {
        return fail(ERROR_INVALID_PARAMETER, false);
    }
    const unsigned changes = changes_of(system_event);
    if (changes == 0) return fail(ERROR_NOT_SUPPORTED, false);
    const DWORD error = TimeWatch::instance().add(name, changes);
    return error == 0 || fail(error, false);
}

}  // namespace

BOOL CeRunAppAtEvent(LPCWSTR application, LONG system_event) {
    cancellation_point();
    std::u16string_view name;
    if (!event_name(application, name)) return FALSE;
    try {
        if (system_event != NOTIFICATION_EVENT_NONE) return add(name, system_event) ? TRUE : FALSE;
        TimeWatch::instance().remove(name);
        return TRUE;
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
}
