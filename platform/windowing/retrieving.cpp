#include "base/forks.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/windowing.h"
#include "window_access.h"

using namespace zr::platform;

namespace {

bool is_thread_filter(HWND window) {
    return !window || reinterpret_cast<LONG_PTR>(window) == -1;
}

// Everything that can be done before a message of these kinds is looked for.
void prepare(MessageQueue& queue, DWORD kinds) {
    resume_after_fork();
    if (kinds & QS_SENDMESSAGE) queue.serve_sent();
    queue.expire_timers();
    queue.looked(kinds);
}

// What a look counts as having looked at. A filter passes over messages, which the one bit remembers.
DWORD looked_at(DWORD kinds, HWND window, UINT first, UINT last) {
    const bool all = !window && first == 0 && last == 0 && (kinds & QS_POSTMESSAGE);
    return all ? kinds | QS_ALLPOSTMESSAGE : kinds & ~QS_ALLPOSTMESSAGE;
}

// Waits until something has arrived since the last look, or has been sent. What was sent is handled by the next
// prepare(), and the queue searched again: the procedure may have looked at what this wait is for.
void wait_for_input(MessageQueue& queue) {
    queue.want(MessageQueue::arrived(QS_POSTMESSAGE | QS_TIMER) | QS_SENDMESSAGE);
    zr::platform::wait(queue, Deadline{queue.timers().next_due()});
}

}  // namespace

BOOL PeekMessageW(MSG* message, HWND window, UINT first, UINT last, UINT remove) {
    cancellation_point();
    MessageQueue* queue = MessageQueue::current();
    if (!queue) return FALSE;
    if (!message) {
        SetLastError(ERROR_NOACCESS);
        return FALSE;
    }
    if (!is_thread_filter(window) && !IsWindow(window)) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return FALSE;
    }
    const DWORD asked = remove >> 16;
    const DWORD kinds = asked ? asked : QS_ALLINPUT;
    prepare(*queue, looked_at(kinds, window, first, last));
    return queue->find({window, first, last}, kinds, (remove & PM_REMOVE) != 0, *message) ? TRUE : FALSE;
}

BOOL GetMessageW(MSG* message, HWND window, UINT first, UINT last) {
    cancellation_point();
    MessageQueue* queue = MessageQueue::current();
    if (!queue) return -1;
    if (!message) {
        SetLastError(ERROR_NOACCESS);
        return -1;
    }
    const DWORD kinds = looked_at(QS_ALLINPUT, window, first, last);
    for (;;) {
        prepare(*queue, kinds);
        // The window may go while its thread waits for its messages; then none will come any more.
        if (!is_thread_filter(window) && !own_window(window)) {
            SetLastError(IsWindow(window) ? ERROR_WINDOW_OF_OTHER_THREAD : ERROR_INVALID_WINDOW_HANDLE);
            return -1;
        }
        if (queue->find({window, first, last}, kinds, true, *message)) return message->message == WM_QUIT ? 0 : 1;
        wait_for_input(*queue);
    }
}

BOOL WaitMessage() {
    return MsgWaitForMultipleObjectsEx(0, nullptr, INFINITE, QS_ALLINPUT, 0) == WAIT_OBJECT_0 ? TRUE : FALSE;
}

LRESULT DispatchMessageW(const MSG* message) {
    cancellation_point();
    if (!message) {
        SetLastError(ERROR_NOACCESS);
        return 0;
    }
    if (message->message == WM_TIMER && message->lParam != 0) {
        reinterpret_cast<TIMERPROC>(message->lParam)(message->hwnd, WM_TIMER, message->wParam, GetTickCount());
        return 0;
    }
    if (!message->hwnd) return 0;
    const Window* own = own_window(message->hwnd);
    if (!own) {
        SetLastError(IsWindow(message->hwnd) ? ERROR_WINDOW_OF_OTHER_THREAD : ERROR_INVALID_WINDOW_HANDLE);
        return 0;
    }
    return call_procedure(own->procedure.load(std::memory_order_acquire), message->hwnd, message->message,
                          message->wParam, message->lParam);
}

BOOL TranslateMessage(const MSG*) {
    return FALSE;
}

DWORD GetQueueStatus(UINT flags) {
    MessageQueue* queue = MessageQueue::current();
    if (!queue) return 0;
    if (flags & ~MessageQueue::kKinds) {
        SetLastError(ERROR_INVALID_FLAGS);
        return 0;
    }
    queue->expire_timers();
    const std::uint32_t kinds = flags;
    const std::uint32_t bits = queue->clear_bits(MessageQueue::arrived(kinds));
    return (bits & kinds) << 16 | (bits >> 16 & kinds);
}

int ZrGetQueueDescriptor() {
    resume_after_fork();
    MessageQueue* queue = MessageQueue::current();
    if (!queue) return -1;
    const int descriptor = queue->descriptor();
    if (descriptor < 0) SetLastError(ERROR_TOO_MANY_OPEN_FILES);
    return descriptor;
}
