#pragma once

// Staying until asked to end: waits for events and for window messages, which it handles.

#include <platform/types.h>
#include <pthread.h>

#include <csignal>
#include <optional>
#include <thread>
#include <vector>

namespace zr {

// From here on SIGINT, SIGTERM and SIGHUP ask the program to end. Make it before other threads, which then leave these
// signals to it. Messages are those of the thread that calls wait().
class EventLoop {
public:
    EventLoop();
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // Returns the place of an event that was set, or their number when messages were handled; nothing when the program
    // is asked to end. Throws Failure.
    std::optional<std::size_t> wait(const std::vector<HANDLE>& events);

private:
    HANDLE end_;
    sigset_t signals_;
    sigset_t before_;
    std::thread thread_;
};

}  // namespace zr
