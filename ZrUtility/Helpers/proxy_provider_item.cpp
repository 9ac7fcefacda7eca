#include <memory>
#include <new>

#include "ZrUtility/Helpers/PyxProxyHelper.h"
#include "ZrUtility/Helpers/open_registry_key.h"
#include "ZrUtility/Helpers/proxy_entries.h"
#include "platform/base.h"
#include "platform/com.h"
#include "platform/registry_readers.h"

namespace {

constexpr ULONG NAME_CHARS = 256;
constexpr ULONG VALUE_CHARS = 256;
constexpr ULONG VALUE_BYTES = 256;
constexpr ULONG ENTRY_CHARS = 809;

// What an entry holds; the order is that of the bits of its changes.
enum Value { CONNECTION_GUID, DEST_ID, SRC_ID, TYPE, ENABLE, PROXY, USER_NAME, PASSWORD };

struct ValueKind {
    const WCHAR* name;
    bool isNumber;
};
constexpr ValueKind VALUES[] = {
    {u"ConnectionGUID", false}, {u"DestId", false}, {u"SrcId", false},    {u"Type", true},
    {u"Enable", true},          {u"Proxy", false},  {u"UserName", false}, {u"Password", false},
};

bool Succeeded(LONG result) {
    return result == static_cast<LONG>(ERROR_SUCCESS);
}

// Texts one behind the other, in a buffer of a fixed size.
class Appender {
public:
    Appender(WCHAR* text, ULONG chars) : m_at(text), m_left(chars) { *text = 0; }

    template <class... Arguments>
    bool Append(const WCHAR* format, Arguments... arguments) {
        if (FAILED(StringCchPrintfW(m_at, m_left, format, arguments...))) return false;
        const auto length = wcslen(m_at);
        m_at += length;
        m_left -= length;
        return true;
    }

private:
    WCHAR* m_at;
    std::size_t m_left;
};

}  // namespace

PyxProxyHelper::ProviderItem::ProviderItem(HKEY key, WCHAR* name) : m_hKey(key), m_name{}, m_changed(0) {
    Initialize(key, name);
}

PyxProxyHelper::ProviderItem::ProviderItem(HKEY key, WCHAR* prefix, WCHAR* suffix)
    : m_hKey(key), m_name{}, m_changed(0) {
    WCHAR name[NAME_CHARS];
    StringCchPrintfW(name, NAME_CHARS, u"%s%s", prefix != nullptr ? prefix : u"", suffix != nullptr ? suffix : u"");
    Initialize(key, name);
}

void PyxProxyHelper::ProviderItem::Initialize(HKEY key, WCHAR* name) {
    if (key == nullptr && name != nullptr) {
        WCHAR path[NAME_CHARS + 100];
        if (SUCCEEDED(StringCchPrintfW(path, NAME_CHARS + 100, u"%s%s%s", PROXY_PROVIDER_KEY, name, u"")))
            RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr,
                            &m_hKey, nullptr);
    }
    StringCchCopyW(m_name, sizeof m_name / sizeof *m_name, name != nullptr ? name : u"");
}

PyxProxyHelper::ProviderItem::~ProviderItem() {
    if (m_hKey == nullptr) return;
    RegFlushKey(m_hKey);
    RegCloseKey(m_hKey);
}

// ---- Values ----

int PyxProxyHelper::ProviderItem::GetString(const WCHAR* name, WCHAR* buffer, ULONG chars) {
    if (m_hKey == nullptr || buffer == nullptr || chars == 0) return 0;
    return SUCCEEDED(RegistryGetString(m_hKey, nullptr, name, buffer, chars));
}

int PyxProxyHelper::ProviderItem::GetDWORD(const WCHAR* name, ULONG* value) {
    if (m_hKey == nullptr || value == nullptr) return 0;
    return SUCCEEDED(RegistryGetDWORD(m_hKey, nullptr, name, value));
}

int PyxProxyHelper::ProviderItem::SetString(const WCHAR* name, const WCHAR* value, int backup, int bit) {
    if (m_hKey == nullptr || value == nullptr || name == nullptr) return 0;
    WCHAR stored[VALUE_CHARS];
    if (GetString(name, stored, VALUE_CHARS) && _wcsicmp(stored, value) == 0) return 1;
    if (backup) BackupValue(name);
    const auto size = static_cast<DWORD>((wcslen(value) + 1) * sizeof(WCHAR));
    if (!Succeeded(RegSetValueExW(m_hKey, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value), size))) return 0;
    m_changed |= 1u << bit;
    return 1;
}

