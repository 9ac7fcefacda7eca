#pragma once

// The attributes that a host file has no place of its own for, kept in the extended attribute user.DOSATTRIB as Samba
// and Wine keep them: the text "0x" and the bits in hexadecimal, or Samba's binary form.

#include <cstddef>
#include <span>
#include <string>

#include "platform/types.h"

namespace zr::platform {

inline constexpr DWORD kStoredAttributes = 0x2 | 0x4 | 0x20;  // HIDDEN, SYSTEM, ARCHIVE

// The stored bits of a value of that extended attribute; 0 for what is in neither form.
DWORD parse_dos_attributes(std::span<const char> value) noexcept;

// The stored bits of `name` below the open folder `folder` (AT_FDCWD for a whole path), links followed; 0 when there
// are none or they cannot be read.
DWORD read_dos_attributes(int folder, const char* name) noexcept;

// Stores the bits; other bits that the value holds stay. An errno value on failure, else 0. `*written` becomes true
// when the host was asked to keep something.
int write_dos_attributes(const char* path, DWORD bits, bool* written = nullptr);

}  // namespace zr::platform
