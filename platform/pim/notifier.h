#pragma once

// Turns the change log into window messages for the sessions of this process.
//
// Each window has its own place in the log and gets what lies behind it in the log's order, this process's changes as
// local and other processes' as remote. Local ones are posted by the call that committed them; remote ones behind the
// ring of the store's bell. A window whose queue is full keeps its place, and is posted to again when the queue has
// room.

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/pim.h"
#include "store/store_listener.h"
#include "windowing/post_room.h"

namespace zr::platform::pim {

class Store;
struct Change;

class Notifier final : public StoreWatcher {
public:
    explicit Notifier(Store& store) : store_(store) {}
    ~Notifier();
    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;

    // From now on `window` is told of changes; `key` takes that back. Nothing is posted after remove_window returned.
    HRESULT add_window(const void* key, HWND window);
    void remove_window(const void* key);

    // Counts the sessions that are logged on; with the last one what was set but not saved ends.
    void session_began();
    void session_ended();

    // What a folder reports (PIMFOLDERNOTIFICATION_*). set_flags holds until the last session ends.
    HRESULT flags(INT folder, ULONG& flags);
    HRESULT set_flags(INT folder, ULONG flags);

    // Posts everything that is committed and not yet posted. Locks the reading side: not to be called with it locked.
    void dispatch();

    // A folder's saved properties changed; with the reading side locked.
    void folder_changed() { saved_known_.store(false); }

    bool rang() noexcept override;

    // A fork finds the locks free.
    void before_fork() {
        membership_.lock();
        mutex_.lock();
    }
    void after_fork() {
        mutex_.unlock();
        membership_.unlock();
    }

private:
    // Has the store's listener come back when its queue has room again.
    struct Window final : RoomWaiter {
        Window(Notifier& owner, const void* by, HWND told, LONGLONG place)
            : notifier(owner), key(by), window(told), seq(place) {}
        ~Window() override { forget_room(*this); }
        void room() noexcept override { call_store_watcher(notifier); }

        Notifier& notifier;
        const void* const key;
        const HWND window;
        LONGLONG seq;
    };

    HRESULT add_place(const void* key, HWND window);
    ULONG effective(INT folder);
    HRESULT load_saved();
    void dispatch_locked();
    bool read_changes(LONGLONG seq, std::vector<Change>& changes);
    bool post_all(Window& window, const std::vector<Change>& changes);
    bool post(Window& window, const Change& change);
    HRESULT listen();
    void listen_no_more();
    void keep_place();

    Store& store_;
    std::mutex membership_;  // held while the first window comes or the last one goes; taken before mutex_
    bool listening_ = false;

    std::mutex mutex_;
    std::list<Window> windows_;
    std::atomic<int> window_count_{0};
    std::atomic<bool> behind_{false};  // something failed that is worth another try
    int sessions_ = 0;
    std::map<INT, ULONG> set_;
    std::map<INT, ULONG> saved_;
    std::atomic<bool> saved_known_{false};
};

}  // namespace zr::platform::pim
