#pragma once

// The events that this process registered for changes of the time, and the thread that watches for these and sets them.

#include <pthread.h>
#include <sys/types.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "announcement.h"
#include "clock_timer.h"
#include "file_watch.h"
#include "platform/types.h"
#include "zone_watch.h"

namespace zr::platform {

class TimeWatch {
public:
    // Bits of the changes that an event is to be set at.
    static constexpr unsigned kClock = 1u << static_cast<unsigned>(TimeChange::Clock);
    static constexpr unsigned kZone = 1u << static_cast<unsigned>(TimeChange::Zone);

    // The process's one. It is never destroyed, since it may be asked for until the very end; its thread is ended when
    // the process exits.
    static TimeWatch& instance();

    DWORD add(std::u16string_view event, unsigned changes);  // an error code, or 0; may throw std::bad_alloc
    void remove(std::u16string_view event);

private:
    struct Registration {
        Registration(std::u16string_view name, unsigned what) : event(name), changes(what), announcement(name) {}

        std::u16string event;
        unsigned changes;
        Announcement announcement;
    };
    // What the changes are read from.
    struct Sources {
        DWORD open();

        ClockTimer clock;
        ZoneWatch zone;
        FileWatch pretended;
    };

    TimeWatch() = default;
    ~TimeWatch() = default;

    void forget_parent();
    DWORD start();
    void stop();
    static void* run(void* self);
    void work();
    void read_sources();
    void announce(TimeChange change);
    bool finish_for_others(bool waited);

    std::mutex control_;  // guards what starts and stops the thread; taken before mutex_
    bool running_ = false;
    bool exiting_ = false;
    pid_t process_ = 0;  // whose thread it is: a child made by fork has none
    pthread_t thread_ = {};
    int stop_ = -1;
    std::unique_ptr<Sources> sources_;

    std::mutex mutex_;
    std::vector<std::unique_ptr<Registration>> registrations_;
};

}  // namespace zr::platform
