#pragma once

// Keys that close themselves, and values as C++ has them.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/registry.h"

namespace zr::test {

inline constexpr LONG kOk = static_cast<LONG>(ERROR_SUCCESS);
constexpr LONG code(DWORD error) {
    return static_cast<LONG>(error);
}

class Key {
public:
    Key() = default;
    explicit Key(HKEY key) : key_(key) {}
    ~Key() { close(); }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;
    Key(Key&& other) noexcept : key_(std::exchange(other.key_, nullptr)) {}
    Key& operator=(Key&& other) noexcept {
        std::swap(key_, other.key_);
        return *this;
    }
    HKEY* out() {
        close();
        return &key_;
    }
    void close() {
        if (key_ == nullptr) return;
        EXPECT_EQ(RegCloseKey(std::exchange(key_, nullptr)), kOk);
    }
    operator HKEY() const { return key_; }

private:
    HKEY key_ = nullptr;
};

inline Key create(HKEY root, const std::u16string& path, DWORD* disposition = nullptr) {
    Key key;
    EXPECT_EQ(RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.out(), disposition), kOk);
    return key;
}

inline LONG open(HKEY root, const std::u16string& path, Key& key) {
    return RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, key.out());
}

inline bool exists(HKEY root, const std::u16string& path) {
    Key key;
    const LONG result = open(root, path, key);
    EXPECT_TRUE(result == kOk || result == code(ERROR_FILE_NOT_FOUND)) << result;
    return result == kOk;
}

inline LONG set(HKEY key, const std::u16string& name, DWORD type, const std::string& data) {
    return RegSetValueExW(key, name.c_str(), 0, type, reinterpret_cast<const BYTE*>(data.data()),
                          static_cast<DWORD>(data.size()));
}

inline LONG set_dword(HKEY key, const std::u16string& name, DWORD value) {
    return RegSetValueExW(key, name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
}

struct Data {
    LONG result = 0;
    DWORD type = 0;
    std::string bytes;
};

inline Data get(HKEY key, const std::u16string& name) {
    Data data;
    DWORD size = 0;
    data.result = RegQueryValueExW(key, name.c_str(), nullptr, &data.type, nullptr, &size);
    if (data.result != kOk) return data;
    data.bytes.resize(size + 1);
    size = static_cast<DWORD>(data.bytes.size());
    data.result =
        RegQueryValueExW(key, name.c_str(), nullptr, &data.type, reinterpret_cast<BYTE*>(data.bytes.data()), &size);
    data.bytes.resize(size);
    return data;
}

// The number of a REG_DWORD; one that no test uses when there is none.
inline DWORD get_dword(HKEY key, const std::u16string& name) {
    DWORD value = 0xDEADBEEF;
    DWORD type = 0;
    DWORD size = sizeof value;
    const LONG result = RegQueryValueExW(key, name.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(&value), &size);
    return result == kOk && type == REG_DWORD && size == sizeof value ? value : 0xDEADBEEF;
}

// The names that RegEnumKeyExW or RegEnumValueW tells.
template <class Function>
std::vector<std::u16string> names(HKEY key, Function* enumerate) {
    std::vector<std::u16string> all;
    for (DWORD i = 0;; ++i) {
        WCHAR name[256];
        DWORD chars = 256;
        const LONG result = enumerate(key, i, name, &chars, nullptr, nullptr, nullptr, nullptr);
        if (result != kOk) {
            EXPECT_EQ(result, code(ERROR_NO_MORE_ITEMS));
            return all;
        }
        all.emplace_back(name, chars);
    }
}

inline std::vector<std::u16string> sub_keys(HKEY key) {
    return names(key, RegEnumKeyExW);
}

inline std::vector<std::u16string> value_names(HKEY key) {
    return names(key, RegEnumValueW);
}

}  // namespace zr::test
