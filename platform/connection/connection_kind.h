#pragma once

// What sort of a connection an interface makes.

#include <string_view>

#include "network_state.h"

namespace zr::platform {

struct ConnectionKind {
    DWORD type = 0;     // CM_CONNTYPE_
    DWORD subtype = 0;  // CM_CONNSUBTYPE_
};

ConnectionKind connection_kind(const NetInterface& interface) noexcept;

// The word for it in rules; empty when there is none.
std::u16string_view kind_word(const ConnectionKind& kind) noexcept;

// Up, and with an address that is good beyond its own cable.
bool is_connected(const NetworkConnection& connection) noexcept;

// Whether its addresses are of private networks.
bool is_private(const NetworkConnection& connection) noexcept;

}  // namespace zr::platform
