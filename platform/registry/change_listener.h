#pragma once

// Handles that are signalled when keys change, and what tells them all.

#include <atomic>
#include <mutex>
#include <unordered_set>
#include <vector>

#include "changes.h"
#include "kernel/waitable.h"
#include "platform/registry.h"
#include "store/store_listener.h"

namespace zr::platform::registry {

class ChangeListener;
class Store;

class KeyWatch final : public Event {
public:
    static constexpr ObjectKind kKind = ObjectKind::RegistryChanges;

    // Takes over `key`, a handle of its own.
    KeyWatch(ChangeListener& listener, HKEY key, bool subtree, DWORD filter) noexcept
        : Event(true, false, kKind), listener_(listener), key_(key), subtree_(subtree), filter_(filter) {}

    // Arms the event again; a system error code when the key is gone.
    DWORD next() noexcept;

private:
    friend class ChangeListener;
    ~KeyWatch() override;
    void last_handle_closed() noexcept override;

    bool concerned(const Change& change) const noexcept;
    void tell() noexcept;  // with the listener's lock held

    ChangeListener& listener_;
    const HKEY key_;
    const bool subtree_;
    const DWORD filter_;

    // Guarded by the listener's lock.
    KeyId id_ = 0;
    LONGLONG from_ = 0;     // changes up to this one were there before the watch
    bool armed_ = false;    // else a change waits for next()
    bool changed_ = false;  // while it was not armed
};

// Waits for the store's bell from the first watch on: whoever watches once will do so again, and must not miss what
// comes between. Locks: membership_, then mutex_, then the store's.
class ChangeListener final : public StoreWatcher {
public:
    // This process's, made at the first use and never destroyed; null when there is no memory for it.
    static ChangeListener* get() noexcept;

    // Begins to tell the watch, whose key is looked at behind the first change that could be told.
    DWORD add(KeyWatch& watch) noexcept;
    void remove(KeyWatch& watch) noexcept;
    std::mutex& lock() noexcept { return mutex_; }

    bool rang() noexcept override;

private:
    friend struct RegistryForks;
    explicit ChangeListener(Store& store) noexcept : store_(store) {}

    DWORD insert(KeyWatch& watch) noexcept;
    bool catch_up() noexcept;
    void tell_all(LONGLONG position) noexcept;

    static std::atomic<ChangeListener*> the_listener_;

    Store& store_;
    std::mutex membership_;  // held while a watch comes
    bool listening_ = false;

    std::mutex mutex_;  // guards what follows; held while the store is read
    std::unordered_set<KeyWatch*> watches_;
    LONGLONG position_ = 0;  // of the last change that was told
    std::vector<Change> changes_;
};

}  // namespace zr::platform::registry
