#include "ZrUtility/Helpers/RegistryAccessor.h"

#include <string_view>

#include "ZrUtility/Helpers/open_registry_key.h"
#include "ZrUtility/Helpers/registry_batch.h"

namespace {

constexpr LONG SUCCESS = static_cast<LONG>(ERROR_SUCCESS);
constexpr int NAME_CHARACTERS = 260;
// What the platform is told of a buffer of that many: its size in bytes. No name is as long as either.
constexpr DWORD STATED_CHARACTERS = NAME_CHARACTERS * sizeof(WCHAR);
constexpr DWORD DATA_BYTES = 1040;

const HKEY NO_ROOT = reinterpret_cast<HKEY>(static_cast<LONG_PTR>(-1));

bool IsValid(HKEY root) {
    return root != nullptr && root != NO_ROOT;
}

bool HasText(const WCHAR* text) {
    return text != nullptr && *text != 0;
}

bool Names(HKEY root, const WCHAR* subKey, const WCHAR* name) {
    return IsValid(root) && HasText(subKey) && HasText(name);
}

// Writes one value, and flushes it to the disk.
bool Write(HKEY root, const WCHAR* subKey, const WCHAR* name, DWORD type, const void* data, DWORD size) {
    OpenRegistryKey key;
    if (!key.Create(root, subKey)) return false;
    const LONG result = RegSetValueExW(key, name, 0, type, static_cast<const BYTE*>(data), size);
    RegFlushKey(key);
    return result == SUCCESS;
}

// The bytes that were stored as a text, or -1.
LONGLONG ReadString(HKEY root, const WCHAR* subKey, const WCHAR* name, WCHAR* dst, DWORD capacity) {
    OpenRegistryKey key;
    if (!key.Open(root, subKey)) return -1;
    DWORD type = REG_NONE;
    DWORD size = capacity;
    const LONG result = RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(dst), &size);
    return result == SUCCESS && type == REG_SZ ? LONGLONG{size} : -1;
}

unsigned int StoredSize(HKEY root, const WCHAR* subKey, const WCHAR* name) {
    OpenRegistryKey key;
    DWORD size = 0;
    if (!key.Open(root, subKey)) return 0;
    return RegQueryValueExW(key, name, nullptr, nullptr, nullptr, &size) == SUCCESS ? size : 0;
}

// A value that is larger than the buffer ends the copy.
void CopyValues(HKEY from, HKEY to) {
    if (ZrRegistryCopyValues(from, to, DATA_BYTES) == SUCCESS) return;
    WCHAR name[NAME_CHARACTERS];
    BYTE data[DATA_BYTES];
    for (DWORD index = 0;; ++index) {
        DWORD characters = STATED_CHARACTERS;
        DWORD size = DATA_BYTES;
        DWORD type = REG_NONE;
        if (RegEnumValueW(from, index, name, &characters, nullptr, &type, data, &size) != SUCCESS) return;
        RegSetValueExW(to, name, 0, type, data, size);
    }
}

// 0, or 1 when the last sub-key could not be opened or made.
LONG CopySubKeys(HKEY from, HKEY to) {
    LONG result = 0;
    WCHAR name[NAME_CHARACTERS];
    for (DWORD index = 0;; ++index) {
        DWORD characters = STATED_CHARACTERS;
        if (RegEnumKeyExW(from, index, name, &characters, nullptr, nullptr, nullptr, nullptr) != SUCCESS) return result;
        OpenRegistryKey source;
        OpenRegistryKey copy;
        result = source.Open(from, name) && copy.Create(to, name) ? 0 : 1;
        if (result == 0) CopyValues(source, copy);
    }
}

LONG MoveKey(HKEY root, const WCHAR* fromSubKey, const WCHAR* toSubKey) {
    OpenRegistryKey from;
    LONG result = from.Open(root, fromSubKey) ? SUCCESS : from.Error();
    if (result != SUCCESS) return result;
    {
        OpenRegistryKey to;
        result = to.Create(root, toSubKey) ? CopySubKeys(from, to) : to.Error();
    }
    from.Close();
    RegDeleteKeyW(root, fromSubKey);
    return result;
}

}  // namespace

ULONG RegistryAccessor::RegistryGetDWORD(HKEY root, const WCHAR* subKey, const WCHAR* name, ULONG def) {
    OpenRegistryKey key;
    if (!Names(root, subKey, name) || !key.Open(root, subKey)) return def;
    ULONG value = 0;
    DWORD size = sizeof value;
    DWORD type = REG_NONE;
    const LONG result = RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &size);
    return result == SUCCESS && type == REG_DWORD && size == sizeof value ? value : def;
}

