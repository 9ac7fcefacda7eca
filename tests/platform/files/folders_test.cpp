#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <thread>
#include <vector>

#include "files_support.h"

namespace fs = std::filesystem;
using namespace zr::test;

TEST(Folders, CreateAndRemove) {
    const TempFolder folder;
    const std::u16string path = folder.handheld() + u"\\New Folder";
    EXPECT_TRUE(CreateDirectoryW(path.c_str(), nullptr));
    EXPECT_TRUE(fs::is_directory(folder.host() / "New Folder"));
    EXPECT_FAILS_WITH(ERROR_ALREADY_EXISTS, CreateDirectoryW(path.c_str(), nullptr));
    EXPECT_FAILS_WITH(ERROR_ALREADY_EXISTS, CreateDirectoryW((folder.handheld() + u"\\NEW FOLDER").c_str(), nullptr));
    EXPECT_FAILS_WITH(ERROR_PATH_NOT_FOUND, CreateDirectoryW((folder.handheld() + u"\\no\\sub").c_str(), nullptr));
    EXPECT_FAILS_WITH(ERROR_ALREADY_EXISTS, CreateDirectoryW(u"\\", nullptr));
    EXPECT_TRUE(CreateDirectoryW((folder.handheld() + u"\\new folder\\sub\\").c_str(), nullptr));
    EXPECT_TRUE(fs::is_directory(folder.host() / "New Folder/sub"));
    EXPECT_FAILS_WITH(ERROR_DIR_NOT_EMPTY, RemoveDirectoryW(path.c_str()));
    EXPECT_TRUE(RemoveDirectoryW((path + u"\\SUB\\").c_str()));
    EXPECT_TRUE(RemoveDirectoryW(path.c_str()));
    EXPECT_FAILS_WITH(ERROR_FILE_NOT_FOUND, RemoveDirectoryW(path.c_str()));
    EXPECT_FAILS_WITH(ERROR_PATH_NOT_FOUND, RemoveDirectoryW((path + u"\\sub").c_str()));
}

TEST(Folders, WhatIsNoFolderOrTheRootStays) {
    const TempFolder folder;
    write_text(folder.host() / "file");
    fs::create_symlink("file", folder.host() / "link");
    EXPECT_FAILS_WITH(ERROR_DIRECTORY, RemoveDirectoryW((folder.handheld() + u"\\file").c_str()));
    EXPECT_FAILS_WITH(ERROR_DIRECTORY, RemoveDirectoryW((folder.handheld() + u"\\link").c_str()));
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, RemoveDirectoryW(u"\\"));
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, RemoveDirectoryW(u"\\.."));
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, MoveFileW(u"\\", (folder.handheld() + u"\\x").c_str()));
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, DeleteFileW(u"\\"));
    EXPECT_TRUE(fs::exists(folder.host() / "link"));
}

TEST(Folders, OneOfManyThreadsCreatesIt) {
    const TempFolder folder;
    const std::u16string path = folder.handheld() + u"\\once";
    std::atomic<int> made{0};
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] {
            if (CreateDirectoryW(path.c_str(), nullptr))
                ++made;
            else if (GetLastError() == ERROR_ALREADY_EXISTS)
                ++taken;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(made, 1);
    EXPECT_EQ(taken, 7);
}

TEST(DeleteFile, Results) {
    const TempFolder folder;
    const std::u16string base = folder.handheld();
    write_text(folder.host() / "A.txt");
    EXPECT_TRUE(DeleteFileW((base + u"\\a.TXT").c_str()));
    EXPECT_FALSE(fs::exists(folder.host() / "A.txt"));
    EXPECT_FAILS_WITH(ERROR_FILE_NOT_FOUND, DeleteFileW((base + u"\\a.txt").c_str()));
    EXPECT_FAILS_WITH(ERROR_PATH_NOT_FOUND, DeleteFileW((base + u"\\no\\a.txt").c_str()));
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, DeleteFileW(base.c_str()));
    write_text(folder.host() / "locked");
    fs::permissions(folder.host() / "locked", fs::perms::owner_read);
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, DeleteFileW((base + u"\\locked").c_str()));
    EXPECT_TRUE(SetFileAttributesW((base + u"\\locked").c_str(), FILE_ATTRIBUTE_NORMAL));
    EXPECT_TRUE(DeleteFileW((base + u"\\locked").c_str()));
    EXPECT_FAILS_WITH(ERROR_INVALID_PARAMETER, DeleteFileW(nullptr));
}

