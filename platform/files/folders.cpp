#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/host_error.h"
#include "entry.h"
#include "files/host_path.h"
#include "platform/files.h"

namespace zr::platform {
namespace {

// A folder goes with rmdir, a link to one with unlink: what it leads to stays.
DWORD remove_folder(const HostPath& host) {
    if (host.root) return ERROR_ACCESS_DENIED;
    if (rmdir(host.path.c_str()) == 0) return ERROR_SUCCESS;
    if (errno == EEXIST) return ERROR_DIR_NOT_EMPTY;  // some file systems say it so
    if (errno != ENOTDIR) return error_from_errno(errno);
    struct stat link;
    struct stat target;
    if (lstat(host.path.c_str(), &link) != 0) return error_from_errno(errno);
    const bool to_folder = S_ISLNK(link.st_mode) && stat(host.path.c_str(), &target) == 0 && S_ISDIR(target.st_mode);
    if (!to_folder) return ERROR_DIRECTORY;
    return unlink(host.path.c_str()) == 0 ? ERROR_SUCCESS : error_from_errno(errno);
}

std::u16string temporary_folder() {
    const char* set = getenv("TMPDIR");
    std::u16string path;
    if (!handheld_path(set && *set ? set : "/tmp", path) || path.size() + 1 >= MAX_PATH) path = u"\\Temp";
    if (path.back() != u'\\') path += u'\\';
    return path;
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

BOOL CreateDirectoryW(LPCWSTR path, SECURITY_ATTRIBUTES*) {
    return enter(FALSE, [&] {
        const HostPath host = new_host_path(path);
        if (host.error) return fail(host.error, FALSE);
        if (host.exists) return fail(ERROR_ALREADY_EXISTS, FALSE);
        if (mkdir(host.path.c_str(), 0777) == 0) return TRUE;
        // The place was there a moment ago: its folder went away meanwhile.
        return fail(errno == ENOENT ? ERROR_PATH_NOT_FOUND : error_from_errno(errno), FALSE);
    });
}

BOOL RemoveDirectoryW(LPCWSTR path) {
    return enter(FALSE, [&] {
        const HostPath host = existing_host_path(path);
        if (host.error == ERROR_INVALID_NAME)
            return fail(ERROR_DIRECTORY, FALSE);  // a file, with a separator behind it
        const DWORD error = host.error ? host.error : remove_folder(host);
        return error ? fail(error, FALSE) : TRUE;
    });
}

DWORD GetTempPathW(DWORD size, LPWSTR buffer) {
    return enter(DWORD{0}, [&] {
        const std::u16string path = temporary_folder();
        const auto length = static_cast<DWORD>(path.size());
        if (size <= length || !buffer) return length + 1;
        path.copy(buffer, length);
        buffer[length] = 0;
        return length;
    });
}
