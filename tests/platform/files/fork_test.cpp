// What a fork leaves of files, searches and watched folders: in the child, and in the parent.

#include <cstddef>
#include <cstring>
#include <fstream>
#include <mutex>
#include <vector>

#include "files_support.h"
#include "platform/file_changes.h"
#include "support/forked.h"
#include "support/instrumented.h"

namespace {

namespace fs = std::filesystem;
using namespace zr::test;

#define CHECK_IN_CHILD(condition) \
    if (!(condition)) return __LINE__ % 200 + 1

constexpr DWORD kFilter = FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME | FILE_NOTIFY_CHANGE_CEGETINFO;
constexpr DWORD kSoon = 20'000;

class NameWatch {
public:
    explicit NameWatch(const std::u16string& path, BOOL subtree = FALSE)
        : handle_(FindFirstChangeNotificationW(path.c_str(), subtree, kFilter)) {}
    ~NameWatch() { FindCloseChangeNotification(handle_); }
    NameWatch(const NameWatch&) = delete;
    NameWatch& operator=(const NameWatch&) = delete;

    bool is_open() const { return handle_ != INVALID_HANDLE_VALUE; }

    // Whether exactly these names are told of, in any order.
    bool tells(std::multiset<std::u16string> names) const {
        while (!names.empty()) {
            if (WaitForSingleObject(handle_, kSoon) != WAIT_OBJECT_0) return false;
            char bytes[4096];
            DWORD returned = 0;
            if (!CeGetFileNotificationInfo(handle_, 0, bytes, sizeof bytes, &returned, nullptr)) return false;
            for (DWORD at = 0; at < returned;) {
                const auto& record = *reinterpret_cast<const FILE_NOTIFY_INFORMATION*>(bytes + at);
                const auto found = names.find(record.FileName);
                if (found == names.end()) return false;
                names.erase(found);
                if (record.NextEntryOffset == 0) break;
                at += record.NextEntryOffset;
            }
            FindNextChangeNotification(handle_);
        }
        return true;
    }

private:
    HANDLE handle_;
};

TEST(FilesFork, AFolderIsWatchedOnInBoth) {
    const TempFolder folder;
    const NameWatch watch(folder.handheld());
    write_text(folder.host() / "before");
    EXPECT_TRUE(watch.tells({u"before"}));
    EXPECT_EQ(in_fork([&]() -> int {
                  write_text(folder.host() / "of the child");
                  CHECK_IN_CHILD(watch.tells({u"of the child"}));
                  write_text(folder.host() / "more");
                  CHECK_IN_CHILD(watch.tells({u"more"}));
                  return 0;
              }),
              0);
    EXPECT_TRUE(watch.tells({u"of the child", u"more"}));
    write_text(folder.host() / "of the parent");
    EXPECT_TRUE(watch.tells({u"of the parent"}));
}

// What happens before the child looks at anything.
TEST(FilesFork, NothingIsLostBetweenTheForkAndTheFirstWait) {
    const TempFolder folder;
    fs::create_directories(folder.host() / "below/deeper");
    const NameWatch watch(folder.handheld(), TRUE);
    write_text(folder.host() / "gone");
    EXPECT_TRUE(watch.tells({u"gone"}));
    EXPECT_EQ(in_fork([&]() -> int {
                  fs::remove(folder.host() / "gone");
                  write_text(folder.host() / "below/deeper/new");
                  fs::create_directories(folder.host() / "below/another");
                  CHECK_IN_CHILD(watch.tells({u"gone", u"below\\deeper\\new", u"below\\another"}));
                  write_text(folder.host() / "below/another/late");
                  CHECK_IN_CHILD(watch.tells({u"below\\another\\late"}));
                  return 0;
              }),
              0);
}

TEST(FilesFork, AWatchOfTheChildsOwnTells) {
    const TempFolder folder;
    const NameWatch parents(folder.handheld());
    EXPECT_EQ(in_fork([&]() -> int {
                  const TempFolder own;
                  const NameWatch watch(own.handheld());
                  CHECK_IN_CHILD(watch.is_open());
                  write_text(own.host() / "file");
                  CHECK_IN_CHILD(watch.tells({u"file"}));
                  return 0;
              }),
              0);
    write_text(folder.host() / "file");
    EXPECT_TRUE(parents.tells({u"file"}));
}

TEST(FilesFork, WhatTheChildClosesTheParentWatchesOn) {
    const TempFolder folder;
    const auto watch = std::make_unique<NameWatch>(folder.handheld());
    EXPECT_EQ(in_fork([&] {
                  const_cast<std::unique_ptr<NameWatch>&>(watch).reset();
                  return 0;
              }),
              0);
    write_text(folder.host() / "file");
    EXPECT_TRUE(watch->tells({u"file"}));
}

TEST(FilesFork, AGrandchildWatchesToo) {
    const TempFolder folder;
    const NameWatch watch(folder.handheld());
    EXPECT_EQ(in_fork([&] {
                  return in_fork([&]() -> int {
                      write_text(folder.host() / "file");
                      CHECK_IN_CHILD(watch.tells({u"file"}));
                      return 0;
                  });
              }),
              0);
    EXPECT_TRUE(watch.tells({u"file"}));
}

// A child that lives on does not keep the file from being opened once its parent has closed it; nor does its end, or
// what it closes, let others at a file that the parent has open.
TEST(FilesFork, TheOneWhoOpenedAFileKeepsOthersOff) {
    const TempFolder folder;
    const std::u16string path = folder.handheld() + u"\\file";
    const auto open_alone = [&] {
        return CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, 0, nullptr);
    };
    const HANDLE first = open_alone();
    ASSERT_NE(first, INVALID_HANDLE_VALUE);
    EXPECT_EQ(in_fork([&]() -> int {
                  CHECK_IN_CHILD(CloseHandle(first));
                  CHECK_IN_CHILD(open_alone() == INVALID_HANDLE_VALUE);
                  return 0;
              }),
              0);
    int lives[2];
    ASSERT_EQ(pipe(lives), 0);
    const pid_t child = zr::test::fork_beside_threads();
    if (child == 0) {
        close(lives[1]);
        char byte = 0;
        static_cast<void>(!::read(lives[0], &byte, 1));
        _exit(0);
    }
    EXPECT_TRUE(CloseHandle(first));
    const HANDLE second = open_alone();
    EXPECT_NE(second, INVALID_HANDLE_VALUE);
    CloseHandle(second);
    close(lives[0]);
    close(lives[1]);
    EXPECT_EQ(await_child(child), 0);
}

