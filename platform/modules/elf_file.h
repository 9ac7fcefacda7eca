#pragma once

// What a module's ELF file says, without trusting any of it.

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/modules.h"

namespace zr::platform {

class FileBytes {
public:
    virtual std::uint64_t size() const = 0;
    // False when not all could be read.
    virtual bool read(std::uint64_t offset, std::span<std::byte> out) const = 0;

protected:
    ~FileBytes() = default;
};

// ERROR_RESOURCE_DATA_NOT_FOUND, ERROR_BAD_EXE_FORMAT, ERROR_NOT_ENOUGH_MEMORY or 0.
DWORD find_version(const FileBytes& file, VS_FIXEDFILEINFO& info);

// Whether everything that the host's loader maps is there: it does not look itself, and a process that touches what is
// missing is killed. ERROR_BAD_EXE_FORMAT or 0.
DWORD check_whole(const FileBytes& file);

}  // namespace zr::platform
