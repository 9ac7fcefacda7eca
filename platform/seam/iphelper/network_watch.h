#pragma once

// Events that are set when something changes about this computer's network.

#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

enum class NetworkChanges {
    Addresses,  // they come and go
    All,        // that, and whatever is told of interfaces and routes, important or not
};

// An auto-reset event, closed with CloseHandle. An error code, or 0.
ZRPLATFORM_API DWORD watch_network(NetworkChanges changes, HANDLE& handle) noexcept;

// For who knows more of the network than the kernel: whether somebody wants to be told of everything, and telling them.
ZRPLATFORM_API bool network_is_watched() noexcept;
ZRPLATFORM_API void tell_network_watches() noexcept;

}  // namespace zr::platform