void use_files(const std::u16string& folder) {
    std::u16string own = folder + u"\\f";
    for (const char digit : std::to_string(gettid())) {
        own += static_cast<char16_t>(digit);
    }
    const HANDLE file = CreateFileW(own.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE) << GetLastError();
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(file, "text", 4, &written, nullptr));
    CloseHandle(file);
    EXPECT_FALSE(search(folder + u"\\*").empty());
    EXPECT_TRUE(DeleteFileW(own.c_str()));
}

TEST(FilesFork, ThreeHundredForksUnderLoad) {
    const TempFolder busy;
    const TempFolder folder;
    const NameWatch watch(folder.handheld());
    write_text(busy.host() / "file");
    const Load load({[&] { use_files(busy.handheld()); },
                     [&] {
                         const NameWatch one(busy.handheld(), TRUE);
                         EXPECT_TRUE(one.is_open());
                     }});
    for (int i = 0; i < 300 / zr::test::kStride; ++i) {
        const std::u16string name = u"n" + std::u16string(1, static_cast<char16_t>(0x4E00 + i));
        ASSERT_EQ(in_fork([&]() -> int {
                      use_files(busy.handheld());
                      const NameWatch own(folder.handheld());
                      CHECK_IN_CHILD(own.is_open());
                      write_text(folder.host() / name);
                      CHECK_IN_CHILD(own.tells({name}));
                      CHECK_IN_CHILD(watch.tells({name}));
                      return testing::Test::HasFailure() ? 1 : 0;
                  }),
                  0)
            << "fork " << i;
        ASSERT_TRUE(watch.tells({name}));
    }
}

}  // namespace
