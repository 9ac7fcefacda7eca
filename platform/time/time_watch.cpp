#include "time_watch.h"

#include <sys/inotify.h>

#include <algorithm>
#include <cstdlib>
#include <new>

#include "base/forks.h"
#include "current_zone.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "zone_file.h"

namespace zr::platform {

namespace {

// How long another process may take to set an event.
constexpr DWORD kOthersMilliseconds = 200;

void set_event(const std::u16string& name) {
    const HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, name.c_str());
    if (event == nullptr) return;  // nobody waits for it now
    SetEvent(event);
    CloseHandle(event);
}

alignas(TimeWatch) unsigned char watch_storage[sizeof(TimeWatch)];
TimeWatch& the_watch = *new (watch_storage) TimeWatch;

struct EndAtExit {
    ~EndAtExit() { the_watch.exit(); }
} end_at_exit;

}  // namespace

TimeWatch& TimeWatch::instance() noexcept {
    return the_watch;
}

DWORD TimeWatch::Sources::open() {
    DWORD error = clock.open();
    if (error == 0) error = zone.open(zone_file());
    const char* const pretended_file = std::getenv("ZR_CLOCK_CHANGES");
    if (error == 0 && pretended_file != nullptr) error = pretended.open(pretended_file, IN_CLOSE_WRITE | IN_MOVED_TO);
    return error;
}

DWORD TimeWatch::add(std::u16string_view event, unsigned changes) {
    resume_after_fork();
    const std::lock_guard control(control_);
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
    resume_after_fork();
    const std::lock_guard control(control_);
    bool last = false;
    {
        const std::lock_guard lock(mutex_);
        std::erase_if(registrations_, [event](const auto& known) { return known->event == event; });
        last = registrations_.empty();
    }
    if (last) stop();
}

void TimeWatch::exit() noexcept {
    const std::lock_guard control(control_);
    exiting_ = true;
    stop();
}

DWORD TimeWatch::start() {
    if (exiting_) return ERROR_NOT_READY;
    auto sources = std::make_unique<Sources>(*this);
    DWORD error = sources->open();
    if (error != 0) return error;
    sources_ = std::move(sources);
    error = watch_host(*this, sources_->clock.descriptor());
    if (error != 0) {
        sources_.reset();
        return error;
    }
    running_ = true;
    call_host_source(*this, Deadline::at_once());  // a file may have told before anybody listened
    return 0;
}

void TimeWatch::stop() noexcept {
    if (!running_) return;
    unwatch_host(*this);
    running_ = false;
    sources_.reset();
    zone_due_ = others_due_ = Deadline::never();
    clock_waits_ = false;
}

void TimeWatch::ready() noexcept {
    read_sources();
    if (zone_due_.ns <= Deadline::now()) {
        zone_due_ = Deadline::never();
        announce(TimeChange::Zone);
        if (std::exchange(clock_waits_, false)) announce(TimeChange::Clock);
    }
    finish_for_others();
    call_host_source(*this, std::min(zone_due_, others_due_));
}

void TimeWatch::read_sources() {
    bool clock = sources_->clock.read_change();
    bool zone = true;  // if there is no memory for looking
    try {
        clock = (sources_->pretended.is_open() && sources_->pretended.read_changes()) || clock;
        zone = sources_->zone.read_change();
        if (std::exchange(look_at_zone_, false)) zone = sources_->zone.look_for_change() || zone;
    } catch (const std::bad_alloc&) {
    }
    // What came first is told first.
    if (clock && zone_due_ != Deadline::never()) {
        clock_waits_ = true;
    } else if (clock) {
        announce(TimeChange::Clock);
    }
    // Whoever is told asks for the zone at once, in any process, and is to get the new one.
    if (zone) zone_due_ = Deadline::after(kZoneFreshMilliseconds);
}

void TimeWatch::announce(TimeChange change) {
    const std::lock_guard lock(mutex_);
    for (const auto& each : registrations_) {
        if ((each->changes & 1u << static_cast<unsigned>(change)) == 0) continue;
        if (!each->announcement.claim(change)) {
            if (each->announcement.is_open()) others_due_ = Deadline::after(kOthersMilliseconds);
            continue;
        }
        set_event(each->event);
        each->announcement.done(change);
    }
}

// Sets what other processes were going to set and did not.
void TimeWatch::finish_for_others() {
    if (others_due_.ns > Deadline::now()) return;
    others_due_ = Deadline::never();
    const std::lock_guard lock(mutex_);
    for (const auto& each : registrations_) {
        for (const TimeChange change : {TimeChange::Clock, TimeChange::Zone}) {
            if (!each->announcement.take_over(change)) continue;
            set_event(each->event);
            each->announcement.done(change);
        }
    }
}

// --- Forks

void TimeWatch::lock_all() noexcept {
    control_.lock();
    mutex_.lock();
}

void TimeWatch::unlock_all() noexcept {
    mutex_.unlock();
    control_.unlock();
}

void TimeWatch::begin_child() noexcept {
    inherited_ = inherited_ || running_;
    running_ = false;
    // The timer is the parent's: setting it here would set it there.
    if (sources_) sources_->clock.close();
    for (const auto& each : registrations_) {
        each->announcement.begin_child();
    }
    unlock_all();
}

void TimeWatch::resume() noexcept {
    const std::lock_guard control(control_);
    if (!std::exchange(inherited_, false) || exiting_) return;
    zone_due_ = others_due_ = Deadline::never();
    clock_waits_ = false;
    look_at_zone_ = true;
    running_ = sources_->clock.open() == 0 && watch_host(*this, sources_->clock.descriptor()) == 0;
    if (running_) {
        call_host_source(*this, Deadline::at_once());
        return;
    }
    sources_.reset();
    const std::lock_guard lock(mutex_);
    registrations_.clear();
}

namespace {

const AtFork at_fork{ForkRank::Time,
                     {[]() noexcept {
                          the_watch.lock_all();
                          lock_zone();
                      },
                      []() noexcept {
                          unlock_zone();
                          the_watch.unlock_all();
                      },
                      []() noexcept {
                          unlock_zone();
                          the_watch.begin_child();
                      },
                      []() noexcept { the_watch.resume(); }}};

}  // namespace

}  // namespace zr::platform
