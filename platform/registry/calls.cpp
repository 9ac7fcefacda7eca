// The calls of platform/registry.h, for as long as there is no store behind them.

#include "changes.h"
#include "platform/registry.h"

namespace {

constexpr LONG kUnavailable = static_cast<LONG>(ERROR_CALL_NOT_IMPLEMENTED);

}  // namespace

LONG RegOpenKeyExW(HKEY, LPCWSTR, DWORD, REGSAM, HKEY*) {
    return kUnavailable;
}
LONG RegCreateKeyExW(HKEY, LPCWSTR, DWORD, LPCWSTR, DWORD, REGSAM, const SECURITY_ATTRIBUTES*, HKEY*, DWORD*) {
    return kUnavailable;
}
LONG RegCloseKey(HKEY) {
    return kUnavailable;
}
LONG RegDeleteKeyW(HKEY, LPCWSTR) {
    return kUnavailable;
}
LONG RegFlushKey(HKEY) {
    return kUnavailable;
}
LONG RegEnumKeyExW(HKEY, DWORD, LPWSTR, DWORD*, DWORD*, LPWSTR, DWORD*, FILETIME*) {
    return kUnavailable;
}
LONG RegQueryInfoKeyW(HKEY, LPWSTR, DWORD*, DWORD*, DWORD*, DWORD*, DWORD*, DWORD*, DWORD*, DWORD*, DWORD*, FILETIME*) {
    return kUnavailable;
}
LONG RegQueryValueExW(HKEY, LPCWSTR, DWORD*, DWORD*, BYTE*, DWORD*) {
    return kUnavailable;
}
LONG RegSetValueExW(HKEY, LPCWSTR, DWORD, DWORD, const BYTE*, DWORD) {
    return kUnavailable;
}
LONG RegDeleteValueW(HKEY, LPCWSTR) {
    return kUnavailable;
}
LONG RegEnumValueW(HKEY, DWORD, LPWSTR, DWORD*, DWORD*, DWORD*, BYTE*, DWORD*) {
    return kUnavailable;
}
LONG ZrRegistryApply(const ZrRegistryChange*, DWORD, DWORD*) {
    return kUnavailable;
}
LONG ZrRegistryApplyEach(ZrRegistryNextChange, LPVOID, DWORD*) {
    return kUnavailable;
}
LPCWSTR ZrRegistryLastErrorText() {
    return u"";
}
LPCWSTR ZrRegistrySetAsideText() {
    return u"";
}

namespace zr::platform::registry {

DWORD key_id(HKEY, KeyId&) noexcept {
    return ERROR_CALL_NOT_IMPLEMENTED;
}
DWORD change_position(LONGLONG&) noexcept {
    return ERROR_CALL_NOT_IMPLEMENTED;
}
DWORD changes_since(LONGLONG, std::vector<Change>&, bool&) noexcept {
    return ERROR_CALL_NOT_IMPLEMENTED;
}
DWORD bell_path(std::string&) noexcept {
    return ERROR_CALL_NOT_IMPLEMENTED;
}

}  // namespace zr::platform::registry
