#include <sys/resource.h>
#include <unistd.h>

#include <random>

#include "files_support.h"
#include "platform/diagnostics.h"
#include "support/child.h"
#include "support/forked.h"

namespace fs = std::filesystem;
using namespace zr::test;

namespace {

constexpr DWORD kBoth = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE;

HANDLE open(const std::u16string& path, DWORD access, DWORD creation, DWORD share = kShareAll, DWORD flags = 0) {
    SetLastError(0xBAD);
    return CreateFileW(path.c_str(), access, share, nullptr, creation, flags, nullptr);
}

#define EXPECT_NO_FILE(code, call)             \
    do {                                       \
        EXPECT_EQ(call, INVALID_HANDLE_VALUE); \
        EXPECT_EQ(GetLastError(), code);       \
    } while (false)

std::string read(HANDLE file, DWORD size) {
    std::string text(size, '\0');
    DWORD got = 0;
    EXPECT_TRUE(ReadFile(file, text.data(), size, &got, nullptr));
    text.resize(got);
    return text;
}

DWORD write(HANDLE file, const std::string& text) {
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr));
    return written;
}

}  // namespace

TEST(OpenFile, EveryCreation) {
    const TempFolder folder;
    const std::u16string base = folder.handheld();
    const auto use = [](HANDLE file, DWORD last_error) {
        EXPECT_NE(file, INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), last_error);
        EXPECT_TRUE(CloseHandle(file));
    };
    EXPECT_NO_FILE(ERROR_FILE_NOT_FOUND, open(base + u"\\a", kBoth, OPEN_EXISTING));
    EXPECT_NO_FILE(ERROR_FILE_NOT_FOUND, open(base + u"\\a", kBoth, TRUNCATE_EXISTING));
    EXPECT_NO_FILE(ERROR_PATH_NOT_FOUND, open(base + u"\\no\\a", kBoth, OPEN_ALWAYS));
    use(open(base + u"\\a", kBoth, CREATE_NEW), 0xBAD);
    EXPECT_NO_FILE(ERROR_FILE_EXISTS, open(base + u"\\A", kBoth, CREATE_NEW));
    write_text(folder.host() / "a", "text");
    use(open(base + u"\\A", kBoth, OPEN_ALWAYS), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(read_text(folder.host() / "a"), "text");
    use(open(base + u"\\a", kBoth, CREATE_ALWAYS), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(fs::file_size(folder.host() / "a"), 0u);
    write_text(folder.host() / "a", "text");
    use(open(base + u"\\a", GENERIC_WRITE, TRUNCATE_EXISTING), 0xBAD);
    EXPECT_EQ(fs::file_size(folder.host() / "a"), 0u);
    use(open(base + u"\\b", kBoth, OPEN_ALWAYS), 0);
    use(open(base + u"\\c", kBoth, CREATE_ALWAYS), 0);
    EXPECT_EQ(search(base + u"\\*"), (Names{u"a", u"b", u"c"}));
}

TEST(OpenFile, Refusals) {
    const TempFolder folder;
    const std::u16string base = folder.handheld();
    write_text(folder.host() / "locked", "1");
    fs::permissions(folder.host() / "locked", fs::perms::owner_read);
    fs::create_symlink("nowhere", folder.host() / "broken");
    EXPECT_NO_FILE(ERROR_ACCESS_DENIED, open(base, GENERIC_READ, OPEN_EXISTING));
    EXPECT_NO_FILE(ERROR_ACCESS_DENIED, open(base + u"\\locked", GENERIC_WRITE, OPEN_EXISTING));
    EXPECT_NO_FILE(ERROR_ACCESS_DENIED, open(base + u"\\locked", kBoth, CREATE_ALWAYS));
    EXPECT_NO_FILE(ERROR_FILE_NOT_FOUND, open(base + u"\\broken", GENERIC_READ, OPEN_EXISTING));
    EXPECT_NO_FILE(ERROR_FILE_NOT_FOUND, open(base + u"\\broken", GENERIC_WRITE, OPEN_ALWAYS));
    EXPECT_NO_FILE(ERROR_INVALID_NAME, open(base + u"\\a*b", kBoth, CREATE_NEW));
    EXPECT_NO_FILE(ERROR_INVALID_PARAMETER, open(base + u"\\a", kBoth, 0));
    EXPECT_NO_FILE(ERROR_INVALID_PARAMETER, open(base + u"\\a", kBoth, 6));
    EXPECT_NO_FILE(ERROR_INVALID_PARAMETER, open(base + u"\\a", GENERIC_READ, TRUNCATE_EXISTING));
    EXPECT_NO_FILE(ERROR_INVALID_PARAMETER, open(base + u"\\a", kBoth, OPEN_ALWAYS, 0, FILE_FLAG_OVERLAPPED));
    EXPECT_NO_FILE(ERROR_INVALID_PARAMETER, CreateFileW(nullptr, kBoth, 0, nullptr, OPEN_ALWAYS, 0, nullptr));
    EXPECT_EQ(read_text(folder.host() / "locked"), "1");
}

TEST(OpenFile, ReadsWritesAndMoves) {
    const TempFolder folder;
    const HANDLE file = open(folder.handheld() + u"\\a", kBoth, CREATE_NEW);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_EQ(write(file, "0123456789"), 10u);
    EXPECT_EQ(SetFilePointer(file, 3, nullptr, FILE_BEGIN), 3u);
    EXPECT_EQ(read(file, 4), "3456");
    EXPECT_EQ(SetFilePointer(file, -2, nullptr, FILE_CURRENT), 5u);
    EXPECT_EQ(read(file, 100), "56789");
    EXPECT_EQ(read(file, 100), "");
    EXPECT_EQ(SetFilePointer(file, -4, nullptr, FILE_END), 6u);
    EXPECT_TRUE(SetEndOfFile(file));
    EXPECT_EQ(GetFileSize(file, nullptr), 6u);
    SetLastError(0);
    EXPECT_EQ(SetFilePointer(file, -7, nullptr, FILE_END), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), ERROR_NEGATIVE_SEEK);
    EXPECT_EQ(SetFilePointer(file, 0, nullptr, 3), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(SetFilePointer(file, 0, nullptr, FILE_CURRENT), 6u);  // failures left it where it was
    EXPECT_TRUE(FlushFileBuffers(file));
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_EQ(read_text(folder.host() / "a"), "012345");
}

TEST(OpenFile, BeyondFourGigabytes) {
    const TempFolder folder;
    const HANDLE file = open(folder.handheld() + u"\\a", kBoth, CREATE_NEW);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    LONG high = 1;
    EXPECT_EQ(SetFilePointer(file, 2, &high, FILE_BEGIN), 2u);
    EXPECT_EQ(high, 1);
    EXPECT_TRUE(SetEndOfFile(file));
    DWORD size_high = 0;
    EXPECT_EQ(GetFileSize(file, &size_high), 2u);
    EXPECT_EQ(size_high, 1u);
    EXPECT_EQ(SetFilePointer(file, 0, nullptr, FILE_END), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    high = -1;
    EXPECT_EQ(SetFilePointer(file, -1, &high, FILE_CURRENT), 1u);
    EXPECT_EQ(high, 1);
    // A pointer whose low half looks like the error: the last error tells.
    high = 0;
    EXPECT_EQ(SetFilePointer(file, -1, &high, FILE_BEGIN), INVALID_SET_FILE_POINTER);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_TRUE(CloseHandle(file));
}

TEST(OpenFile, RightsAndHandles) {
    const TempFolder folder;
    write_text(folder.host() / "a", "text");
    const std::u16string path = folder.handheld() + u"\\a";
    DWORD count = 0;
    char buffer[4];
    const HANDLE reader = open(path, GENERIC_READ, OPEN_EXISTING);
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, WriteFile(reader, "x", 1, &count, nullptr));
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, SetEndOfFile(reader));
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, FlushFileBuffers(reader));
    const HANDLE writer = open(path, GENERIC_WRITE, OPEN_EXISTING);
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, ReadFile(writer, buffer, 4, &count, nullptr));
    const HANDLE neither = open(path, 0, OPEN_EXISTING, 0);
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, ReadFile(neither, buffer, 4, &count, nullptr));
    EXPECT_EQ(GetFileSize(neither, nullptr), 4u);
    EXPECT_FAILS_WITH(ERROR_INVALID_PARAMETER, ReadFile(reader, nullptr, 4, &count, nullptr));
    EXPECT_FAILS_WITH(ERROR_INVALID_PARAMETER, ReadFile(reader, buffer, 4, nullptr, nullptr));
    for (const HANDLE file : {reader, writer, neither})
        EXPECT_TRUE(CloseHandle(file));
    EXPECT_FAILS_WITH(ERROR_INVALID_HANDLE, ReadFile(reader, buffer, 4, &count, nullptr));
    EXPECT_FAILS_WITH(ERROR_INVALID_HANDLE, CloseHandle(reader));
    EXPECT_EQ(GetFileSize(INVALID_HANDLE_VALUE, nullptr), INVALID_FILE_SIZE);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), 0);
}

