#pragma once

// Proxy entries for tests, and what they hold.

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ZrUtility/Helpers/PyxProxyHelper.h"
#include "platform/base.h"
#include "platform/diagnostics.h"
#include "platform/kernel.h"
#include "platform_stand_ins.h"
#include "support/text.h"

namespace zr::test {

inline const std::u16string kEntries = u"Comm\\ConnMgr\\Providers\\{EF097F4C-DC4B-4c98-8FF6-AEF805DC0E8E}";
inline const std::u16string kBackups = u"SOFTWARE\\Kelvane\\Halcyon\\PyxBrowser";
inline const std::u16string kOwn = u"{3584769F-41FC-4035-BE97-320DA11E0F02}";
inline const std::u16string kInternet = u"{436EF144-B4FB-4863-A041-8F905A62C572}";
inline const std::u16string kWork = u"{A1182988-0D73-439E-87AD-2A5B369F808B}";
inline const std::u16string kSource = u"{11111111-2222-3333-4444-555555555555}";
inline constexpr GUID kSourceId = {0x11111111, 0x2222, 0x3333, {0x44, 0x44, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55}};

// What a key holds: type and data of each value.
struct StoredValue {
    DWORD type = 0;
    std::vector<BYTE> data;
    friend bool operator==(const StoredValue&, const StoredValue&) = default;
};
using StoredKey = std::map<std::u16string, StoredValue>;

inline StoredValue text_value(const std::u16string& text) {
    const auto* const bytes = reinterpret_cast<const BYTE*>(text.c_str());
    return {REG_SZ, {bytes, bytes + (text.size() + 1) * sizeof(WCHAR)}};
}
inline StoredValue number_value(DWORD number) {
    const auto* const bytes = reinterpret_cast<const BYTE*>(&number);
    return {REG_DWORD, {bytes, bytes + sizeof number}};
}

// Nothing when there is no such key.
inline std::optional<StoredKey> stored(const std::u16string& path) {
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, 0, &key) != 0) return std::nullopt;
    StoredKey values;
    WCHAR name[256];
    std::vector<BYTE> data(200000);
    for (DWORD i = 0;; ++i) {
        DWORD chars = 256;
        auto size = static_cast<DWORD>(data.size());
        StoredValue value;
        if (RegEnumValueW(key, i, name, &chars, nullptr, &value.type, data.data(), &size) != 0) break;
        value.data.assign(data.begin(), data.begin() + size);
        values[name] = value;
    }
    RegCloseKey(key);
    return values;
}
inline void store(const std::u16string& path, const StoredKey& values) {
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, 0, nullptr, &key, nullptr), 0);
    for (const auto& [name, value] : values) {
        RegSetValueExW(key, name.c_str(), 0, value.type, value.data.data(), static_cast<DWORD>(value.data.size()));
    }
    RegCloseKey(key);
}

class ProxyEntries : public testing::Test {
protected:
    using Item = PyxProxyHelper::ProviderItem;
    using Enumerator = PyxProxyHelper::ProviderEnumerator;

    ~ProxyEntries() override {
        PyxProxyHelper::Release();
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"Comm\\ConnMgr");
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"SOFTWARE\\Kelvane");
    }

    static std::u16string key_of(const std::u16string& entry) { return kEntries + u"\\" + entry; }
    static StoredKey entry(const std::u16string& name) { return stored(key_of(name)).value_or(StoredKey()); }
    static std::optional<StoredKey> backup(const std::u16string& name) { return stored(kBackups + u"\\" + name); }
    static std::unique_ptr<Item> item(const std::u16string& name) {
        return std::make_unique<Item>(nullptr, Text(name));
    }
    // All keys of the entries.
    static std::map<std::u16string, StoredKey> all() {
        std::map<std::u16string, StoredKey> found;
        HKEY key = nullptr;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kEntries.c_str(), 0, 0, &key) != 0) return found;
        WCHAR name[256];
        for (DWORD i = 0;; ++i) {
            DWORD chars = 256;
            if (RegEnumKeyExW(key, i, name, &chars, nullptr, nullptr, nullptr, nullptr) != 0) break;
            found[name] = entry(name);
        }
        RegCloseKey(key);
        return found;
    }

    const StandInsOfTest own_{};
};

}  // namespace zr::test
