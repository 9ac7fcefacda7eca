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

}  // namespace zr::platform
