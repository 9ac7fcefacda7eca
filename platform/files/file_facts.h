#pragma once

// What the platform tells about one file of the host.

#include <sys/stat.h>

#include <cstdint>
#include <string_view>

#include "platform/types.h"

namespace zr::platform {

// Without any of these rights a file is read-only.
inline constexpr mode_t kAnyWrite = S_IWUSR | S_IWGRP | S_IWOTH;

struct FileFacts {
    DWORD attributes = 0;
    FILETIME created{};
    FILETIME accessed{};
    FILETIME written{};
    std::uint64_t size = 0;  // 0 for a folder
};

enum class Wanted { AttributesOnly, Everything };

// Looks at `name` below the open folder `folder`, whose host path is `folder_path`; or at the absolute path `name` with
// AT_FDCWD and an empty `folder_path`. An errno value on failure, else 0.
int read_file_facts(int folder, std::string_view folder_path, const char* name, Wanted wanted, FileFacts& facts);

// The times and the size of an open file; its attributes stay 0. An errno value on failure, else 0.
int read_open_file_facts(int fd, FileFacts& facts);

// 100-nanosecond units since 1601 of a host time; times before 1601 are 0.
FILETIME to_filetime(std::int64_t seconds, std::uint32_t nanoseconds) noexcept;

// The inverse, as seconds and nanoseconds since 1970.
void from_filetime(const FILETIME& time, std::int64_t& seconds, std::int64_t& nanoseconds) noexcept;

}  // namespace zr::platform
