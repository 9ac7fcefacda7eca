#pragma once

// The place of a log in the file system: the file of that name, and those that were it before, NAME.1 the youngest.

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "host/descriptor.h"

namespace zr::log {

// How long a log's file gets, and how many earlier ones are kept.
struct LogLimits {
    std::uint64_t size = 64ull << 20;  // 0: any
    int files = 4;
};

// From ZR_LOG_SIZE and ZR_LOG_FILES; false with a reason when one of them says nothing sensible.
bool read_limits(LogLimits& limits, std::string& error);

bool same_file(const struct stat& one, const struct stat& other);

// Opens the log for appending, making it with mode 0600 if it is missing; `made` tells. Empty with a reason, always
// starting with what the path is: no symbolic link is followed, and what is no plain file, belongs to another user, can
// be written by others or is no log is left as it is. A log of an earlier version is set aside first.
HostFd open_log(const std::string& path, const LogLimits& limits, bool& made, const char*& reason);

enum class Rotated { Yes, Busy, Refused };

// Gives the file at `path`, if it is still `expected`, the name PATH.1, and those before it the next number each; the
// one with the last number goes. Busy: another process is doing it or has done it. Refused: one of the names belongs to
// something that is not a log of the user's.
Rotated rotate(const std::string& path, const LogLimits& limits, const struct stat& expected);

}  // namespace zr::log
