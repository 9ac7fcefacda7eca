#include <algorithm>
#include <new>

#include "platform/base.h"
#include "platform/windowing.h"
#include "window_access.h"

using namespace zr::platform;

UINT_PTR SetTimer(HWND window, UINT_PTR timer, UINT elapse, TIMERPROC procedure) {
    cancellation_point();
    MessageQueue* queue = MessageQueue::current();
    if (!queue) return 0;
    if (window && !own_window(window)) {
        SetLastError(IsWindow(window) ? ERROR_WINDOW_OF_OTHER_THREAD : ERROR_INVALID_WINDOW_HANDLE);
        return 0;
    }
    constexpr std::int64_t kMillisecond = 1'000'000;
    const std::int64_t period = std::clamp(elapse, USER_TIMER_MINIMUM, USER_TIMER_MAXIMUM) * kMillisecond;
    TimerSet& timers = queue->timers();
    if (!window && !timers.has(nullptr, timer)) timer = timers.fresh_id();
    queue->leave_shown_message(window, timer);
    try {
        timers.set(window, timer, period, procedure, Deadline::now());
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }
    queue->timers_changed();
    return timer ? timer : 1;
}

BOOL KillTimer(HWND window, UINT_PTR timer) {
    MessageQueue* queue = MessageQueue::existing();
    if (window && !own_window(window)) {
        SetLastError(IsWindow(window) ? ERROR_WINDOW_OF_OTHER_THREAD : ERROR_INVALID_WINDOW_HANDLE);
        return FALSE;
    }
    if (queue) queue->leave_shown_message(window, timer);
    if (!queue || !queue->timers().kill(window, timer)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    queue->timers_changed();
    return TRUE;
}