int PyxProxyHelper::ProviderItem::SetDWORD(const WCHAR* name, ULONG value, int backup, int bit) {
    if (m_hKey == nullptr || name == nullptr) return 0;
    ULONG stored = 0;
    if (GetDWORD(name, &stored) && stored == value) return 1;
    if (backup) BackupValue(name);
    const auto* const bytes = reinterpret_cast<const BYTE*>(&value);
    if (!Succeeded(RegSetValueExW(m_hKey, name, 0, REG_DWORD, bytes, sizeof value))) return 0;
    m_changed |= 1u << bit;
    return 1;
}

int PyxProxyHelper::ProviderItem::GetConnectionGUID(WCHAR* buffer, ULONG chars) {
    return GetString(VALUES[CONNECTION_GUID].name, buffer, chars);
}
int PyxProxyHelper::ProviderItem::GetDestId(WCHAR* buffer, ULONG chars) {
    return GetString(VALUES[DEST_ID].name, buffer, chars);
}
int PyxProxyHelper::ProviderItem::GetSrcId(WCHAR* buffer, ULONG chars) {
    return GetString(VALUES[SRC_ID].name, buffer, chars);
}
int PyxProxyHelper::ProviderItem::GetProxy(WCHAR* buffer, ULONG chars) {
    return GetString(VALUES[PROXY].name, buffer, chars);
}
int PyxProxyHelper::ProviderItem::GetUserName(WCHAR* buffer, ULONG chars) {
    return GetString(VALUES[USER_NAME].name, buffer, chars);
}
int PyxProxyHelper::ProviderItem::GetPassword(WCHAR* buffer, ULONG chars) {
    return GetString(VALUES[PASSWORD].name, buffer, chars);
}
int PyxProxyHelper::ProviderItem::GetType(ULONG* value) {
    return GetDWORD(VALUES[TYPE].name, value);
}
int PyxProxyHelper::ProviderItem::GetEnable(int* value) {
    ULONG number = 0;
    if (value == nullptr || !GetDWORD(VALUES[ENABLE].name, &number)) return 0;
    *value = static_cast<int>(number);
    return 1;
}

int PyxProxyHelper::ProviderItem::SetConnectionGUID(WCHAR* value, int backup) {
    return SetString(VALUES[CONNECTION_GUID].name, value, backup, CONNECTION_GUID);
}
int PyxProxyHelper::ProviderItem::SetDestId(WCHAR* value, int backup) {
    return SetString(VALUES[DEST_ID].name, value, backup, DEST_ID);
}
int PyxProxyHelper::ProviderItem::SetSrcId(WCHAR* value, int backup) {
    return SetString(VALUES[SRC_ID].name, value, backup, SRC_ID);
}
int PyxProxyHelper::ProviderItem::SetProxy(WCHAR* value, int backup) {
    return SetString(VALUES[PROXY].name, value, backup, PROXY);
}
int PyxProxyHelper::ProviderItem::SetUserName(WCHAR* value, int backup) {
    return SetString(VALUES[USER_NAME].name, value, backup, USER_NAME);
}
int PyxProxyHelper::ProviderItem::SetPassword(WCHAR* value, int backup) {
    return SetString(VALUES[PASSWORD].name, value, backup, PASSWORD);
}
int PyxProxyHelper::ProviderItem::SetType(ULONG value, int backup) {
    return SetDWORD(VALUES[TYPE].name, value, backup, TYPE);
}
int PyxProxyHelper::ProviderItem::SetEnable(int value, int backup) {
    return SetDWORD(VALUES[ENABLE].name, static_cast<ULONG>(value), backup, ENABLE);
}

// ---- What was before ----

// Without a name it would be the place of all backups.
int PyxProxyHelper::ProviderItem::BackupPath(WCHAR* path, ULONG chars) const {
    return *m_name != 0 && SUCCEEDED(StringCchPrintfW(path, chars, u"%s%s", PROXY_BACKUP_KEY, m_name));
}

