#include "ZrUtility/Helpers/RegistryUtilities.h"

#include <memory>
#include <new>
#include <string_view>

#include "ZrUtility/Helpers/open_registry_key.h"

namespace {

constexpr LONG SUCCESS = static_cast<LONG>(ERROR_SUCCESS);
constexpr ULONG FALLBACK[2] = {0x00FFFFFF, 0x00993300};
const WCHAR* const COLOR_KEY = u"Software\\Microsoft\\Color";
const WCHAR* const COLOR_ARRAY = u"SHColor";

}  // namespace

std::atomic<ULONG> RegistryUtilities::m_colorValues[2] = {0xFFFFFF00, 0x99330000};
const WCHAR* const RegistryUtilities::m_colorValuesNames[2] = {u"9", u"8"};
const unsigned int RegistryUtilities::m_colorBlobIndices[2] = {9, 8};
const unsigned int RegistryUtilities::m_colorLargestBlobIndex = 9;
std::atomic<int> RegistryUtilities::m_bCacheValid = 0;

ULONG RegistryUtilities::GetColor(COLOR_INDICES index) {
    bool read = true;
    if (m_bCacheValid == 0) {
        read = ReadColors();
        if (read) m_bCacheValid = 1;
    }
    if (!read || m_colorValues[0] == m_colorValues[1]) {
        for (int i = 0; i < 2; ++i) {
            m_colorValues[i] = FALLBACK[i];
        }
    }
    return m_colorValues[index == COLOR_AT_8 ? 1 : 0];
}

void RegistryUtilities::InvalidateCache() {
    m_bCacheValid = 0;
}

bool RegistryUtilities::ReadColors() {
    OpenRegistryKey key;
    DWORD type = REG_NONE;
    DWORD size = 0;
    if (!key.Open(HKEY_LOCAL_MACHINE, COLOR_KEY)) return false;
    if (RegQueryValueExW(key, COLOR_ARRAY, nullptr, &type, nullptr, &size) != SUCCESS || type != REG_BINARY)
        return false;
    return (size / sizeof(ULONG) <= m_colorLargestBlobIndex || ReadArray(key, size)) && ReadOverrides(key);
}

bool RegistryUtilities::ReadArray(HKEY key, DWORD size) {
    // Zeros in place of what is not there when the value has become shorter meanwhile.
    const std::unique_ptr<ULONG[]> colors(new (std::nothrow) ULONG[size / sizeof(ULONG) + 1]());
    if (!colors) return false;
    if (RegQueryValueExW(key, COLOR_ARRAY, nullptr, nullptr, reinterpret_cast<BYTE*>(colors.get()), &size) != SUCCESS)
        return false;
    for (int i = 0; i < 2; ++i) {
        m_colorValues[i] = colors[m_colorBlobIndices[i]];
    }
    return true;
}

// Values of more than four bytes are passed over. False when the key was deleted meanwhile, or cannot be read on.
bool RegistryUtilities::ReadOverrides(HKEY key) {
    WCHAR name[512];
    for (DWORD index = 0;; ++index) {
        ULONG color = 0;
        DWORD characters = 512;
        DWORD size = sizeof color;
        const LONG result =
            RegEnumValueW(key, index, name, &characters, nullptr, nullptr, reinterpret_cast<BYTE*>(&color), &size);
        if (result == static_cast<LONG>(ERROR_MORE_DATA)) continue;
        if (result != SUCCESS) return result == static_cast<LONG>(ERROR_NO_MORE_ITEMS);
        for (int i = 0; i < 2; ++i) {
            if (std::u16string_view(name) == m_colorValuesNames[i]) m_colorValues[i] = color;
        }
    }
}
