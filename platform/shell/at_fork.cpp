#include "base/forks.h"
#include "change_notify.h"
#include "config_document.h"

namespace zr::platform {
namespace {

void lock_all() noexcept {
    lock_notifications();
    parsing_gate().close();
}

void unlock_all() noexcept {
    parsing_gate().open();
    unlock_notifications();
}

void begin_child() noexcept {
    parsing_gate().open_in_child();
    unlock_notifications();
}

const AtFork registered{ForkRank::Shell, {lock_all, unlock_all, begin_child, resume_notifications}};

}  // namespace
}  // namespace zr::platform
