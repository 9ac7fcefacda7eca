#include "base/state_folder.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "base/host_error.h"
#include "base/host_fd.h"
#include "platform/errors.h"

namespace zr::platform {

namespace {

constexpr mode_t kPrivateFolder = 0700;
constexpr mode_t kFolderWrittenByOthers = S_IWGRP | S_IWOTH;
constexpr const char* kPublic = "/tmp";
constexpr std::size_t kMostUserRecord = 16384;

Folder failed(const std::string& path, DWORD error, const std::string& reason) {
    return {{}, error, path + ": " + reason};
}

Folder failed(const std::string& path, int number) {
    char text[256] = {};
    return failed(path, error_from_errno(number), strerror_r(number, text, sizeof text));
}

std::string environment(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

// An XDG variable counts only when it is an absolute path.
std::string absolute_environment(const char* name) {
    std::string value = environment(name);
    if (value.empty() || value.front() != '/') value.clear();
    return value;
}

void strip_slashes(std::string& path) {
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
}

std::string home_folder() {
    std::string home = absolute_environment("HOME");
    if (!home.empty()) return home;
    char record[kMostUserRecord];
    passwd user{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &user, record, sizeof record, &found) != 0 || found == nullptr) return {};
    return found->pw_dir;
}

std::string absolute(std::string path) {
    if (path.front() == '/') return path;
    const std::unique_ptr<char, void (*)(void*)> here(getcwd(nullptr, 0), std::free);
    if (here == nullptr) return {};
    return std::string(here.get()) + "/" + path;
}

bool is_directory(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// 0, or the error number of the first part that could not be made.
int make_path(const std::string& path) {
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        const std::string part = path.substr(0, end);
        if (mkdir(part.c_str(), kPrivateFolder) != 0) {
            const int number = errno;
            // Another process may make the same folder meanwhile, and a folder that is there need not be writable.
            if (!is_directory(part)) return number == EEXIST ? ENOTDIR : number;
        }
        if (end == std::string::npos) return 0;
    }
}

// The folder as it is there, or why it cannot be used: it is another user's. The rights in `taken` are taken from its
// mode. The descriptor is of the thing that is checked: nobody can put another in its place in between.
Folder check_folder(const std::string& path, int flags, mode_t taken) {
    const HostFd folder = open_host(path.c_str(), O_RDONLY | O_DIRECTORY | flags);
    struct stat status {};
    if (!folder && (errno == ENOTDIR || errno == ELOOP)) return failed(path, ERROR_ACCESS_DENIED, "is not a folder");
    if (!folder || fstat(folder.get(), &status) != 0) return failed(path, errno);
    if (status.st_uid != geteuid())
        return failed(path, ERROR_ACCESS_DENIED,
                      "belongs to another user (" + std::to_string(status.st_uid) + "); remove it or name another one");
    const mode_t mode = status.st_mode & 07777 & ~taken;
    if (mode != (status.st_mode & 07777) && fchmod(folder.get(), mode) != 0) return failed(path, errno);
    return {path, ERROR_SUCCESS, {}};
}

Folder make_state_folder() {
    std::string path = environment("ZR_HOME");
    if (path.empty()) {
        path = absolute_environment("XDG_DATA_HOME");
        if (path.empty()) {
            path = home_folder();
            if (path.empty()) return failed("ZR_HOME", ERROR_PATH_NOT_FOUND, "not set, and there is no home folder");
            path += "/.local/share";
        }
        path += "/zrutility";
    }
    const std::string whole = absolute(path);
    if (whole.empty()) return failed(path, ERROR_PATH_NOT_FOUND, "the current folder does not exist");
    path = whole;
    strip_slashes(path);
    const int number = make_path(path);
    if (number != 0) return failed(path, number);
    return check_folder(path, 0, kFolderWrittenByOthers);
}

Folder make_private(const std::string& path) {
    if (mkdir(path.c_str(), kPrivateFolder) != 0 && errno != EEXIST) return failed(path, errno);
    return check_folder(path, O_NOFOLLOW, 07777 & ~kPrivateFolder);
}

// Under a folder that everybody may write somebody else may have been first. Then it is the first of these names that
// is there and ours, and if none is, the first one that can be made: so all processes of a user come to the same one,
// also when the stranger's is gone by then.
Folder make_in_public(const std::string& name) {
    const std::string names[] = {name, name + ".1", name + ".2", name + ".3"};
    for (const std::string& each : names) {
        struct stat status {};
        const bool there = lstat(each.c_str(), &status) == 0;
        if (there && S_ISDIR(status.st_mode) && status.st_uid == geteuid()) return make_private(each);
    }
    Folder result;
    for (const std::string& each : names) {
        result = make_private(each);
        if (result || result.error != ERROR_ACCESS_DENIED) break;
    }
    return result;
}

Folder make_runtime_folder() {
    std::string path = absolute_environment("XDG_RUNTIME_DIR");
    strip_slashes(path);
    if (path.empty()) return make_in_public(kPublic + std::string("/zrutility-") + std::to_string(geteuid()));
    return make_private(path + "/zrutility");
}

Folder guarded(Folder (*make)()) noexcept {
    try {
        return make();
    } catch (const std::bad_alloc&) {
        return {{}, ERROR_NOT_ENOUGH_MEMORY, {}};
    }
}

}  // namespace

Folder state_folder() noexcept {
    return guarded(make_state_folder);
}

Folder runtime_folder() noexcept {
    return guarded(make_runtime_folder);
}

}  // namespace zr::platform
