#pragma once

// Short names for what the tests of files do over and over.

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "platform/base.h"
#include "platform/files.h"
#include "platform/kernel.h"
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

// While it lives the administrator's right to pass over permissions is laid down, so that a test that runs as root
// meets them like everybody else.
class WithoutOverride {
public:
    WithoutOverride() { change(false); }
    ~WithoutOverride() { change(true); }
    WithoutOverride(const WithoutOverride&) = delete;
    WithoutOverride& operator=(const WithoutOverride&) = delete;

private:
    static void change(bool raise) {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[2];
        ASSERT_EQ(syscall(SYS_capget, &header, data), 0);
        constexpr unsigned kOverride = (1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH);
        data[0].effective =
            raise ? data[0].effective | (data[0].permitted & kOverride) : data[0].effective & ~kOverride;
        ASSERT_EQ(syscall(SYS_capset, &header, data), 0);
    }
};

}  // namespace zr::test
