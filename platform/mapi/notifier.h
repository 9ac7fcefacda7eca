#pragma once

// Turns the change log into calls of the sinks that asked.
//
// Each connection has its own place in the log. A ring of the store's bell has a message posted to a hidden window of
// each thread that is behind, one at a time; that thread reads the log from its place on when it dispatches the
// message. So nothing waits in memory, and nothing is lost: the log keeps what the slowest connection has not been
// told.

#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/mapi.h"
#include "platform/windowing.h"
#include "store/store_listener.h"
#include "windowing/post_room.h"

namespace zr::platform::mapi {

class MailStore;
struct Change;

// What a connection is about: a whole account, a folder or a message.
struct Subject {
    LONGLONG account = 0;
    ULONG type = 0;
    LONGLONG number = 0;
};

class Notifier final : public StoreWatcher {
public:
    explicit Notifier(MailStore& store) : store_(store) {}
    ~Notifier();
    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;

    // `owner` tells who may take it back. The sink gets a reference.
    HRESULT add(const void* owner, const Subject& subject, ULONG mask, LPMAPIADVISESINK sink, ULONG* connection);
    HRESULT remove(const void* owner, ULONG connection);
    void remove_all(const void* owner);

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
    struct Connection;
    struct Listener;
    friend struct ListenerWindow;
    using ConnectionRef = std::shared_ptr<Connection>;

    std::shared_ptr<Listener> listener_of_thread();
    void take(std::vector<ConnectionRef>& gone);
    HRESULT listen();
    void listen_no_more();
    void keep_place();
    bool post(Listener& listener);
    void deliver(HWND window);
    bool deliver_some(const ConnectionRef& connection);
    bool is_told(const Connection& connection, const Change& change) const;

    MailStore& store_;
    std::mutex membership_;  // held while the first connection comes or the last one goes; taken before mutex_
    bool listening_ = false;

    std::mutex mutex_;
    std::vector<ConnectionRef> connections_;
    std::vector<std::shared_ptr<Listener>> listeners_;
    ULONG next_ = 1;
};

}  // namespace zr::platform::mapi
