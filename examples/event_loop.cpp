// A program that lives from an epoll loop of its own and owns windows too.
//
// ZrGetQueueDescriptor() is readable while the thread's message queue has something to do, timers included. So the
// loop polls it like any other descriptor, and then takes messages until there are none.
//
// A GLib program does the same with g_unix_fd_add(ZrGetQueueDescriptor(), G_IO_IN, callback, nullptr) and a callback
// that calls pump(), a Qt program with a QSocketNotifier.

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <thread>

#include "platform/platform.h"

namespace {

constexpr UINT kGreeting = WM_APP + 1;
constexpr UINT_PTR kTimer = 1;

// The window's procedure: called from pump(), on the thread of the loop.
LRESULT on_message(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    static int ticks = 0;
    static bool greeted = false;
    switch (message) {
        case kGreeting:
            std::printf("a thread says %d\n", static_cast<int>(wparam));
            greeted = true;
            return static_cast<LRESULT>(2 * wparam);
        case WM_TIMER:
            std::printf("tick %d\n", ++ticks);
            if (ticks >= 3 && greeted) PostQuitMessage(0);
            return 0;
        default:
            return DefWindowProcW(window, message, wparam, lparam);
    }
}

HWND make_window() {
    WNDCLASSW description{};
    description.lpfnWndProc = on_message;
    description.hInstance = GetModuleHandleW(nullptr);
    description.lpszClassName = u"example.event.loop";
    if (RegisterClassW(&description) == 0) return nullptr;
    return CreateWindowExW(0, description.lpszClassName, u"Event loop", 0, 0, 0, 0, 0, nullptr, nullptr,
                           description.hInstance, nullptr);
}

// Takes everything that is in the queue. The exit code once the program shall end.
std::optional<int> pump() {
    MSG message{};
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
        if (message.message == WM_QUIT) return static_cast<int>(message.wParam);
        DispatchMessageW(&message);
    }
    return {};
}

bool watch(int epoll, int descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

int run(int epoll, int queue, int other) {
    for (;;) {
        epoll_event event{};
        if (epoll_wait(epoll, &event, 1, -1) != 1) continue;
        if (event.data.fd == queue) {
            if (const std::optional<int> exit_code = pump()) return *exit_code;
        } else {
            eventfd_t count = 0;
            eventfd_read(other, &count);
            std::printf("the program's own descriptor counts %d\n", static_cast<int>(count));
        }
    }
}

}  // namespace

int main() {
    const HWND window = make_window();
    const int queue = ZrGetQueueDescriptor();
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    const int other = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (!window || queue < 0 || !watch(epoll, queue) || !watch(epoll, other)) {
        std::fprintf(stderr, "event_loop: cannot start: error %u\n", GetLastError());
        return 1;
    }
    SetTimer(window, kTimer, 20, nullptr);

    std::thread worker([window, other] {
        // Blocks until the loop's thread has handled the message.
        const LRESULT answer = SendMessageW(window, kGreeting, 21, 0);
        std::printf("and is told %d\n", static_cast<int>(answer));
        eventfd_write(other, 7);
    });
    const int exit_code = run(epoll, queue, other);

    DestroyWindow(window);  // a sender that still waits gets 0
    worker.join();
    close(other);
    close(epoll);
    return exit_code;
}
