#include "time_watch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <new>
#include <thread>

#include "base/host_error.h"
#include "base/host_fd.h"
#include "base/signal_block.h"
#include "current_zone.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "zone_file.h"

namespace zr::platform {

namespace {

// How long another process may take to set an event.
constexpr int kOthersMilliseconds = 200;

void set_event(const std::u16string& name) {
    const HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, name.c_str());
    if (event == nullptr) return;  // nobody waits for it now
    SetEvent(event);
    CloseHandle(event);
}

}  // namespace

TimeWatch& TimeWatch::instance() {
    struct EndAtExit {
        TimeWatch& watch;
        ~EndAtExit() {
            const std::lock_guard control(watch.control_);
            watch.exiting_ = true;
            watch.stop();
        }
    };
    static TimeWatch& watch = *new TimeWatch;
    static const EndAtExit end{watch};
    return watch;
}

DWORD TimeWatch::Sources::open() {
    DWORD error = clock.open();
    if (error == 0) error = zone.open(zone_file());
    const char* const pretended_file = std::getenv("ZR_CLOCK_CHANGES");
    if (error == 0 && pretended_file != nullptr) error = pretended.open(pretended_file, IN_CLOSE_WRITE | IN_MOVED_TO);
    return error;
}

DWORD TimeWatch::add(std::u16string_view event, unsigned changes) {
    const std::lock_guard control(control_);
    forget_parent();
    const std::lock_guard lock(mutex_);
    for (const auto& known : registrations_) {
        if (known->event != event) continue;
        known->changes |= changes;
        return 0;
    }
    auto added = std::make_unique<Registration>(event, changes);
    registrations_.reserve(registrations_.size() + 1);
    const DWORD error = running_ ? 0 : start();
    if (error == 0) registrations_.push_back(std::move(added));
    return error;
}

void TimeWatch::remove(std::u16string_view event) {
    const std::lock_guard control(control_);
    forget_parent();
    bool last = false;
    {
        const std::lock_guard lock(mutex_);
        std::erase_if(registrations_, [event](const auto& known) { return known->event == event; });
        last = registrations_.empty();
    }
    if (last) stop();
}

// The registrations of a process are not those of its children, and neither is its thread.
void TimeWatch::forget_parent() {
    if (!running_ || process_ == getpid()) return;
    running_ = false;
    close(stop_);
    sources_.reset();
    registrations_.clear();
}

DWORD TimeWatch::start() {
    if (exiting_) return ERROR_NOT_READY;
    auto sources = std::make_unique<Sources>();
    if (const DWORD error = sources->open(); error != 0) return error;
    stop_ = above_standard(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (stop_ < 0) return error_from_errno(errno);
    sources_ = std::move(sources);
    int error = 0;
    {
        const SignalBlock no_signals;
        error = pthread_create(&thread_, nullptr, run, this);
    }
    if (error != 0) {
        close(stop_);
        sources_.reset();
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    process_ = getpid();
    running_ = true;
    return 0;
}

void TimeWatch::stop() {
    if (!running_ || process_ != getpid()) return;
    const std::uint64_t one = 1;
    static_cast<void>(!write(stop_, &one, sizeof one));
    pthread_join(thread_, nullptr);
    running_ = false;
    close(stop_);
    sources_.reset();
}

void* TimeWatch::run(void* self) {
    pthread_setname_np(pthread_self(), "zr-time-watch");
    static_cast<TimeWatch*>(self)->work();
    return nullptr;
}

void TimeWatch::work() {
    pollfd files[] = {{stop_, POLLIN, 0},
                      {sources_->clock.descriptor(), POLLIN, 0},
                      {sources_->zone.descriptor(), POLLIN, 0},
                      {sources_->pretended.descriptor(), POLLIN, 0}};
    bool others = false;
    for (;;) {
        const int ready = poll(files, std::size(files), others ? kOthersMilliseconds : -1);
        if (ready < 0 && errno != EINTR) return;
        if (ready > 0 && files[0].revents != 0) return;
        if (ready > 0) read_sources();
        others = finish_for_others(ready == 0);
    }
}

void TimeWatch::read_sources() {
    bool clock = sources_->clock.read_change();
    bool zone = true;  // if there is no memory for looking
    try {
        clock = (sources_->pretended.descriptor() >= 0 && sources_->pretended.read_changes()) || clock;
        zone = sources_->zone.read_change();
    } catch (const std::bad_alloc&) {
    }
    if (clock) announce(TimeChange::Clock);
    if (!zone) return;
    // Whoever is told asks for the zone at once, in any process, and is to get the new one.
    std::this_thread::sleep_for(std::chrono::milliseconds(kZoneFreshMilliseconds));
    announce(TimeChange::Zone);
}

void TimeWatch::announce(TimeChange change) {
    const std::lock_guard lock(mutex_);
    for (const auto& each : registrations_) {
        if ((each->changes & 1u << static_cast<unsigned>(change)) == 0 || !each->announcement.claim(change)) continue;
        set_event(each->event);
        each->announcement.done(change);
    }
}

// Sets what other processes were going to set and did not. True while that is not known of some.
bool TimeWatch::finish_for_others(bool waited) {
    const std::lock_guard lock(mutex_);
    bool open = false;
    for (const auto& each : registrations_) {
        for (const TimeChange change : {TimeChange::Clock, TimeChange::Zone}) {
            if (!waited || !each->announcement.take_over(change)) continue;
            set_event(each->event);
            each->announcement.done(change);
        }
        open = open || each->announcement.is_open();
    }
    return open;
}

}  // namespace zr::platform
