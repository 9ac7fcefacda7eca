#pragma once

// The one thread of a process that waits for the bells of all stores.
//
// It is started with the first watcher and ends with the last one. It looks at no clock, unless a watcher asked to be
// called again. A child made by fork has the watchers of its parent and no thread until restart(), which the stores
// call whenever they are used. May throw std::bad_alloc.

#include <string>

#include "platform/types.h"

namespace zr::platform {

class StoreWatcher {
public:
    // Something may have changed in the store: read what, and tell whom it concerns. Called on the listener's thread
    // with no lock held, behind each ring of the bell; rings may come without a change. Returns true to be called again
    // soon, with or without a ring.
    virtual bool rang() noexcept = 0;

protected:
    ~StoreWatcher() = default;
};

// From now on the watcher is called behind each ring of the bell, a file. 0 or the host's error number.
int add_store_watcher(const std::string& bell, StoreWatcher& watcher);

// When this returns the watcher is not being called, and will not be, unless it is the caller.
void remove_store_watcher(StoreWatcher& watcher) noexcept;

// Has the watcher called soon, without a ring.
void call_store_watcher(StoreWatcher& watcher) noexcept;

// The listener's part in a fork: behind the stores' own locks.
void lock_store_listener() noexcept;
void unlock_store_listener() noexcept;
void unlock_store_listener_in_child() noexcept;
void resume_store_listener() noexcept;

}  // namespace zr::platform
