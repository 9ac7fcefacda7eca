#pragma once

// A key of the registry for the length of a block.

#include "platform/registry.h"

class OpenRegistryKey {
public:
    OpenRegistryKey() = default;
    ~OpenRegistryKey() { Close(); }
    OpenRegistryKey(const OpenRegistryKey&) = delete;
    OpenRegistryKey& operator=(const OpenRegistryKey&) = delete;

    // Once an object.
    bool Open(HKEY root, const WCHAR* path) {
        m_error = RegOpenKeyExW(root, path, 0, KEY_READ, &m_key);
        return m_error == static_cast<LONG>(ERROR_SUCCESS);
    }
    bool Create(HKEY root, const WCHAR* path) {
        WCHAR noClass[] = u"";
        m_error =
            RegCreateKeyExW(root, path, 0, noClass, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr, &m_key, nullptr);
        return m_error == static_cast<LONG>(ERROR_SUCCESS);
    }
    void Close() {
        if (m_key != nullptr) RegCloseKey(m_key);
        m_key = nullptr;
    }

    LONG Error() const { return m_error; }  // of the last Open or Create
    operator HKEY() const { return m_key; }

private:
    HKEY m_key = nullptr;
    LONG m_error = 0;
};