TEST(DeleteFile, InAFolderThatMayNotBeChanged) {
    const TempFolder folder;
    fs::create_directory(folder.host() / "closed");
    write_text(folder.host() / "closed/file");
    fs::permissions(folder.host() / "closed", fs::perms::owner_read | fs::perms::owner_exec);
    {
        const WithoutOverride everybody;
        const std::u16string closed = folder.handheld() + u"\\closed";
        EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, DeleteFileW((closed + u"\\file").c_str()));
        EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, CreateDirectoryW((closed + u"\\sub").c_str(), nullptr));
    }
    fs::permissions(folder.host() / "closed", fs::perms::owner_all);
}

TEST(MoveFile, RenamesAndRefuses) {
    const TempFolder folder;
    const std::u16string base = folder.handheld();
    write_text(folder.host() / "a", "1");
    write_text(folder.host() / "b", "2");
    fs::create_directory(folder.host() / "sub");
    EXPECT_FAILS_WITH(ERROR_ALREADY_EXISTS, MoveFileW((base + u"\\a").c_str(), (base + u"\\B").c_str()));
    EXPECT_FAILS_WITH(ERROR_ALREADY_EXISTS, MoveFileW((base + u"\\a").c_str(), (base + u"\\sub").c_str()));
    EXPECT_FAILS_WITH(ERROR_FILE_NOT_FOUND, MoveFileW((base + u"\\x").c_str(), (base + u"\\y").c_str()));
    EXPECT_FAILS_WITH(ERROR_PATH_NOT_FOUND, MoveFileW((base + u"\\a").c_str(), (base + u"\\no\\y").c_str()));
    EXPECT_FAILS_WITH(ERROR_INVALID_NAME, MoveFileW((base + u"\\a").c_str(), (base + u"\\a?").c_str()));
    EXPECT_FAILS_WITH(ERROR_INVALID_PARAMETER, MoveFileW((base + u"\\sub").c_str(), (base + u"\\sub\\x").c_str()));
    EXPECT_EQ(read_text(folder.host() / "b"), "2");
    EXPECT_TRUE(MoveFileW((base + u"\\A").c_str(), (base + u"\\SUB\\c").c_str()));
    EXPECT_EQ(read_text(folder.host() / "sub/c"), "1");
    EXPECT_TRUE(MoveFileW((base + u"\\sub").c_str(), (base + u"\\other").c_str()));
    EXPECT_EQ(read_text(folder.host() / "other/c"), "1");
}

TEST(MoveFile, ChangesTheCaseOfAName) {
    const TempFolder folder;
    const std::u16string base = folder.handheld();
    write_text(folder.host() / "readme.txt", "1");
    EXPECT_TRUE(MoveFileW((base + u"\\readme.txt").c_str(), (base + u"\\README.txt").c_str()));
    EXPECT_EQ(search(base + u"\\*"), Names{u"README.txt"});
    EXPECT_TRUE(MoveFileW((base + u"\\README.txt").c_str(), (base + u"\\README.txt").c_str()));
    EXPECT_EQ(search(base + u"\\*"), Names{u"README.txt"});
}

