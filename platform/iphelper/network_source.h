#pragma once

// The process's one look at the network: a socket that is told what changes, and who wants to know.

#include <mutex>
#include <set>
#include <vector>

#include "iphelper/netlink.h"
#include "iphelper/network_watch.h"
#include "kernel/host_events.h"
#include "kernel/waitable.h"

namespace zr::platform {

class NetworkWatch final : public Event {
public:
    explicit NetworkWatch(NetworkChanges changes) noexcept
        : Event(false, false, ObjectKind::Other), changes_(changes) {}
    bool is_of_all() const noexcept { return changes_ == NetworkChanges::All; }

private:
    void last_handle_closed() noexcept override;

    const NetworkChanges changes_;
};

class NetworkSource final : public HostSource {
public:
    static NetworkSource& instance() noexcept;

    DWORD add(NetworkWatch& watch);
    void remove(NetworkWatch& watch) noexcept;

    void ready() noexcept override;

    bool is_watched() noexcept;
    void tell_others() noexcept;

    void lock() noexcept;
    void unlock() noexcept;
    void begin_child() noexcept;
    void resume() noexcept;

private:
    using Addresses = std::set<NetAddress>;

    DWORD start(bool all);
    bool is_of_all() const noexcept;  // some watch
    DWORD read_all(Addresses& addresses) noexcept;
    void read_again(bool changed) noexcept;
    void tell(bool addresses, bool others) noexcept;

    std::mutex control_;  // adding and removing; taken before the other one
    std::mutex mutex_;
    std::vector<Ref<NetworkWatch>> watches_;
    NetlinkSocket socket_;
    NetlinkSocket lister_;
    Addresses addresses_;
    bool running_ = false;
};

}  // namespace zr::platform
