#pragma once

// Tells when the system's time zone changed: when its file was replaced or rewritten with something else in it, or
// links to another zone than before.

#include <string>

#include "files/file_watch.h"

namespace zr::platform {

class ZoneWatch {
public:
    explicit ZoneWatch(HostSource& teller) : file_(teller) {}

    DWORD open(const std::string& zone_file);  // an error code, or 0
    void close() noexcept { file_.close(); }

    bool read_change();
    // The same without having been told that there is something to look at.
    bool look_for_change();

private:
    std::string look() const;

    FileWatch file_;
    std::string seen_;
};

}  // namespace zr::platform
