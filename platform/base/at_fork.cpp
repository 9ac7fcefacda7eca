#include "base/file_lock.h"
#include "base/forks.h"
#include "heap_store.h"

namespace zr::platform {
namespace {

void begin_child() noexcept {
    close_inherited_locks();
    unlock_heaps();
}

const AtFork registered{ForkRank::Base, {lock_heaps, unlock_heaps, begin_child}};

}  // namespace
}  // namespace zr::platform
