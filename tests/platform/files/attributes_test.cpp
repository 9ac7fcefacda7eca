#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include "files_support.h"

namespace fs = std::filesystem;
using namespace zr::test;

namespace {

constexpr const char* kXattr = "user.DOSATTRIB";

class Attributes : public testing::Test {
protected:
    Attributes() {
        write_text(host_);
        stored_ = setxattr(host_.c_str(), "user.probe", "1", 1, 0) == 0;
        if (stored_) removexattr(host_.c_str(), "user.probe");
    }

    std::string stored() const {
        char value[256];
        const ssize_t size = getxattr(host_.c_str(), kXattr, value, sizeof value);
        return size < 0 ? "none" : std::string(value, static_cast<std::size_t>(size));
    }
    void store(const std::string& value) {
        ASSERT_EQ(setxattr(host_.c_str(), kXattr, value.data(), value.size(), 0), 0);
    }

    TempFolder folder_;
    const fs::path host_ = folder_.host() / "file";
    const std::u16string path_ = folder_.handheld() + u"\\file";
    bool stored_ = false;
};

// An empty text, version 5, level, flags, attributes, a time: what Samba writes.
std::string samba_value(char attributes) {
    std::string value("\0\0\5\0\5\0\0\0\x11\0\0\0\0\0\0\0\x10\x76\x9c\x5b\x6b\x8d\xd3\1", 24);
    value[12] = attributes;
    return value;
}

}  // namespace

