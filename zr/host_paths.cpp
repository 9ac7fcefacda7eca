#include "host_paths.h"

#include <platform/base.h>
#include <platform/files.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "failure.h"

namespace zr {

std::u16string handheld_folder(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), std::free);
    if (!real) throw file_failure(path, errno);
    struct stat status;
    if (stat(real.get(), &status) != 0) throw file_failure(path, errno);
    if (!S_ISDIR(status.st_mode)) throw file_failure(path, ENOTDIR);
    WCHAR buffer[MAX_PATH];
    const DWORD length = ZrHandheldPath(real.get(), buffer, MAX_PATH);
    if (length != 0) return {buffer, length};
    if (GetLastError() == ERROR_PATH_NOT_FOUND)
        throw Failure{Exit::Unreadable, path + ": lies outside the folder that ZR_ROOT names"};
    throw file_failure(path, ENAMETOOLONG);
}

std::string host_path(const std::u16string& path) {
    std::string host(4 * path.size() + 4096, '\0');
    const DWORD length = ZrHostPath(path.c_str(), host.data(), static_cast<DWORD>(host.size()));
    host.resize(length < host.size() ? length : 0);
    return host;
}

}  // namespace zr
