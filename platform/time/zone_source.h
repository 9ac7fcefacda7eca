#pragma once

// Where the device's zone comes from, by the environment as it is.

#include <sys/stat.h>

#include <optional>
#include <string>

#include "platform/types.h"
#include "time/zone.h"

namespace zr::platform {

// What is the same as long as a file is.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t changed = 0;  // nanoseconds since 1970

    friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

class ZoneSource {
public:
    // The zone that TZ names, or the system's. Throws std::bad_alloc.
    static ZoneSource from_environment();

    // An error code, or 0 and the zone. Throws std::bad_alloc.
    DWORD read(std::optional<Zone>& zone) const;
    // Of its file; nothing when there is none.
    std::optional<FileIdentity> identity() const;
    std::string name() const;

    friend bool operator==(const ZoneSource&, const ZoneSource&) = default;

private:
    std::string path_;  // of the file; empty when there cannot be one
    std::string rule_;  // what TZ says, in case that there is no such file
    bool is_system_ = false;
};

}  // namespace zr::platform
