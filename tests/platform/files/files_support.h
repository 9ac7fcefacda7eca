#pragma once

// Short names for what the tests of files do over and over.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "platform/base.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "support/permissions.h"
#include "support/sandbox.h"

namespace zr::test {

inline void write_text(const std::filesystem::path& path, const std::string& text = {}) {
    std::ofstream(path, std::ios::binary) << text;
}

inline std::string read_text(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The names that a search yields, each once; `error` is the last error at its end.
inline std::multiset<std::u16string> search(const std::u16string& path, DWORD* error = nullptr) {
    std::multiset<std::u16string> names;
    WIN32_FIND_DATAW data;
    SetLastError(0);
    const HANDLE handle = FindFirstFileW(path.c_str(), &data);
    if (handle != INVALID_HANDLE_VALUE) {
        do
            names.insert(data.cFileName);
        while (FindNextFileW(handle, &data));
    }
    if (error) *error = GetLastError();
    EXPECT_EQ(FindClose(handle) != FALSE, handle != INVALID_HANDLE_VALUE);
    return names;
}

using Names = std::multiset<std::u16string>;

// The last error of a call that must fail.
#define EXPECT_FAILS_WITH(code, call)    \
    do {                                 \
        SetLastError(0xBAD);             \
        EXPECT_FALSE(call);              \
        EXPECT_EQ(GetLastError(), code); \
    } while (false)

}  // namespace zr::test
