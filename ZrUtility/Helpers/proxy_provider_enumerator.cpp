#include <new>

#include "ZrUtility/Helpers/PyxProxyHelper.h"
#include "ZrUtility/Helpers/proxy_entries.h"
#include "platform/base.h"
#include "platform/com.h"

namespace {

constexpr ULONG NAME_CHARS = 256;
constexpr int GUID_CHARS = 39;

bool Succeeded(LONG result) {
    return result == static_cast<LONG>(ERROR_SUCCESS);
}

}  // namespace

PyxProxyHelper::ProviderEnumerator::ProviderEnumerator() : m_hKey(nullptr) {}

PyxProxyHelper::ProviderEnumerator::~ProviderEnumerator() {
    Cleanup();
}

int PyxProxyHelper::ProviderEnumerator::Initialize() {
    if (m_hKey != nullptr) return 1;
    return Succeeded(RegOpenKeyExW(HKEY_LOCAL_MACHINE, PROXY_PROVIDER_KEY, 0, KEY_ALL_ACCESS, &m_hKey));
}

int PyxProxyHelper::ProviderEnumerator::Cleanup() {
    if (m_hKey == nullptr) return 0;
    RegFlushKey(m_hKey);
    RegCloseKey(m_hKey);
    m_hKey = nullptr;
    return 1;
}

int PyxProxyHelper::ProviderEnumerator::GetNextItem(ULONG index, ProviderItem** item) {
    if (m_hKey == nullptr || item == nullptr) return 0;
    WCHAR name[NAME_CHARS];
    DWORD chars = NAME_CHARS;
    if (!Succeeded(RegEnumKeyExW(m_hKey, index, name, &chars, nullptr, nullptr, nullptr, nullptr))) return 0;
    return GetItem(name, item);
}

int PyxProxyHelper::ProviderEnumerator::GetItem(WCHAR* name, ProviderItem** item) {
    // An empty name would be the entries' key itself.
    if (m_hKey == nullptr || item == nullptr || name == nullptr || *name == 0) return 0;
    HKEY key = nullptr;
    if (!Succeeded(RegOpenKeyExW(m_hKey, name, 0, KEY_ALL_ACCESS, &key))) return 0;
    *item = new (std::nothrow) ProviderItem(key, name);
    if (*item != nullptr) return 1;
    RegCloseKey(key);
    return 0;
}

int PyxProxyHelper::ProviderEnumerator::GetItem(WCHAR* prefix, GUID guid, ProviderItem** item) {
    WCHAR text[GUID_CHARS];
    WCHAR name[NAME_CHARS];
    if (prefix == nullptr || StringFromGUID2(guid, text, GUID_CHARS) == 0) return 0;
    if (FAILED(StringCchPrintfW(name, NAME_CHARS, u"%s%s", prefix, text))) return 0;
    return GetItem(name, item);
}
