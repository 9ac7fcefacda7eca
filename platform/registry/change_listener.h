#pragma once

// Handles that are signalled when keys change, and the thread of the process that serves them all.

#include <atomic>
#include <mutex>
#include <unordered_set>
#include <vector>

#include "changes.h"
#include "kernel/waitable.h"
#include "platform/registry.h"

namespace zr::platform::registry {

class ChangeListener;

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

class ChangeListener {
public:
    // This process's, made at the first use; a child made by fork gets one of its own. Never destroyed: its thread may
    // run as long as the process. Null, with `error` set, when the host gives no descriptor or thread.
    static ChangeListener* get(DWORD& error) noexcept;

    // Begins to tell the watch, whose key is looked at behind the first change that could be told.
    DWORD add(KeyWatch& watch) noexcept;
    void remove(KeyWatch& watch) noexcept;
    std::mutex& lock() noexcept { return mutex_; }

private:
    explicit ChangeListener(int inotify) noexcept;

    static void before_fork() noexcept;
    static void after_fork() noexcept;
    static void after_fork_in_child() noexcept;

    DWORD listen() noexcept;
    void run() noexcept;
    bool take_rings() noexcept;
    void catch_up() noexcept;
    void tell_all(LONGLONG position) noexcept;

    static std::atomic<ChangeListener*> the_listener_;

    const int inotify_;

    std::mutex mutex_;  // guards what follows; held while the store is read
    std::unordered_set<KeyWatch*> watches_;
    LONGLONG position_ = 0;   // of the last change that was told
    bool running_ = false;    // the thread does
    bool listening_ = false;  // the host reports the bell
    bool again_ = false;      // the changes could not be read, or the bell is not reported
    std::vector<Change> changes_;
};

}  // namespace zr::platform::registry
