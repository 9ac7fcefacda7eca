#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/windowing.h"
#include "window_access.h"

using namespace zr::platform;

namespace {

BOOL report(DWORD error) {
    if (error) SetLastError(error);
    return error ? FALSE : TRUE;
}

}  // namespace

BOOL PostMessageW(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    cancellation_point();
    const MSG posted{window, message, wparam, lparam, GetTickCount(), {0, 0}};
    if (!window || own_window(window)) {
        MessageQueue* own = MessageQueue::current();
        return own ? report(own->post(posted)) : FALSE;
    }
    // Under the lock the window cannot go, so that no message is left behind for it.
    Desktop& desktop = Desktop::get();
    const std::shared_lock guard(desktop.lock);
    const Window* found = desktop.table.find(window);
    return report(found ? found->queue->post(posted) : ERROR_INVALID_WINDOW_HANDLE);
}

BOOL PostThreadMessageW(DWORD thread, UINT message, WPARAM wparam, LPARAM lparam) {
    cancellation_point();
    // The caller has a queue from now on, and may mean itself.
    if (!MessageQueue::current()) return FALSE;
    return report(MessageQueue::post_to_thread(thread, MSG{nullptr, message, wparam, lparam, GetTickCount(), {0, 0}}));
}

void PostQuitMessage(int exit_code) {
    if (MessageQueue* queue = MessageQueue::current()) queue->quit(exit_code);
}
