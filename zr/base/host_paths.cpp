#include "zr/base/host_paths.h"

#include <platform/base.h>
#include <platform/files.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "zr/base/failure.h"

namespace zr {
namespace {

std::string short_host_path(const std::u16string& path) {
    std::string host(4 * path.size() + 4096, '\0');
    const DWORD length = ZrHostPath(path.c_str(), host.data(), static_cast<DWORD>(host.size()));
    host.resize(length < host.size() ? length : 0);
    return host;
}

}  // namespace

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

// A path of a file in a watched folder can be longer than the platform's paths are: then the folder and the name are
// converted one by one.
std::string host_path(const std::u16string& path) {
    std::string host = short_host_path(path);
    const std::size_t cut = path.rfind(u'\\');
    if (!host.empty() || cut == path.npos) return host;
    const std::string name = short_host_path(path.substr(cut));
    const std::string folder = cut == 0 ? "" : short_host_path(path.substr(0, cut));
    return folder + name.substr(std::min(name.size(), name.rfind('/')));
}

}  // namespace zr