int PyxProxyHelper::ProviderItem::BackupValue(const WCHAR* valueName) {
    if (m_hKey == nullptr || valueName == nullptr) return 0;
    WCHAR path[sizeof m_name / sizeof *m_name + 51];
    OpenRegistryKey backup;
    if (!BackupPath(path, sizeof path / sizeof *path) || !backup.Create(HKEY_LOCAL_MACHINE, path)) return 0;
    if (Succeeded(RegQueryValueExW(backup, valueName, nullptr, nullptr, nullptr, nullptr))) return 0;
    BYTE data[VALUE_BYTES];
    DWORD size = sizeof data;
    DWORD type = 0;
    if (!Succeeded(RegQueryValueExW(m_hKey, valueName, nullptr, &type, data, &size))) return 0;
    return Succeeded(RegSetValueExW(backup, valueName, 0, type, data, size));
}

int PyxProxyHelper::ProviderItem::RevertChanges() {
    if (m_hKey == nullptr) return 0;
    WCHAR path[sizeof m_name / sizeof *m_name + 51];
    OpenRegistryKey backup;
    // Without a backup there is nothing to put back, and nothing to delete afterwards.
    if (!BackupPath(path, sizeof path / sizeof *path) || !backup.Open(HKEY_LOCAL_MACHINE, path)) return 1;
    int result = 1;
    for (DWORD i = 0;; ++i) {
        WCHAR name[VALUE_CHARS];
        BYTE data[VALUE_BYTES];
        DWORD chars = VALUE_CHARS;
        DWORD size = sizeof data;
        DWORD type = 0;
        if (!Succeeded(RegEnumValueW(backup, i, name, &chars, nullptr, &type, data, &size))) break;
        if (Succeeded(RegSetValueExW(m_hKey, name, 0, type, data, size))) {
            m_changed = 0xFFFFFFFF;
        } else {
            result = 0;
        }
    }
    backup.Close();
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, path);
    return result;
}

int PyxProxyHelper::ProviderItem::IsHalcyonProvider() {
    if (m_hKey == nullptr || *m_name == 0) return 0;
    const WCHAR* const brace = wcschr(m_name, u'{');
    CLSID found = {};
    return brace != nullptr && SUCCEEDED(CLSIDFromString(brace, &found)) && found == HALCYON_DESTINATION;
}

// ---- For the Connection Manager ----

int PyxProxyHelper::ProviderItem::WriteEntry(WCHAR* text, ULONG chars) {
    Appender entry(text, chars);
    if (!entry.Append(u" <characteristic type=\"%s\">\r\n", m_name)) return 0;
    for (int bit = 0; bit < static_cast<int>(sizeof VALUES / sizeof *VALUES); ++bit) {
        const ValueKind& kind = VALUES[bit];
        WCHAR value[VALUE_CHARS];
        ULONG number = 0;
        if (!IsChanged(bit)) continue;
        if (kind.isNumber) {
            if (!GetDWORD(kind.name, &number)) continue;
            if (!entry.Append(u" <parm name=\"%s\" value=\"%u\" />\r\n", kind.name, number)) return 0;
        } else {
            if (!GetString(kind.name, value, VALUE_CHARS)) continue;
            if (!entry.Append(u" <parm name=\"%s\" value=\"%s\" />\r\n", kind.name, value)) return 0;
        }
    }
    return entry.Append(u" </characteristic>\r\n");
}

WCHAR* PyxProxyHelper::ProviderItem::GenerateXMLEntry() {
    if (m_hKey == nullptr || m_changed == 0) return nullptr;
    std::unique_ptr<WCHAR[]> text(new (std::nothrow) WCHAR[ENTRY_CHARS]);
    return text && WriteEntry(text.get(), ENTRY_CHARS) ? text.release() : nullptr;
}

WCHAR* PyxProxyHelper::ProviderItem::GenerateConfigXML() {
    const std::unique_ptr<WCHAR[]> entry(GenerateXMLEntry());
    if (!entry) return nullptr;
    const std::size_t chars = wcslen(entry.get()) + PROXY_DOCUMENT_CHARS;
    std::unique_ptr<WCHAR[]> document(new (std::nothrow) WCHAR[chars]);
    if (!document) return nullptr;
    const HRESULT result =
        StringCchPrintfW(document.get(), chars, PROXY_DOCUMENT_HEAD u"%s" PROXY_DOCUMENT_TAIL, entry.get());
    return SUCCEEDED(result) ? document.release() : nullptr;
}
