// Handles of change notifications.

#include <new>

#include "change_listener.h"
#include "kernel/thread.h"
#include "platform/base.h"

namespace zr::platform::registry {
namespace {

constexpr DWORD kFilters =
    REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_ATTRIBUTES | REG_NOTIFY_CHANGE_LAST_SET | REG_NOTIFY_CHANGE_SECURITY;

DWORD watch_key(HKEY key, bool subtree, DWORD filter, HANDLE& changes) noexcept {
    if (filter == 0 || (filter & ~kFilters) != 0) return ERROR_INVALID_PARAMETER;
    HKEY own = nullptr;
    if (const LONG failure = RegOpenKeyExW(key, nullptr, 0, KEY_NOTIFY, &own); failure != ERROR_SUCCESS)
        return static_cast<DWORD>(failure);
    ChangeListener* const listener = ChangeListener::get();
    auto* const made = listener ? new (std::nothrow) KeyWatch(*listener, own, subtree, filter) : nullptr;
    if (made == nullptr) {
        RegCloseKey(own);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    const auto watch = Ref<KeyWatch>::adopt(made);
    DWORD error = listener->add(*watch);
    if (error != ERROR_SUCCESS) return error;
    changes = open_handle(*watch);
    if (changes != nullptr) return ERROR_SUCCESS;
    error = GetLastError();
    listener->remove(*watch);
    return error;
}

}  // namespace
}  // namespace zr::platform::registry

using namespace zr::platform;

HANDLE CeFindFirstRegChange(HKEY key, BOOL subtree, DWORD filter) {
    cancellation_point();
    HANDLE changes = nullptr;
    const DWORD error = registry::watch_key(key, subtree != FALSE, filter, changes);
    if (error == ERROR_SUCCESS) return changes;
    SetLastError(error);
    return INVALID_HANDLE_VALUE;
}

BOOL CeFindNextRegChange(HANDLE changes) {
    cancellation_point();
    const auto watch = lookup<registry::KeyWatch>(changes);
    if (!watch) return FALSE;
    const DWORD error = watch->next();
    if (error != ERROR_SUCCESS) SetLastError(error);
    return error == ERROR_SUCCESS ? TRUE : FALSE;
}

BOOL CeFindCloseRegChange(HANDLE changes) {
    return close_handle(changes, ObjectKind::RegistryChanges) ? TRUE : FALSE;
}
