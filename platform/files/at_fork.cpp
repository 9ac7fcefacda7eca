#include "at_fork.h"

#include "base/forks.h"
#include "change_source.h"

namespace zr::platform {
namespace {

void lock_all() noexcept {
    ChangeSource::instance().lock_all();
    lock_searches();
    lock_share_modes();
}

void unlock_tables() noexcept {
    unlock_share_modes();
    unlock_searches();
}

void unlock_all() noexcept {
    unlock_tables();
    ChangeSource::instance().unlock_all();
}

void begin_child() noexcept {
    forget_calls_sharing();
    unlock_tables();
    ChangeSource::instance().begin_child();
}

void resume() noexcept {
    ChangeSource::instance().resume();
}

const AtFork registered{ForkRank::Files, {lock_all, unlock_all, begin_child, resume}};

}  // namespace
}  // namespace zr::platform
