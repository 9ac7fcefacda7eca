#include "network_state.h"

#include <net/if.h>

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

#include "platform/errors.h"

namespace zr::platform {
namespace {

constexpr int kMostTries = 5;

class StateReader final : public NetlinkReader {
public:
    explicit StateReader(std::vector<NetworkConnection>& connections) : connections_(connections) {}

    void interface(const NetInterface& each, bool) override try {
        if ((each.flags & IFF_LOOPBACK) != 0) return;
        connections_.emplace_back().interface = each;
        sorted_ = false;
    } catch (const std::bad_alloc&) {
        no_memory_ = true;
    }
    void address(const NetAddress& each, bool) override try {
        NetworkConnection* const connection = find(each.interface);
        if (connection != nullptr && each.usable) connection->addresses.push_back(each);
    } catch (const std::bad_alloc&) {
        no_memory_ = true;
    }
    void default_route(const NetDefaultRoute& route, bool) override {
        NetworkConnection* const connection = find(route.interface);
        if (connection == nullptr) return;
        const std::uint32_t before = connection->default_metric.value_or(std::numeric_limits<std::uint32_t>::max());
        connection->default_metric = std::min(before, route.metric);
    }
    void interrupted() override { torn_ = true; }

    bool no_memory() const { return no_memory_; }
    bool torn() const { return torn_; }

private:
    // The kernel lists interfaces by number, but for those that were renumbered.
    NetworkConnection* find(std::uint32_t index) {
        const auto number = [](const NetworkConnection& each) { return each.interface.index; };
        if (!sorted_) std::ranges::sort(connections_, {}, number);
        sorted_ = true;
        const auto found = std::ranges::lower_bound(connections_, index, {}, number);
        return found != connections_.end() && number(*found) == index ? &*found : nullptr;
    }

    std::vector<NetworkConnection>& connections_;
    bool sorted_ = false;
    bool no_memory_ = false;
    bool torn_ = false;
};

DWORD read_once(NetlinkSocket& socket, std::vector<NetworkConnection>& connections, bool& torn) {
    connections.clear();
    StateReader reader(connections);
    for (const auto what :
         {NetlinkSocket::What::Interfaces, NetlinkSocket::What::Addresses, NetlinkSocket::What::Routes}) {
        if (const DWORD error = socket.list(what, reader)) return error;
    }
    torn = reader.torn();
    return reader.no_memory() ? ERROR_NOT_ENOUGH_MEMORY : ERROR_SUCCESS;
}

}  // namespace

DWORD read_network_state(std::vector<NetworkConnection>& connections) {
    NetlinkSocket socket;
    if (const DWORD error = socket.open(0)) return error;
    bool torn = true;
    for (int tries = 0; torn && tries < kMostTries; ++tries) {
        if (const DWORD error = read_once(socket, connections, torn)) return error;
    }
    std::ranges::stable_sort(connections, {}, [](const NetworkConnection& each) {
        return std::pair(!each.default_metric, each.default_metric.value_or(0));
    });
    for (NetworkConnection& each : connections) {
        std::ranges::stable_sort(each.addresses, {}, &NetAddress::family);
    }
    return ERROR_SUCCESS;
}

}  // namespace zr::platform
