#include "base/file_lock.h"
#include "base/forks.h"
#include "base/live_count.h"
#include "heap_store.h"
#include "interlocked_list.h"

namespace zr::platform {
namespace {

void lock_all() noexcept {
    lock_heaps();
    lock_interlocked_lists();
}

void unlock_all() noexcept {
    unlock_interlocked_lists();
    unlock_heaps();
}

void begin_child() noexcept {
    close_inherited_locks();
    free_live_tallies_of_others();
    unlock_all();
}

const AtFork registered{ForkRank::Base, {lock_all, unlock_all, begin_child}};

}  // namespace
}  // namespace zr::platform
