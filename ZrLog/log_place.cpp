#include "ZrLog/log_place.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/file.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <new>

#include "ZrLog/format.h"
#include "ZrLog/slot_format.h"

namespace zr::log {
namespace {

constexpr mode_t kForOthers = S_IWGRP | S_IWOTH;
constexpr int kAttempts = 16;
constexpr int kFlags = O_RDWR | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW;
constexpr int kMostFiles = 9999;

enum class Content { None, Log, EarlierLog, Other };

Content content_of(int fd) {
    unsigned char bytes[sizeof slots::kMagic];
    const ssize_t n = pread(fd, bytes, sizeof bytes, 0);
    if (n == 0) return Content::None;
    if (n < 0) return Content::Other;
    if (std::memcmp(bytes, &kMark, std::min<std::size_t>(static_cast<std::size_t>(n), sizeof kMark)) == 0)
        return Content::Log;
    const bool earlier = n == sizeof bytes && std::memcmp(bytes, &slots::kMagic, sizeof bytes) == 0;
    return earlier ? Content::EarlierLog : Content::Other;
}

// nullptr when the file may hold a log of this user.
const char* objection(const struct stat& status) {
    if (S_ISLNK(status.st_mode)) return "a symbolic link; a log is a plain file";
    if (!S_ISREG(status.st_mode)) return "not a plain file";
    if (status.st_uid != geteuid()) return "belongs to another user";
    if ((status.st_mode & kForOthers) != 0) return "can be written by other users; take that right away (chmod go-w)";
    return nullptr;
}

const char* text_of(int error) {
    const char* const text = strerrordesc_np(error);
    return text == nullptr ? "cannot be opened" : text;
}

// 0, or an error number, or kObjected with a reason.
constexpr int kObjected = -1;

int open_once(const std::string& path, HostFd& file, bool& made, const char*& reason) {
    struct stat status;
    const int missing = lstat(path.c_str(), &status) == 0 ? 0 : errno;
    made = missing == ENOENT;
    if (missing != 0 && !made) return missing;
    // Looked at before it is opened: opening a device or a pipe may do something.
    if (!made && (reason = objection(status)) != nullptr) return kObjected;
    file = open_host(path.c_str(), kFlags | (made ? O_CREAT | O_EXCL : 0), 0600);
    if (!file || fstat(file.get(), &status) != 0) return errno;
    reason = objection(status);
    return reason == nullptr ? 0 : kObjected;
}

std::string numbered(const std::string& path, int number) {
    return path + "." + std::to_string(number);
}

// Whether it may be renamed: a log, or nothing at all. `missing` tells which.
bool may_be_moved(const std::string& path, bool& missing) {
    struct stat status;
    missing = lstat(path.c_str(), &status) != 0;
    if (missing) return errno == ENOENT;
    if (objection(status) != nullptr) return false;
    const HostFd file = open_host(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    return file && content_of(file.get()) != Content::Other;
}

bool shift(const std::string& path, int files) try {
    int last = 1;
    for (bool missing = false;; ++last) {
        if (!may_be_moved(numbered(path, last), missing)) return false;
        if (missing || last >= files) break;
    }
    for (; last > 1; --last) {
        if (rename(numbered(path, last - 1).c_str(), numbered(path, last).c_str()) != 0) return false;
    }
    return rename(path.c_str(), numbered(path, 1).c_str()) == 0;
} catch (const std::bad_alloc&) {
    return false;
}

bool read_number(const char* text, std::uint64_t most, std::uint64_t& number) {
    const char* const end = text + strlen(text);
    const auto [rest, error] = std::from_chars(text, end, number);
    if (error != std::errc() || rest == text) return false;
    int shift = 0;
    if (rest + 1 == end) {
        static constexpr char kUnits[] = "KMGT";
        const char* const unit = std::strchr(kUnits, *rest);
        if (unit == nullptr) return false;
        shift = static_cast<int>(unit - kUnits + 1) * 10;
    } else if (rest != end) {
        return false;
    }
    if (number > most >> shift) return false;
    number <<= shift;
    return true;
}

bool read_variable(const char* name, std::uint64_t least, std::uint64_t most, std::uint64_t& number,
                   std::string& error) {
    const char* const text = secure_getenv(name);
    if (text == nullptr || *text == 0) return true;
    if (read_number(text, most, number) && number >= least) return true;
    error = std::string(name) + ": '" + text + "' is not a number that it can have";
    return false;
}

}  // namespace

bool read_limits(LogLimits& limits, std::string& error) {
    auto files = static_cast<std::uint64_t>(limits.files);
    const bool good = read_variable("ZR_LOG_SIZE", 0, 1ull << 62, limits.size, error) &&
                      read_variable("ZR_LOG_FILES", 1, kMostFiles, files, error);
    limits.files = static_cast<int>(files);
    return good;
}

bool same_file(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

HostFd open_log(const std::string& path, const LogLimits& limits, bool& made, const char*& reason) {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        HostFd file;
        const int error = open_once(path, file, made, reason);
        // Another process makes or moves it just now.
        if ((error == ENOENT || error == EEXIST) && attempt + 1 < kAttempts) continue;
        if (error != 0) {
            if (error != kObjected) reason = text_of(error);
            return HostFd();
        }
        const Content content = content_of(file.get());
        if (content == Content::None || content == Content::Log) return file;
        reason = "not a log file";
        if (content == Content::Other) return HostFd();
        reason = "a log of an earlier version, which cannot be renamed";
        struct stat status;
        if (fstat(file.get(), &status) != 0 || rotate(path, limits, status) == Rotated::Refused) break;
    }
    return HostFd();
}

Rotated rotate(const std::string& path, const LogLimits& limits, const struct stat& expected) {
    // A description of its own: those of a process and of its forked children share a lock.
    const HostFd file = open_host(path.c_str(), kFlags);
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0 || !same_file(status, expected)) return Rotated::Busy;
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) return Rotated::Busy;
    Rotated result = Rotated::Busy;
    if (lstat(path.c_str(), &status) == 0 && same_file(status, expected)) {
        result = shift(path, limits.files) ? Rotated::Yes : Rotated::Refused;
    }
    flock(file.get(), LOCK_UN);
    return result;
}

}  // namespace zr::log
