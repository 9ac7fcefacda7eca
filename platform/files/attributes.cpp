#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "base/host_error.h"
#include "dos_attributes.h"
#include "entry.h"
#include "file_facts.h"
#include "files/host_path.h"
#include "platform/files.h"

namespace zr::platform {
namespace {

// One look at the file when its path is written as the host has it, which is nearly always.
DWORD facts_of(LPCWSTR path, Wanted wanted, FileFacts& facts) {
    HostPath host = spelled_host_path(path);
    if (host.error) return host.error;
    int error = read_file_facts(AT_FDCWD, {}, host.path.c_str(), wanted, facts);
    if (error == ENOENT || error == ENOTDIR) {
        host = existing_host_path(path);
        if (host.error) return host.error;
        error = read_file_facts(AT_FDCWD, {}, host.path.c_str(), wanted, facts);
    }
    if (error == 0 && host.names_folder && !(facts.attributes & FILE_ATTRIBUTE_DIRECTORY)) return ERROR_INVALID_NAME;
    // The root has no name that could hide it.
    if (error == 0 && host.root) facts.attributes &= ~FILE_ATTRIBUTE_HIDDEN;
    return error ? error_from_errno(error) : ERROR_SUCCESS;
}

// Read-only is a file nobody may write; to end that is to let its owner write.
int write_mode(const char* path, bool read_only, bool& written) {
    struct stat status;
    if (stat(path, &status) != 0) return errno;
    if (read_only == ((status.st_mode & kAnyWrite) == 0)) return 0;
    written = true;
    const mode_t mode = read_only ? status.st_mode & ~kAnyWrite : status.st_mode | S_IWUSR;
    return chmod(path, mode & 07777) == 0 ? 0 : errno;
}

// The host lets nobody but the administrator store attributes of a file that may not be written, so writing is allowed
// before and forbidden after.
int write_attributes(const char* path, DWORD attributes, bool& written) {
    const bool read_only = (attributes & FILE_ATTRIBUTE_READONLY) != 0;
    if (!read_only)
        if (const int error = write_mode(path, false, written)) return error;
    int error = write_dos_attributes(path, attributes & kStoredAttributes, &written);
    if (error == EACCES && read_only) {
        error = write_mode(path, false, written);
        if (error == 0) error = write_dos_attributes(path, attributes & kStoredAttributes, &written);
    }
    if (error) return error;
    return read_only ? write_mode(path, true, written) : 0;
}

// Who sets what is set already says so to those who watch, as far as the host lets him.
void tell_again(const char* path) {
    struct stat status;
    if (stat(path, &status) == 0) [[maybe_unused]]
        const int ignored = chmod(path, status.st_mode & 07777);
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

DWORD GetFileAttributesW(LPCWSTR path) {
    return enter(INVALID_FILE_ATTRIBUTES, [&] {
        FileFacts facts;
        if (const DWORD error = facts_of(path, Wanted::AttributesOnly, facts))
            return fail(error, INVALID_FILE_ATTRIBUTES);
        return facts.attributes;
    });
}

BOOL GetFileAttributesExW(LPCWSTR path, GET_FILEEX_INFO_LEVELS level, LPVOID data) {
    return enter(FALSE, [&] {
        if (level != GetFileExInfoStandard || !data) return fail(ERROR_INVALID_PARAMETER, FALSE);
        FileFacts facts;
        if (const DWORD error = facts_of(path, Wanted::Everything, facts)) return fail(error, FALSE);
        *static_cast<WIN32_FILE_ATTRIBUTE_DATA*>(data) = {facts.attributes,
                                                          facts.created,
                                                          facts.accessed,
                                                          facts.written,
                                                          static_cast<DWORD>(facts.size >> 32),
                                                          static_cast<DWORD>(facts.size)};
        return TRUE;
    });
}

BOOL SetFileAttributesW(LPCWSTR path, DWORD attributes) {
    return enter(FALSE, [&] {
        const HostPath host = existing_host_path(path);
        if (host.error) return fail(host.error, FALSE);
        bool written = false;
        const int error = write_attributes(host.path.c_str(), attributes, written);
        if (error) return fail(error_from_errno(error), FALSE);
        if (!written) tell_again(host.path.c_str());
        return TRUE;
    });
}
