#include "platform/registry_readers.h"

#include <cstring>

#include "platform/base.h"

namespace {

// Below a key, for the length of a call.
class SubKey {
public:
    SubKey(HKEY key, LPCWSTR path) : key_(key) {
        if (path != nullptr && *path != 0) error_ = RegOpenKeyExW(key, path, 0, KEY_READ, &opened_);
    }
    ~SubKey() {
        if (opened_ != nullptr) RegCloseKey(opened_);
    }
    SubKey(const SubKey&) = delete;
    SubKey& operator=(const SubKey&) = delete;

    LONG query(LPCWSTR name, DWORD& type, void* data, DWORD& size) const {
        if (error_ != static_cast<LONG>(ERROR_SUCCESS)) return error_;
        return RegQueryValueExW(opened_ != nullptr ? opened_ : key_, name, nullptr, &type, static_cast<BYTE*>(data),
                                &size);
    }

private:
    HKEY key_;
    HKEY opened_ = nullptr;
    LONG error_ = static_cast<LONG>(ERROR_SUCCESS);
};

// Another type counts as wrong whatever its size.
DWORD judged(LONG result, DWORD type, DWORD wanted) {
    const auto error = static_cast<DWORD>(result);
    if (error != ERROR_SUCCESS && error != ERROR_MORE_DATA) return error;
    if (type != wanted) return ERROR_INVALID_DATA;
    return error;
}

DWORD read_text(const SubKey& key, LPCWSTR name, LPWSTR data, UINT chars) {
    constexpr UINT most = 0xFFFFFFFFu / sizeof(WCHAR);
    DWORD type = 0;
    DWORD size = (chars < most ? chars : most) * static_cast<DWORD>(sizeof(WCHAR));
    const LONG result = key.query(name, type, data, size);
    const DWORD error = judged(result, type, REG_SZ);
    if (error != ERROR_SUCCESS) return error == ERROR_MORE_DATA ? ERROR_INSUFFICIENT_BUFFER : error;
    const DWORD stored = size / static_cast<DWORD>(sizeof(WCHAR));
    const auto length = static_cast<DWORD>(wcsnlen(data, stored));
    if (length == chars) return ERROR_INSUFFICIENT_BUFFER;
    data[length] = 0;
    return ERROR_SUCCESS;
}

}  // namespace

HRESULT RegistryGetString(HKEY key, LPCWSTR subKey, LPCWSTR name, LPWSTR data, UINT chars) {
    if (data == nullptr || chars == 0) return E_INVALIDARG;
    const DWORD error = read_text(SubKey(key, subKey), name, data, chars);
    if (error != ERROR_SUCCESS) *data = 0;
    return HRESULT_FROM_WIN32(error);
}

HRESULT RegistryGetDWORD(HKEY key, LPCWSTR subKey, LPCWSTR name, DWORD* data) {
    if (data == nullptr) return E_INVALIDARG;
    DWORD type = 0;
    DWORD value = 0;
    DWORD size = sizeof value;
    const LONG result = SubKey(key, subKey).query(name, type, &value, size);
    DWORD error = judged(result, type, REG_DWORD);
    if (error == ERROR_MORE_DATA || (error == ERROR_SUCCESS && size != sizeof value)) error = ERROR_INVALID_DATA;
    if (error == ERROR_SUCCESS) *data = value;
    return HRESULT_FROM_WIN32(error);
}
