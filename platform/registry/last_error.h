#pragma once

// The texts behind ZrRegistryLastErrorText and ZrRegistrySetAsideText, and the store's errors as the registry has them.

#include <string_view>

#include "platform/errors.h"

namespace zr::platform {
class Connection;
}

namespace zr::platform::registry {

inline constexpr const char* kStoreName = "registry";

// What a store's error is called in the registry.
DWORD registry_error(DWORD error) noexcept;

// Keeps the sentence (UTF-8) for the calling thread.
void keep_failure(std::string_view sentence) noexcept;
// Keeps what the connection's last failing call means, and returns it as the registry's callers know it.
DWORD fail(Connection& connection);

// Keeps the sentence that says where the damaged store went, and logs it.
void announce_set_aside(std::string_view sentence) noexcept;

}  // namespace zr::platform::registry
