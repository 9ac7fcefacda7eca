#pragma once

#include <string_view>

#include "mapping.h"

namespace zr::platform::named {

// What CreateFileMappingW does with a name, over memory for INVALID_HANDLE_VALUE, else over that file; what
// OpenFileMappingW does. NULL with the last error set.
HANDLE create_mapping(std::u16string_view name, HANDLE file, std::uint64_t size, DWORD protection) noexcept;
HANDLE open_mapping(LPCWSTR name, DWORD access) noexcept;

}  // namespace zr::platform::named
