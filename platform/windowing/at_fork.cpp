#include "base/forks.h"
#include "desktop.h"
#include "output.h"

namespace zr::platform {
namespace {

void lock_all() noexcept {
    Desktop::get().lock.lock();
    MessageQueue::lock_all();
    lock_output();
}

void unlock_all() noexcept {
    unlock_output();
    MessageQueue::unlock_all();
    Desktop::get().lock.unlock();
}

void begin_child() noexcept {
    forget_output();
    unlock_output();
    MessageQueue::survive_fork();
    Desktop::get().survive_fork();
}

void resume() noexcept {
    MessageQueue::sync_descriptors();
}

const AtFork registered{ForkRank::Windowing, {lock_all, unlock_all, begin_child, resume}};

}  // namespace
}  // namespace zr::platform
