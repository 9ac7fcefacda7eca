#include "at_fork.h"

#include "base/forks.h"
#include "engine.h"
#include "process.h"
#include "timer.h"

namespace zr::platform {
namespace {

// In the order in which they are taken.
void lock_all() noexcept {
    at_fork::lock_host_events();
    at_fork::lock_session();
    at_fork::lock_threads();
    at_fork::lock_thread_end();
    at_fork::lock_sections();
    lock_timers();
    lock_processes();
    Engine::lock.lock();
    at_fork::lock_pages();
    at_fork::lock_views();
    at_fork::lock_mapped_files();
    at_fork::lock_handles();
}

void unlock_objects() noexcept {
    at_fork::unlock_handles();
    at_fork::unlock_mapped_files();
    at_fork::unlock_views();
    at_fork::unlock_pages();
    Engine::lock.unlock();
    unlock_processes();
    unlock_timers();
    at_fork::unlock_sections();
    at_fork::unlock_thread_end();
    at_fork::unlock_threads();
    at_fork::unlock_session();
}

void unlock_all() noexcept {
    unlock_objects();
    at_fork::unlock_host_events();
}

void begin_child() noexcept {
    ThreadAccess::survive_fork();
    at_fork::forget_section_queues();
    at_fork::forget_quick_pins();
    at_fork::forget_session();
    forget_process_watch();
    unlock_objects();
    at_fork::forget_host_events();
}

void resume() noexcept {
    resume_timers();
    resume_process_watch();
}

const AtFork registered{ForkRank::Kernel, {lock_all, unlock_all, begin_child, resume}};

}  // namespace
}  // namespace zr::platform
