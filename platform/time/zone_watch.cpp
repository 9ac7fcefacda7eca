#include "zone_watch.h"

#include <sys/inotify.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace zr::platform {

namespace {

// Not IN_MODIFY: a file that is being written is looked at when it is closed.
constexpr std::uint32_t kEvents = IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;

}  // namespace

DWORD ZoneWatch::open(const std::string& zone_file) {
    const DWORD error = file_.open(zone_file, kEvents);
    if (error == 0) seen_ = look();
    return error;
}

// Where the links lead, and the rules there: another zone may have the same rules, and new rules the same name. What is
// no zone data counts like no file, which is UTC to the system.
std::string ZoneWatch::look() const {
    std::ifstream file(file_.target(), std::ios::binary);
    std::string rules{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!rules.starts_with("TZif")) return {};
    std::error_code ignored;
    return std::filesystem::canonical(file_.target(), ignored).string() + '\0' + rules;
}

bool ZoneWatch::read_change() {
    return file_.read_changes() && look_for_change();
}

bool ZoneWatch::look_for_change() {
    std::string now = look();
    const bool changed = now != seen_;
    seen_ = std::move(now);
    return changed;
}

}  // namespace zr::platform
