#pragma once

// The events that this process registered for changes of the time, and what watches for these and sets them.

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "announcement.h"
#include "clock_timer.h"
#include "files/file_watch.h"
#include "kernel/host_events.h"
#include "platform/types.h"
#include "zone_watch.h"

namespace zr::platform {

class TimeWatch final : public HostSource {
public:
    // Bits of the changes that an event is to be set at.
    static constexpr unsigned kClock = 1u << static_cast<unsigned>(TimeChange::Clock);
    static constexpr unsigned kZone = 1u << static_cast<unsigned>(TimeChange::Zone);

    // The process's one. It is never destroyed, since it may be asked for until the very end; it watches no more when
    // the process exits.
    static TimeWatch& instance() noexcept;

    DWORD add(std::u16string_view event, unsigned changes);  // an error code, or 0; may throw std::bad_alloc
    void remove(std::u16string_view event);
    void exit() noexcept;

    // At a fork. The child has its parent's registrations, and watches for itself when it has resumed.
    void lock_all() noexcept;
    void unlock_all() noexcept;
    void begin_child() noexcept;
    void resume() noexcept;

private:
    struct Registration {
        Registration(std::u16string_view name, unsigned what) : event(name), changes(what), announcement(name) {}

        std::u16string event;
        unsigned changes;
        Announcement announcement;
    };
    // What the changes are read from.
    struct Sources {
        explicit Sources(HostSource& teller) : zone(teller), pretended(teller) {}
        DWORD open();

        ClockTimer clock;
        ZoneWatch zone;
        FileWatch pretended;
    };

    void ready() noexcept override;
    DWORD start();
    void stop() noexcept;
    void read_sources();
    void announce(TimeChange change);
    void finish_for_others();

    std::mutex control_;  // guards what begins and ends the watching; taken before mutex_
    bool running_ = false;
    bool inherited_ = false;  // watched by the parent of this process
    bool exiting_ = false;
    std::unique_ptr<Sources> sources_;

    // While it watches, the host's thread's alone.
    bool look_at_zone_ = false;
    bool clock_waits_ = false;                 // for a change of the zone that was noticed before
    Deadline zone_due_ = Deadline::never();    // a change of the zone is to be announced
    Deadline others_due_ = Deadline::never();  // what other processes were going to set is to be set

    std::mutex mutex_;
    std::vector<std::unique_ptr<Registration>> registrations_;
};

}  // namespace zr::platform
