#include "zr/base/event_loop.h"

#include <platform/platform.h>

#include "zr/base/failure.h"

namespace zr {
namespace {

void handle_messages() {
    MSG message;
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
        DispatchMessageW(&message);
    }
}

}  // namespace

EventLoop::EventLoop() : end_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    sigemptyset(&signals_);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals_, signal);
    }
    // Threads that are made from here on have the signals blocked too, so that only ours takes them.
    pthread_sigmask(SIG_BLOCK, &signals_, &before_);
    thread_ = std::thread([this] {
        int signal = 0;
        sigwait(&signals_, &signal);
        SetEvent(end_);
    });
}

EventLoop::~EventLoop() {
    // The thread waits for the signal: it does not end the process.
    if (WaitForSingleObject(end_, 0) != WAIT_OBJECT_0)
        pthread_kill(thread_.native_handle(), SIGTERM);  // NOLINT(bugprone-bad-signal-to-kill-thread)
    thread_.join();
    CloseHandle(end_);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

std::optional<std::size_t> EventLoop::wait(const std::vector<HANDLE>& events) {
    std::vector<HANDLE> handles = {end_};
    handles.insert(handles.end(), events.begin(), events.end());
    const auto count = static_cast<DWORD>(handles.size());
    const DWORD woken = MsgWaitForMultipleObjectsEx(count, handles.data(), INFINITE, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
    if (woken == WAIT_OBJECT_0) return std::nullopt;
    if (woken > WAIT_OBJECT_0 + count) throw Failure{Exit::StoreFailed, "waiting for changes failed"};
    if (woken == WAIT_OBJECT_0 + count) handle_messages();
    return woken - WAIT_OBJECT_0 - 1;
}

}  // namespace zr