TEST_F(Attributes, ComeFromTheHostsMode) {
    EXPECT_EQ(GetFileAttributesW(path_.c_str()), FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(GetFileAttributesW(folder_.handheld().c_str()), FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(GetFileAttributesW(u"\\"), FILE_ATTRIBUTE_DIRECTORY);
    ASSERT_EQ(chmod(host_.c_str(), 0444), 0);
    EXPECT_EQ(GetFileAttributesW(path_.c_str()), FILE_ATTRIBUTE_READONLY);
    ASSERT_EQ(chmod(host_.c_str(), 0464), 0);
    EXPECT_EQ(GetFileAttributesW(path_.c_str()), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(Attributes, LeadingDotHides) {
    write_text(folder_.host() / ".profile");
    fs::create_directory(folder_.host() / ".config");
    const std::u16string base = folder_.handheld();
    EXPECT_EQ(GetFileAttributesW((base + u"\\.profile").c_str()), FILE_ATTRIBUTE_HIDDEN);
    EXPECT_EQ(GetFileAttributesW((base + u"\\.config").c_str()), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(GetFileAttributesW((base + u"\\.config\\..\\file").c_str()), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(Attributes, AreStoredAsOthersStoreThem) {
    if (!stored_) GTEST_SKIP() << "this file system keeps no extended attributes";
    EXPECT_TRUE(SetFileAttributesW(path_.c_str(), FILE_ATTRIBUTE_HIDDEN));
    EXPECT_EQ(stored(), "0x2");
    EXPECT_EQ(GetFileAttributesW(path_.c_str()), FILE_ATTRIBUTE_HIDDEN);
    EXPECT_TRUE(SetFileAttributesW(path_.c_str(), FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE));
    EXPECT_EQ(stored(), "0x24");
    EXPECT_TRUE(SetFileAttributesW(path_.c_str(), FILE_ATTRIBUTE_NORMAL));
    EXPECT_EQ(stored(), "none");
    EXPECT_EQ(GetFileAttributesW(path_.c_str()), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(Attributes, OfOthersAreUnderstood) {
    if (!stored_) GTEST_SKIP() << "this file system keeps no extended attributes";
    const std::pair<std::string, DWORD> cases[] = {
        {"0x2", FILE_ATTRIBUTE_HIDDEN},
        {"0X26", FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE},
        {std::string("0x22\0\0\3\0\3\0", 10), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_ARCHIVE},
        {samba_value(0x22), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_ARCHIVE},
        {"0x10", FILE_ATTRIBUTE_NORMAL},  // what the host itself knows is not believed
        {"", FILE_ATTRIBUTE_NORMAL},
        {"0x", FILE_ATTRIBUTE_NORMAL},
        {"hidden", FILE_ATTRIBUTE_NORMAL},
        {std::string(256, '\xFF'), FILE_ATTRIBUTE_NORMAL},
        {std::string(1000, '0'), FILE_ATTRIBUTE_NORMAL},
    };
    for (const auto& [value, expected] : cases) {
        store(value);
        EXPECT_EQ(GetFileAttributesW(path_.c_str()), expected) << value;
    }
}

TEST_F(Attributes, WhatElseIsStoredStays) {
    if (!stored_) GTEST_SKIP() << "this file system keeps no extended attributes";
    store("0x801");
    EXPECT_TRUE(SetFileAttributesW(path_.c_str(), FILE_ATTRIBUTE_HIDDEN));
    EXPECT_EQ(stored(), "0x803");
    store(samba_value(0x20));
    EXPECT_TRUE(SetFileAttributesW(path_.c_str(), FILE_ATTRIBUTE_HIDDEN));
    EXPECT_EQ(stored(), samba_value(0x02));
    EXPECT_TRUE(SetFileAttributesW(path_.c_str(), FILE_ATTRIBUTE_NORMAL));
    EXPECT_EQ(stored(), samba_value(0));
}

TEST_F(Attributes, ReadOnlyAndHiddenTogether) {
    const WithoutOverride everybody;
    const DWORD both = FILE_ATTRIBUTE_READONLY | (stored_ ? FILE_ATTRIBUTE_HIDDEN : 0);
    EXPECT_TRUE(SetFileAttributesW(path_.c_str(), both));
    EXPECT_EQ(GetFileAttributesW(path_.c_str()), both);
    EXPECT_TRUE(SetFileAttributesW(path_.c_str(), both));  // writable in between, and read-only again
    EXPECT_EQ(GetFileAttributesW(path_.c_str()), both);
    EXPECT_TRUE(SetFileAttributesW(path_.c_str(), FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ(GetFileAttributesW(path_.c_str()), FILE_ATTRIBUTE_READONLY);
    EXPECT_TRUE(SetFileAttributesW(path_.c_str(), FILE_ATTRIBUTE_NORMAL));
    EXPECT_EQ(GetFileAttributesW(path_.c_str()), FILE_ATTRIBUTE_NORMAL);
    struct stat status;
    ASSERT_EQ(stat(host_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0200, 0200u);
}

// A look must never serve what it remembers from before a change, however old the file is.
TEST_F(Attributes, ChangesOfOthersAreSeenAtOnce) {
    if (!stored_) GTEST_SKIP() << "this file system keeps no extended attributes";
    for (int i = 0; i < 200; ++i) {
        store("0x2");
        EXPECT_EQ(GetFileAttributesW(path_.c_str()), FILE_ATTRIBUTE_HIDDEN);
        ASSERT_EQ(removexattr(host_.c_str(), kXattr), 0);
        EXPECT_EQ(GetFileAttributesW(path_.c_str()), FILE_ATTRIBUTE_NORMAL);
    }
}

TEST_F(Attributes, SearchShowsTheSame) {
    write_text(folder_.host() / ".hidden");
    if (stored_) SetFileAttributesW(path_.c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_READONLY);
    WIN32_FIND_DATAW data;
    const HANDLE handle = FindFirstFileW((folder_.handheld() + u"\\*").c_str(), &data);
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    int seen = 0;
    do {
        ++seen;
        EXPECT_EQ(data.dwFileAttributes, GetFileAttributesW((folder_.handheld() + u"\\" + data.cFileName).c_str()));
    } while (FindNextFileW(handle, &data));
    EXPECT_EQ(seen, 2);
    FindClose(handle);
}

TEST_F(Attributes, ExtendedForm) {
    write_text(host_, "1234");
    WIN32_FILE_ATTRIBUTE_DATA data;
    EXPECT_TRUE(GetFileAttributesExW(path_.c_str(), GetFileExInfoStandard, &data));
    EXPECT_EQ(data.dwFileAttributes, FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(data.nFileSizeLow, 4u);
    EXPECT_FAILS_WITH(ERROR_INVALID_PARAMETER, GetFileAttributesExW(path_.c_str(), GetFileExMaxInfoLevel, &data));
    EXPECT_FAILS_WITH(ERROR_INVALID_PARAMETER, GetFileAttributesExW(path_.c_str(), GetFileExInfoStandard, nullptr));
    EXPECT_FAILS_WITH(ERROR_FILE_NOT_FOUND, GetFileAttributesExW(u"\\absent", GetFileExInfoStandard, &data));
    EXPECT_FAILS_WITH(ERROR_FILE_NOT_FOUND, SetFileAttributesW(u"\\absent", FILE_ATTRIBUTE_HIDDEN));
    EXPECT_FAILS_WITH(ERROR_INVALID_PARAMETER, SetFileAttributesW(nullptr, FILE_ATTRIBUTE_HIDDEN));
}