int RegistryAccessor::RegistryGetInteger(HKEY root, const WCHAR* subKey, const WCHAR* name, int def) {
    return static_cast<int>(RegistryGetDWORD(root, subKey, name, static_cast<ULONG>(def)));
}

bool RegistryAccessor::RegistryGetBoolean(HKEY root, const WCHAR* subKey, const WCHAR* name, bool def) {
    return RegistryGetDWORD(root, subKey, name, def) != 0;
}

void RegistryAccessor::RegistrySetDWORD(HKEY root, const WCHAR* subKey, const WCHAR* name, ULONG value) {
    if (Names(root, subKey, name)) Write(root, subKey, name, REG_DWORD, &value, sizeof value);
}

void RegistryAccessor::RegistrySetInteger(HKEY root, const WCHAR* subKey, const WCHAR* name, int value) {
    RegistrySetDWORD(root, subKey, name, static_cast<ULONG>(value));
}

void RegistryAccessor::RegistrySetBoolean(HKEY root, const WCHAR* subKey, const WCHAR* name, bool value) {
    RegistrySetDWORD(root, subKey, name, value);
}

unsigned int RegistryAccessor::RegistryGetString(HKEY root, const WCHAR* subKey, const WCHAR* name, WCHAR* dst,
                                                 int dstChars, const WCHAR* def) {
    if (dst == nullptr || dstChars < 1) return root != NO_ROOT && HasText(subKey) ? StoredSize(root, subKey, name) : 0;
    const auto room = static_cast<DWORD>(dstChars);
    if (IsValid(root) && HasText(subKey) && name != nullptr) {
        const LONGLONG size = ReadString(root, subKey, name, dst, room * DWORD{sizeof(WCHAR)});
        if (size >= 0) return static_cast<unsigned int>(size) / sizeof(WCHAR);
    }
    std::u16string_view fallback = def != nullptr ? std::u16string_view(def) : std::u16string_view();
    if (fallback.size() >= room) fallback = {};
    dst[fallback.copy(dst, fallback.size())] = 0;
    return 0;
}

int RegistryAccessor::RegistrySetString(HKEY root, const WCHAR* subKey, const WCHAR* name, WCHAR* data, int byteCount) {
    if (!IsValid(root) || !HasText(name)) return 0;
    return Write(root, subKey, name, REG_SZ, data, static_cast<DWORD>(byteCount));
}

int RegistryAccessor::RegistryGetBinary(HKEY root, const WCHAR* subKey, const WCHAR* name, unsigned char* buf,
                                        int len) {
    if (buf == nullptr || len < 1 || !IsValid(root) || !HasText(subKey) || name == nullptr) return -1;
    OpenRegistryKey key;
    if (!key.Open(root, subKey)) return -2;
    DWORD type = REG_NONE;
    auto size = static_cast<DWORD>(len);
    const LONG result = RegQueryValueExW(key, name, nullptr, &type, buf, &size);
    return result == SUCCESS && type == REG_BINARY ? 0 : -3;
}

void RegistryAccessor::RegistrySetBinary(HKEY root, const WCHAR* subKey, const WCHAR* name, unsigned char* data,
                                         int len) {
    if (Names(root, subKey, name)) Write(root, subKey, name, REG_BINARY, data, static_cast<DWORD>(len));
}

LONG RegistryAccessor::RegistryMoveKey(HKEY root, const WCHAR* fromSubKey, const WCHAR* toSubKey) {
    if (root == nullptr || fromSubKey == nullptr || toSubKey == nullptr) return -1;
    {
        RegistryBatch batch;
        const LONG result = MoveKey(root, fromSubKey, toSubKey);
        if (batch.Keep()) return result;
    }
    // On a disk that is full, say: as far as it goes.
    return MoveKey(root, fromSubKey, toSubKey);
}

int RegistryAccessor::KeyExists(HKEY root, const WCHAR* subKey) {
    OpenRegistryKey key;
    return key.Open(root, subKey);
}

int RegistryAccessor::RegistryKeyValueExists(HKEY root, const WCHAR* subKey, const WCHAR* name) {
    OpenRegistryKey key;
    if (!key.Open(root, subKey)) return 0;
    BYTE data[4];
    DWORD size = sizeof data;
    return RegQueryValueExW(key, name, nullptr, nullptr, data, &size) == SUCCESS;
}

int RegistryAccessor::RegistryDeleteKeyValue(HKEY root, const WCHAR* subKey, const WCHAR* name) {
    OpenRegistryKey key;
    return key.Open(root, subKey) && RegDeleteValueW(key, name) == SUCCESS;
}
