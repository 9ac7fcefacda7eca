#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/windowing.h"
#include "window_access.h"
#include "windowing/post_room.h"

using namespace zr::platform;

namespace {

BOOL report(DWORD error) {
    if (error) SetLastError(error);
    return error ? FALSE : TRUE;
}

// Under the desktop's lock the window cannot go, so that no message is left behind for it. 0 or the error.
DWORD post(const MSG& message, RoomWaiter* waiter) {
    Desktop& desktop = Desktop::get();
    const std::shared_lock guard(desktop.lock);
    const Window* found = desktop.table.find(message.hwnd);
    return found ? found->queue->post(message, waiter) : ERROR_INVALID_WINDOW_HANDLE;
}

}  // namespace

namespace zr::platform {

Posted post_or_wait(HWND window, UINT message, WPARAM wparam, LPARAM lparam, RoomWaiter& waiter) noexcept {
    forget_room(waiter);
    switch (post({window, message, wparam, lparam, GetTickCount(), {0, 0}}, &waiter)) {
        case ERROR_SUCCESS:
            return Posted::Yes;
        case ERROR_NOT_ENOUGH_QUOTA:
            return Posted::Full;
        case ERROR_NOT_ENOUGH_MEMORY:
            return Posted::Later;
        default:
            return Posted::Gone;
    }
}

}  // namespace zr::platform

BOOL PostMessageW(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    cancellation_point();
    const MSG posted{window, message, wparam, lparam, GetTickCount(), {0, 0}};
    if (!window || own_window(window)) {
        MessageQueue* own = MessageQueue::current();
        return own ? report(own->post(posted)) : FALSE;
    }
    return report(post(posted, nullptr));
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
