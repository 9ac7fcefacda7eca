#include "file_facts.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>

#include <string>

#include "dos_attributes.h"
#include "platform/files.h"

namespace zr::platform {
namespace {

constexpr unsigned kEverything = STATX_BASIC_STATS | STATX_BTIME;
constexpr std::int64_t kTicksPerSecond = 10'000'000;
constexpr std::int64_t kSecondsTo1970 = 11'644'473'600;

// The stored attributes last read on this thread. A search and the look at the entry it found come in pairs, so that
// the second need not ask the host again. Whoever stores attributes moves the file's change time; a change time that
// is not clearly in the past at the time of reading could stand for a later change as well, so it is not kept.
struct LastRead {
    std::uint64_t inode = 0;
    std::uint32_t device_major = 0;
    std::uint32_t device_minor = 0;
    std::int64_t seconds = 0;
    std::uint32_t nanoseconds = 0;
    DWORD attributes = 0;
};
constexpr std::int64_t kSettledSeconds = 2;

DWORD stored_attributes(int folder, const char* name, const struct statx& status) {
    static thread_local LastRead last;
    if (!S_ISREG(status.stx_mode) && !S_ISDIR(status.stx_mode)) return 0;
    if (last.inode == status.stx_ino && last.seconds == status.stx_ctime.tv_sec &&
        last.nanoseconds == status.stx_ctime.tv_nsec && last.device_major == status.stx_dev_major &&
        last.device_minor == status.stx_dev_minor)
        return last.attributes;
    timespec now;
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    const DWORD attributes = read_dos_attributes(folder, name);
    if ((status.stx_mask & STATX_CTIME) && status.stx_ctime.tv_sec + kSettledSeconds < now.tv_sec)
        last = {status.stx_ino,          status.stx_dev_major,     status.stx_dev_minor,
                status.stx_ctime.tv_sec, status.stx_ctime.tv_nsec, attributes};
    return attributes;
}

bool same_file(const struct statx& one, const struct statx& other) {
    return one.stx_ino == other.stx_ino && one.stx_dev_major == other.stx_dev_major &&
           one.stx_dev_minor == other.stx_dev_minor;
}

// Whether the folder is one of those on the way to it, so that walking into it would never end.
bool is_on_the_way(std::string_view folder_path, const struct statx& target) {
    std::string prefix(folder_path.empty() ? "/" : folder_path);
    while (true) {
        struct statx status;
        if (statx(AT_FDCWD, prefix.c_str(), 0, STATX_INO, &status) == 0 && same_file(status, target)) return true;
        if (prefix.size() <= 1) return false;
        const std::size_t cut = prefix.rfind('/');
        prefix.resize(cut == 0 || cut == std::string::npos ? 1 : cut);
    }
}

// Puts what a link leads to in its place, unless it leads nowhere or back to where it is.
void follow_link(int folder, std::string_view folder_path, const char* name, unsigned mask, struct statx& status) {
    struct statx target;
    if (statx(folder, name, 0, mask, &target) != 0) return;
    if (S_ISDIR(target.stx_mode)) {
        std::string_view way = folder_path;
        if (folder == AT_FDCWD) {
            const std::string_view path = name;
            way = path.substr(0, path.rfind('/'));
        }
        if (is_on_the_way(way, target)) return;
    }
    status = target;
}

std::string_view last_name(std::string_view path) {
    const std::size_t cut = path.rfind('/');
    return cut == std::string_view::npos ? path : path.substr(cut + 1);
}

DWORD attributes_of(int folder, const char* name, const struct statx& status) {
    DWORD attributes = stored_attributes(folder, name, status);
    if (S_ISDIR(status.stx_mode)) attributes |= FILE_ATTRIBUTE_DIRECTORY;
    if ((status.stx_mode & kAnyWrite) == 0) attributes |= FILE_ATTRIBUTE_READONLY;
    if (last_name(name).starts_with('.')) attributes |= FILE_ATTRIBUTE_HIDDEN;
    return attributes ? attributes : FILE_ATTRIBUTE_NORMAL;
}

FILETIME to_filetime(const struct statx_timestamp& time) {
    return platform::to_filetime(time.tv_sec, time.tv_nsec);
}

void read_times_and_size(const struct statx& status, FileFacts& facts) {
    facts.accessed = to_filetime(status.stx_atime);
    facts.written = to_filetime(status.stx_mtime);
    facts.created = status.stx_mask & STATX_BTIME ? to_filetime(status.stx_btime) : facts.written;
    facts.size = S_ISDIR(status.stx_mode) ? 0 : status.stx_size;
}

}  // namespace

FILETIME to_filetime(std::int64_t seconds, std::uint32_t nanoseconds) noexcept {
    const std::int64_t since = seconds + kSecondsTo1970;
    if (since < 0 || since > INT64_MAX / kTicksPerSecond - 1) return {};
    const auto ticks = static_cast<std::uint64_t>(since * kTicksPerSecond + nanoseconds / 100);
    return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

void from_filetime(const FILETIME& time, std::int64_t& seconds, std::int64_t& nanoseconds) noexcept {
    const std::uint64_t ticks = (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    seconds = static_cast<std::int64_t>(ticks / kTicksPerSecond) - kSecondsTo1970;
    nanoseconds = static_cast<std::int64_t>(ticks % kTicksPerSecond) * 100;
}

int read_file_facts(int folder, std::string_view folder_path, const char* name, Wanted wanted, FileFacts& facts) {
    const unsigned mask = wanted == Wanted::Everything ? STATX_BASIC_STATS | STATX_BTIME
                                                       : STATX_TYPE | STATX_MODE | STATX_INO | STATX_CTIME;
    struct statx status;
    if (statx(folder, name, AT_SYMLINK_NOFOLLOW, mask, &status) != 0) return errno;
    if (S_ISLNK(status.stx_mode)) follow_link(folder, folder_path, name, mask, status);
    facts.attributes = attributes_of(folder, name, status);
    if (wanted == Wanted::AttributesOnly) return 0;
    read_times_and_size(status, facts);
    return 0;
}

int read_open_file_facts(int fd, FileFacts& facts) {
    struct statx status;
    if (statx(fd, "", AT_EMPTY_PATH, kEverything, &status) != 0) return errno;
    read_times_and_size(status, facts);
    return 0;
}

}  // namespace zr::platform
