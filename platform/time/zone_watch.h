#pragma once

// Tells when the system's time zone changed: when its file was replaced or rewritten with something else in it, or
// links to another zone than before.

#include <string>

#include "file_watch.h"

namespace zr::platform {

class ZoneWatch {
public:
    DWORD open(const std::string& zone_file);  // an error code, or 0
    void close() noexcept { file_.close(); }

    int descriptor() const noexcept { return file_.descriptor(); }
    bool read_change();

private:
    std::string look() const;

    FileWatch file_;
    std::string seen_;
};

}  // namespace zr::platform
