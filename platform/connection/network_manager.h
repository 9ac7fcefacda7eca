#pragma once

// What NetworkManager knows of this computer's connections, where it runs.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "connection_kind.h"
#include "network_state.h"

namespace zr::platform {

enum class Metered { Unknown, No, Yes };

struct ManagedConnection {
    std::u16string name;
    std::string type;  // NetworkManager's word
    bool vpn = false;
    Metered metered = Metered::Unknown;
    std::int64_t last_connect = 0;   // in seconds since 1970; 0: not known
    std::optional<unsigned> signal;  // of 100
    // A VPN's devices are those that it goes through: its own interface is known by its addresses.
    std::vector<std::string> interfaces;
    std::vector<NetAddress> addresses;  // family and bytes
};
using ManagedConnections = std::vector<ManagedConnection>;

// Its active connections; NULL where there is no bus or no NetworkManager, or it does not answer. It is asked anew when
// it has said that something changed, and for the strength of a signal after a while; one that does not answer is left
// in peace for half a minute. May throw std::bad_alloc.
std::shared_ptr<const ManagedConnections> managed_connections();

// The one that an interface belongs to; NULL for none.
const ManagedConnection* find_managed(const ManagedConnections* all, const NetworkConnection& connection) noexcept;

// Empty when its word says no more than the kernel's.
std::optional<ConnectionKind> managed_kind(const ManagedConnection& connection) noexcept;

}  // namespace zr::platform
