// Handles of watched folders.

#include <algorithm>

#include "change_source.h"
#include "entry.h"
#include "files/change_caller.h"
#include "files/host_path.h"
#include "folder_watch.h"
#include "platform/file_changes.h"

namespace zr::platform {
namespace {

constexpr DWORD kFilters = FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME | FILE_NOTIFY_CHANGE_ATTRIBUTES |
                           FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_LAST_ACCESS |
                           FILE_NOTIFY_CHANGE_CREATION | FILE_NOTIFY_CHANGE_SECURITY;

DWORD begin(ChangeSource& source, FolderWatch& watch) {
    const std::lock_guard guard(source.lock());
    return watch.begin();
}

HANDLE watch_folder(LPCWSTR path, bool subtree, DWORD filter) {
    const bool known = (filter & ~(kFilters | FILE_NOTIFY_CHANGE_CEGETINFO)) == 0;
    if (!known || (filter & kFilters) == 0) return fail(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
    HostPath host = existing_host_path(path);
    if (host.error == ERROR_FILE_NOT_FOUND) host.error = ERROR_PATH_NOT_FOUND;
    if (host.error) return fail(host.error, INVALID_HANDLE_VALUE);
    ChangeSource& source = ChangeSource::instance();
    DWORD error = source.begin();
    if (error) return fail(error, INVALID_HANDLE_VALUE);

    if (host.path == "/") host.path.clear();
    const auto watch = Ref<FolderWatch>::adopt(new FolderWatch(source, std::move(host.path), subtree, filter));
    HANDLE handle = nullptr;
    try {
        error = begin(source, *watch);
        if (error == ERROR_SUCCESS) handle = open_handle(*watch);
    } catch (const std::bad_alloc&) {
        error = ERROR_NOT_ENOUGH_MEMORY;
    }
    if (handle) return handle;
    source.remove(*watch);
    if (error) SetLastError(error == ERROR_FILE_NOT_FOUND ? ERROR_PATH_NOT_FOUND : error);
    return INVALID_HANDLE_VALUE;
}

}  // namespace

bool call_at_changes(HANDLE changes, HostSource& source) {
    const auto watch = lookup<FolderWatch>(changes);
    if (watch) watch->call(source);
    return static_cast<bool>(watch);
}

}  // namespace zr::platform

using namespace zr::platform;

HANDLE FindFirstChangeNotificationW(LPCWSTR path, BOOL subtree, DWORD filter) {
    return enter(INVALID_HANDLE_VALUE, [&] { return watch_folder(path, subtree != FALSE, filter); });
}

BOOL FindNextChangeNotification(HANDLE changes) {
    cancellation_point();
    const auto watch = lookup<FolderWatch>(changes);
    if (!watch) return FALSE;
    const DWORD error = watch->next();
    return error ? fail(error, FALSE) : TRUE;
}

BOOL FindCloseChangeNotification(HANDLE changes) {
    return close_handle(changes, ObjectKind::FileChanges) ? TRUE : FALSE;
}

BOOL CeGetFileNotificationInfo(HANDLE changes, DWORD flags, LPVOID buffer, DWORD size, LPDWORD returned,
                               LPDWORD available) {
    cancellation_point();
    const auto watch = lookup<FolderWatch>(changes);
    if (!watch) return FALSE;
    if (flags != 0 || !watch->keeps_records() || (!buffer && size != 0)) return fail(ERROR_INVALID_PARAMETER, FALSE);
    std::size_t left = 0;
    const std::size_t taken = watch->take({static_cast<std::byte*>(buffer), size}, left);
    if (returned) *returned = static_cast<DWORD>(taken);
    if (available) *available = static_cast<DWORD>(std::min<std::size_t>(left, 0xFFFFFFFF));
    return taken == 0 && left > 0 && buffer ? fail(ERROR_INSUFFICIENT_BUFFER, FALSE) : TRUE;
}
