#include "zone_source.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <new>

#include "base/host_error.h"
#include "files/file_watch.h"
#include "platform/errors.h"
#include "zone_file.h"

namespace zr::platform {

namespace {

constexpr const char* kZoneFolder = "/usr/share/zoneinfo";
constexpr std::string_view kZoneFolderName = "zoneinfo/";

// Far more than any zone has.
constexpr std::size_t kMostBytes = std::size_t{1} << 20;

// Not blocking, in case that it is no plain file. An errno value, or 0.
int read_file(const std::string& path, std::string& bytes) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0) return errno;
    bytes.resize(kMostBytes);
    std::size_t size = 0;
    ssize_t got = 0;
    while (size < bytes.size() && (got = ::read(file, bytes.data() + size, bytes.size() - size)) != 0) {
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) break;
        size += static_cast<std::size_t>(got);
    }
    const int error = got < 0 ? errno : 0;
    close(file);
    bytes.resize(size);
    return error;
}

bool is_nothing(int error) {
    return error == ENOENT || error == ENOTDIR || error == EISDIR || error == ENAMETOOLONG;
}

}  // namespace

ZoneSource ZoneSource::from_environment() {
    ZoneSource source;
    const char* const named = std::getenv("TZ");
    if (named == nullptr) {
        source.path_ = zone_file();
        source.is_system_ = true;
        return source;
    }
    source.rule_ = named;
    const std::string name = named[0] == ':' ? named + 1 : named;
    if (name.empty()) return source;
    if (name.front() == '/') {
        source.path_ = name;
        return source;
    }
    const char* const folder = std::getenv("TZDIR");
    source.path_ = std::string(folder != nullptr && folder[0] != '\0' ? folder : kZoneFolder) + '/' + name;
    return source;
}

DWORD ZoneSource::read(std::optional<Zone>& zone) const {
    const std::string_view rule = std::string_view(rule_).substr(rule_.starts_with(':') ? 1 : 0);
    if (!is_system_ && rule.empty()) {
        zone = Zone::utc();
        return 0;
    }
    std::string bytes;
    const int error = read_file(path_, bytes);
    if (error == 0) {
        zone = Zone::of_file(bytes);
        return zone ? 0 : ERROR_FILE_CORRUPT;
    }
    if (!is_nothing(error)) return error_from_errno(error);
    zone = is_system_ ? Zone::utc() : Zone::of_rule(rule);
    return zone ? 0 : ERROR_FILE_NOT_FOUND;
}

std::optional<FileIdentity> ZoneSource::identity() const {
    struct stat status {};
    if (path_.empty() || stat(path_.c_str(), &status) != 0) return std::nullopt;
    const std::int64_t changed = status.st_ctim.tv_sec * std::int64_t{1'000'000'000} + status.st_ctim.tv_nsec;
    return FileIdentity{status.st_dev, status.st_ino, status.st_size, changed};
}

std::string ZoneSource::name() const {
    if (!is_system_) return rule_.empty() ? "UTC" : rule_;
    std::error_code error;
    if (!std::filesystem::exists(path_, error)) return "UTC";
    // The first link that leads into a folder of zones: a zone's file may link to another zone's with the same rules.
    std::filesystem::path path = path_;
    for (int links = 0; links < kMostLinks; ++links) {
        const std::filesystem::path target = std::filesystem::read_symlink(path, error);
        if (error) break;
        const std::string text = target.string();
        if (const auto at = text.rfind(kZoneFolderName); at != std::string::npos)
            return text.substr(at + kZoneFolderName.size());
        path = target.is_absolute() ? target : path.parent_path() / target;
    }
    return path_;
}

}  // namespace zr::platform
