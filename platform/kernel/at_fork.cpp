#include "at_fork.h"

#include "alarm.h"
#include "base/forks.h"
#include "engine.h"
#include "process.h"
#include "timer.h"

namespace zr::platform {
namespace {

constexpr DueClock kClocks[] = {DueClock::Monotonic, DueClock::OfDay};

// In the order in which they are taken.
void lock_all() noexcept {
    at_fork::lock_session();
    at_fork::lock_threads();
    at_fork::lock_thread_end();
    at_fork::lock_sections();
    lock_timers();
    for (const DueClock clock : kClocks) {
        Alarm::of(clock).lock();
    }
    lock_processes();
    at_fork::lock_host_events();
    Engine::lock.lock();
    at_fork::lock_pages();
    at_fork::lock_views();
    at_fork::lock_mapped_files();
    at_fork::lock_handles();
}

void unlock_all() noexcept {
    at_fork::unlock_handles();
    at_fork::unlock_mapped_files();
    at_fork::unlock_views();
    at_fork::unlock_pages();
    Engine::lock.unlock();
    at_fork::unlock_host_events();
    unlock_processes();
    for (const DueClock clock : kClocks) {
        Alarm::of(clock).unlock();
    }
    unlock_timers();
    at_fork::unlock_sections();
    at_fork::unlock_thread_end();
    at_fork::unlock_threads();
    at_fork::unlock_session();
}

void begin_child() noexcept {
    ThreadAccess::survive_fork();
    at_fork::forget_section_queues();
    at_fork::forget_quick_pins();
    at_fork::forget_session();
    forget_process_watch();
    for (const DueClock clock : kClocks) {
        Alarm::of(clock).forget();
    }
    at_fork::forget_host_events();
    unlock_all();
}

void resume() noexcept {
    for (const DueClock clock : kClocks) {
        Alarm::of(clock).resume();
    }
    resume_process_watch();
}

const AtFork registered{ForkRank::Kernel, {lock_all, unlock_all, begin_child, resume}};

}  // namespace
}  // namespace zr::platform
