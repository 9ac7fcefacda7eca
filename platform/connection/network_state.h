#pragma once

// The interfaces of this computer with their addresses and default routes, as the kernel has them at one moment.

#include <optional>
#include <string>
#include <vector>

#include "iphelper/netlink.h"

namespace zr::platform {

struct NetworkConnection {
    NetInterface interface;
    std::vector<NetAddress> addresses;            // those that can be used
    std::optional<std::uint32_t> default_metric;  // of its best default route
};

// In the order in which they are used: by default route, then by number. The loopback is left out. May throw
// std::bad_alloc; an error code, or 0.
DWORD read_network_state(std::vector<NetworkConnection>& connections);

}  // namespace zr::platform