TEST(CopyFile, ContentPermissionsAndAttributes) {
    const TempFolder folder;
    const std::u16string base = folder.handheld();
    std::string content(300000, 'x');
    for (std::size_t i = 0; i < content.size(); i += 7)
        content[i] = static_cast<char>(i);
    write_text(folder.host() / "from", content);
    const bool stored = SetFileAttributesW((base + u"\\from").c_str(), FILE_ATTRIBUTE_HIDDEN) != FALSE;
    fs::permissions(folder.host() / "from", fs::perms(0640));
    EXPECT_TRUE(CopyFileW((base + u"\\FROM").c_str(), (base + u"\\to").c_str(), TRUE));
    EXPECT_EQ(read_text(folder.host() / "to"), content);
    EXPECT_EQ(fs::status(folder.host() / "to").permissions(), fs::perms(0640));
    EXPECT_EQ(fs::last_write_time(folder.host() / "to"), fs::last_write_time(folder.host() / "from"));
    const DWORD hidden = stored ? FILE_ATTRIBUTE_HIDDEN : FILE_ATTRIBUTE_NORMAL;
    EXPECT_EQ(GetFileAttributesW((base + u"\\to").c_str()), hidden);
    EXPECT_FAILS_WITH(ERROR_FILE_EXISTS, CopyFileW((base + u"\\from").c_str(), (base + u"\\TO").c_str(), TRUE));
    write_text(folder.host() / "from", "short");
    EXPECT_TRUE(CopyFileW((base + u"\\from").c_str(), (base + u"\\to").c_str(), FALSE));
    EXPECT_EQ(read_text(folder.host() / "to"), "short");
}

TEST(CopyFile, Refusals) {
    const TempFolder folder;
    const std::u16string base = folder.handheld();
    write_text(folder.host() / "from", "1");
    fs::create_directory(folder.host() / "sub");
    ASSERT_EQ(mkfifo((folder.host() / "pipe").c_str(), 0600), 0);
    const auto copy = [&](const std::u16string& from, const std::u16string& to) {
        return CopyFileW((base + from).c_str(), (base + to).c_str(), FALSE);
    };
    EXPECT_FAILS_WITH(ERROR_FILE_NOT_FOUND, copy(u"\\no", u"\\to"));
    EXPECT_FAILS_WITH(ERROR_PATH_NOT_FOUND, copy(u"\\from", u"\\no\\to"));
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, copy(u"\\sub", u"\\to"));
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, copy(u"\\from", u"\\sub"));
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, copy(u"\\pipe", u"\\to"));
    EXPECT_FAILS_WITH(ERROR_ACCESS_DENIED, copy(u"\\from", u"\\pipe"));
    EXPECT_FAILS_WITH(ERROR_SHARING_VIOLATION, copy(u"\\from", u"\\FROM"));
    EXPECT_FALSE(fs::exists(folder.host() / "to"));
    EXPECT_EQ(read_text(folder.host() / "from"), "1");
}

TEST(CopyFile, IncompleteCopyIsRemoved) {
    const TempFolder folder;
    const std::u16string base = folder.handheld();
    write_text(folder.host() / "from", std::string(100000, 'x'));
    rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    const rlimit small{50000, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    EXPECT_FAILS_WITH(ERROR_DISK_FULL, CopyFileW((base + u"\\from").c_str(), (base + u"\\to").c_str(), TRUE));
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_FALSE(fs::exists(folder.host() / "to"));
}

TEST(TempPath, IsMappedOrTheHandheldsOwn) {
    WCHAR buffer[MAX_PATH];
    const std::string inside = (sandbox_root() / "tmp").string();
    setenv("TMPDIR", inside.c_str(), 1);
    EXPECT_EQ(GetTempPathW(MAX_PATH, buffer), 5u);
    EXPECT_EQ(std::u16string(buffer), u"\\tmp\\");
    setenv("TMPDIR", "/somewhere/else", 1);
    EXPECT_EQ(GetTempPathW(MAX_PATH, buffer), 6u);
    EXPECT_EQ(std::u16string(buffer), u"\\Temp\\");
    buffer[0] = u'#';
    EXPECT_EQ(GetTempPathW(6, buffer), 7u);
    EXPECT_EQ(buffer[0], u'#');
    EXPECT_EQ(GetTempPathW(7, buffer), 6u);
    EXPECT_EQ(GetTempPathW(0, nullptr), 7u);
    unsetenv("TMPDIR");
}