TEST(OpenFile, AttributesOfANewFile) {
    const TempFolder folder;
    const std::u16string path = folder.handheld() + u"\\a";
    const HANDLE file = open(path, GENERIC_WRITE, CREATE_NEW, 0, FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_EQ(write(file, "x"), 1u);  // who made it may fill it
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_TRUE(GetFileAttributesW(path.c_str()) & FILE_ATTRIBUTE_READONLY);
}

TEST(OpenFile, Times) {
    const TempFolder folder;
    const HANDLE file = open(folder.handheld() + u"\\a", kBoth, CREATE_NEW);
    const FILETIME set{0x12345670, 0x01D00000};
    FILETIME read_back{};
    EXPECT_TRUE(SetFileTime(file, nullptr, nullptr, &set));
    EXPECT_TRUE(GetFileTime(file, nullptr, nullptr, &read_back));
    EXPECT_EQ(read_back.dwLowDateTime, set.dwLowDateTime);
    EXPECT_EQ(read_back.dwHighDateTime, set.dwHighDateTime);
    EXPECT_TRUE(CloseHandle(file));
}

TEST(OpenFile, FullDisk) {
    if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full here";
    const TempFolder folder;
    fs::create_symlink("/dev/full", folder.host() / "full");
    const HANDLE file = open(folder.handheld() + u"\\full", GENERIC_WRITE, OPEN_EXISTING);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    DWORD written = 99;
    EXPECT_FAILS_WITH(ERROR_DISK_FULL, WriteFile(file, "text", 4, &written, nullptr));
    EXPECT_EQ(written, 0u);
    EXPECT_TRUE(CloseHandle(file));
}

// Each pair of opens against the rule: what one wants the other must share.
TEST(OpenFile, SharesWithinTheProcess) {
    const TempFolder folder;
    write_text(folder.host() / "a");
    const std::u16string path = folder.handheld() + u"\\a";
    const DWORD accesses[] = {GENERIC_READ, GENERIC_WRITE, kBoth};
    const auto allows = [](DWORD access, DWORD share) {
        return (!(access & GENERIC_READ) || (share & FILE_SHARE_READ)) &&
               (!(access & GENERIC_WRITE) || (share & FILE_SHARE_WRITE));
    };
    for (const DWORD first_access : accesses)
        for (const DWORD second_access : accesses)
            for (DWORD shares = 0; shares < 16; ++shares) {
                const HANDLE first = open(path, first_access, OPEN_EXISTING, shares % 4);
                ASSERT_NE(first, INVALID_HANDLE_VALUE);
                const HANDLE second = open(path, second_access, OPEN_EXISTING, shares / 4);
                const bool expected = allows(first_access, shares / 4) && allows(second_access, shares % 4);
                EXPECT_EQ(second != INVALID_HANDLE_VALUE, expected) << first_access << second_access << shares;
                if (second == INVALID_HANDLE_VALUE)
                    EXPECT_EQ(GetLastError(), ERROR_SHARING_VIOLATION);
                else
                    EXPECT_TRUE(CloseHandle(second));
                EXPECT_TRUE(CloseHandle(first));
            }
}

ZR_CHILD(holder) {
    const std::u16string path(args[0].begin(), args[0].end());
    const HANDLE file = open(path, GENERIC_WRITE, OPEN_EXISTING, 0);
    say(file == INVALID_HANDLE_VALUE ? "failed" : "open");
    hear();
    return 0;
}

TEST(OpenFile, SharesBetweenProcessesAndAfterAKill) {
    const TempFolder folder;
    write_text(folder.host() / "a", "text");
    const std::u16string path = folder.handheld() + u"\\a";
    Child child("holder", {std::string(path.begin(), path.end())});
    ASSERT_EQ(child.hear(), "open");
    EXPECT_NO_FILE(ERROR_SHARING_VIOLATION, open(path, GENERIC_READ, OPEN_EXISTING));
    EXPECT_NO_FILE(ERROR_SHARING_VIOLATION, open(path, GENERIC_WRITE, CREATE_ALWAYS));
    EXPECT_EQ(read_text(folder.host() / "a"), "text");  // refused before it was emptied
    child.kill(SIGKILL);
    child.wait();
    const HANDLE file = open(path, GENERIC_READ, OPEN_EXISTING);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(CloseHandle(file));
}

TEST(OpenFile, RandomWritesAgreeWithAString) {
    std::mt19937 random(99);
    const TempFolder folder;
    const HANDLE file = open(folder.handheld() + u"\\a", kBoth, CREATE_NEW);
    std::string model;
    for (int step = 0; step < 2000; ++step) {
        const auto at = static_cast<DWORD>(random() % 5000);
        ASSERT_EQ(SetFilePointer(file, static_cast<LONG>(at), nullptr, FILE_BEGIN), at);
        switch (random() % 4) {
            case 0:
                ASSERT_TRUE(SetEndOfFile(file));
                model.resize(at);
                break;
            case 1: {
                const std::string text(random() % 300, static_cast<char>('a' + step % 26));
                ASSERT_EQ(write(file, text), text.size());
                if (text.empty()) break;
                if (model.size() < at + text.size()) model.resize(at + text.size());
                model.replace(at, text.size(), text);
                break;
            }
            default:
                ASSERT_EQ(read(file, 700), at < model.size() ? model.substr(at, 700) : "");
        }
        ASSERT_EQ(GetFileSize(file, nullptr), model.size());
    }
    EXPECT_TRUE(CloseHandle(file));
}

// The process may make files of 50,000 bytes: that is all the room there is, and no signal.
TEST(WriteFile, ALimitOfFileSizesIsAFullDisk) {
    const TempFolder folder;
    EXPECT_EQ(zr::test::in_fork([&] {
                  const HANDLE file = open(folder.handheld() + u"\\limited", GENERIC_WRITE, CREATE_NEW);
                  const rlimit limit{50000, RLIM_INFINITY};
                  if (file == INVALID_HANDLE_VALUE || setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
                  const std::string text(60000, 'x');
                  DWORD written = 0;
                  if (WriteFile(file, text.data(), 60000, &written, nullptr) || GetLastError() != ERROR_DISK_FULL)
                      return 2;
                  if (SetFilePointer(file, 70000, nullptr, FILE_BEGIN) != 70000) return 3;
                  if (SetEndOfFile(file) || GetLastError() != ERROR_DISK_FULL) return 4;
                  if (CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 100000, nullptr)) return 5;
                  return GetLastError() == ERROR_NOT_ENOUGH_MEMORY ? 0 : 6;
              }),
              0);
    EXPECT_EQ(fs::file_size(folder.host() / "limited"), 50000u);
}
