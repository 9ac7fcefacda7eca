#include "base/state_folder.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "base/host_error.h"
#include "platform/errors.h"
#include "support/forked.h"
#include "support/permissions.h"
#include "support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using zr::platform::Folder;
using zr::platform::runtime_folder;
using zr::platform::state_folder;

mode_t mode_of(const fs::path& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

void set(const char* name, const fs::path& value) {
    setenv(name, value.c_str(), 1);
}

class StateFolder : public testing::Test {
protected:
    const fs::path base = zr::test::sandbox() / "state_folder_test";
    void SetUp() override { fs::create_directory(base); }
    void TearDown() override { fs::remove_all(base); }
};

TEST_F(StateFolder, IsZrHomeCreatedForTheUserAlone) {
    set("ZR_HOME", base / "a" / "b");
    const Folder folder = state_folder();
    ASSERT_TRUE(folder) << folder.message;
    EXPECT_EQ(folder.path, (base / "a" / "b").string());
    EXPECT_EQ(mode_of(folder.path), 0700u);
    EXPECT_EQ(mode_of(base / "a"), 0700u);
    EXPECT_TRUE(state_folder()) << "it may be there already";
}

TEST_F(StateFolder, AnExistingZrHomeIsUsedAsItIs) {
    fs::create_directory(base / "open");
    chmod((base / "open").c_str(), 0755);
    set("ZR_HOME", base / "open/");
    const Folder folder = state_folder();
    EXPECT_EQ(folder.path, (base / "open").string());
    EXPECT_EQ(mode_of(base / "open"), 0755u);
}

TEST_F(StateFolder, OthersMayNotWriteToZrHome) {
    fs::create_directory(base / "open");
    chmod((base / "open").c_str(), 0777);
    set("ZR_HOME", base / "open");
    EXPECT_TRUE(state_folder());
    EXPECT_EQ(mode_of(base / "open"), 0755u);
}

TEST_F(StateFolder, AZrHomeOfSomebodyElseIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can give a folder away";
    fs::create_directory(base / "theirs");
    ASSERT_EQ(chown((base / "theirs").c_str(), 12345, 12345), 0);
    set("ZR_HOME", base / "theirs");
    const Folder folder = state_folder();
    EXPECT_EQ(folder.error, ERROR_ACCESS_DENIED);
    EXPECT_NE(folder.message.find("theirs: belongs to another user (12345)"), std::string::npos) << folder.message;
}

TEST_F(StateFolder, ARelativeZrHomeIsMadeAbsolute) {
    fs::current_path(base);
    set("ZR_HOME", "here");
    EXPECT_EQ(state_folder().path, (fs::current_path() / "here").string());
    fs::current_path("/");
}

TEST_F(StateFolder, WithoutZrHomeItIsUnderTheDataFolder) {
    unsetenv("ZR_HOME");
    set("XDG_DATA_HOME", base / "data");
    EXPECT_EQ(state_folder().path, (base / "data/zrutility").string());
    set("XDG_DATA_HOME", "relative");
    set("HOME", base / "home");
    EXPECT_EQ(state_folder().path, (base / "home/.local/share/zrutility").string());
    unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(state_folder().path, (base / "home/.local/share/zrutility").string());
    EXPECT_EQ(mode_of(base / "home/.local/share/zrutility"), 0700u);
}

TEST_F(StateFolder, AFileInTheWayIsReported) {
    std::ofstream(base / "file") << "x";
    set("ZR_HOME", base / "file");
    const Folder folder = state_folder();
    EXPECT_FALSE(folder);
    EXPECT_EQ(folder.error, ERROR_PATH_NOT_FOUND);
    EXPECT_TRUE(folder.path.empty());
    EXPECT_NE(folder.message.find((base / "file").string()), std::string::npos);
    set("ZR_HOME", base / "file" / "below");
    EXPECT_EQ(state_folder().error, ERROR_PATH_NOT_FOUND);
}

TEST_F(StateFolder, AFolderThatMayNotBeWrittenIsReported) {
    const zr::test::WithoutOverride like_everybody;
    fs::create_directory(base / "closed");
    chmod((base / "closed").c_str(), 0500);
    set("ZR_HOME", base / "closed" / "x");
    EXPECT_EQ(state_folder().error, ERROR_ACCESS_DENIED);
    chmod((base / "closed").c_str(), 0700);
}

TEST_F(StateFolder, ThreadsThatMakeItAtOnceAllGetIt) {
    set("ZR_HOME", base / "p" / "q" / "r" / "s");
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&good] { good += state_folder() ? 1 : 0; });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(good, 8);
}

TEST_F(StateFolder, RuntimeFolderIsPrivate) {
    set("XDG_RUNTIME_DIR", base);
    const Folder folder = runtime_folder();
    ASSERT_TRUE(folder) << folder.message;
    EXPECT_EQ(folder.path, (base / "zrutility").string());
    EXPECT_EQ(mode_of(folder.path), 0700u);
    chmod(folder.path.c_str(), 0777);
    EXPECT_TRUE(runtime_folder());
    EXPECT_EQ(mode_of(folder.path), 0700u) << "a wider mode is narrowed";
}

TEST_F(StateFolder, ARuntimeFolderThatIsALinkIsRefused) {
    fs::create_directory(base / "elsewhere");
    fs::create_symlink(base / "elsewhere", base / "zrutility");
    set("XDG_RUNTIME_DIR", base);
    const Folder folder = runtime_folder();
    EXPECT_EQ(folder.error, ERROR_ACCESS_DENIED);
    EXPECT_FALSE(folder.message.empty());
}

TEST_F(StateFolder, ARuntimeFolderThatIsAFileIsRefused) {
    std::ofstream(base / "zrutility") << "x";
    set("XDG_RUNTIME_DIR", base);
    EXPECT_EQ(runtime_folder().error, ERROR_ACCESS_DENIED);
}

TEST_F(StateFolder, ARuntimeFolderOfSomebodyElseIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can give a folder away";
    fs::create_directory(base / "zrutility");
    ASSERT_EQ(chown((base / "zrutility").c_str(), 12345, 12345), 0);
    set("XDG_RUNTIME_DIR", base);
    EXPECT_EQ(runtime_folder().error, ERROR_ACCESS_DENIED);
}

// With a /tmp of its own.
TEST_F(StateFolder, WhereAStrangerHasTheNameAnotherOneIsAgreedOn) {
    constexpr int kNotPossibleHere = 77;
    const int result = zr::test::in_fork([] {
        if (unshare(CLONE_NEWNS | (geteuid() == 0 ? 0 : CLONE_NEWUSER)) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) != 0)
            return kNotPossibleHere;
        unsetenv("XDG_RUNTIME_DIR");
        const std::string name = "/tmp/zrutility-" + std::to_string(geteuid());
        std::ofstream(name) << "a stranger's";
        if (runtime_folder().path != name + ".1") return 1;
        fs::create_directory(name + ".2");
        if (runtime_folder().path != name + ".1") return 2;
        fs::remove(name);
        if (runtime_folder().path != name + ".1") return 3;  // others are there already
        fs::remove(name + ".1");
        fs::remove(name + ".2");
        if (runtime_folder().path != name || mode_of(name) != 0700) return 4;
        fs::remove(name);
        for (const char* const end : {"", ".1", ".2", ".3"}) {
            fs::create_symlink("/", name + end);
        }
        const Folder none = runtime_folder();
        return none.error == ERROR_ACCESS_DENIED && none.message.find(name) != std::string::npos ? 0 : 5;
    });
    if (result == kNotPossibleHere) GTEST_SKIP() << "no file system of our own here";
    EXPECT_EQ(result, 0);
}

TEST_F(StateFolder, AMissingRuntimeDirectoryIsReported) {
    set("XDG_RUNTIME_DIR", base / "missing");
    const Folder folder = runtime_folder();
    EXPECT_FALSE(folder);
    EXPECT_NE(folder.message.find("missing"), std::string::npos);
}

TEST(HostError, Names) {
    EXPECT_EQ(zr::platform::error_from_errno(0), ERROR_SUCCESS);
    EXPECT_EQ(zr::platform::error_from_errno(ENOENT), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(zr::platform::error_from_errno(ENOSPC), ERROR_DISK_FULL);
    EXPECT_EQ(zr::platform::error_from_errno(ENOTEMPTY), ERROR_DIR_NOT_EMPTY);
    EXPECT_EQ(zr::platform::error_from_errno(99999), ERROR_GEN_FAILURE);
}

}  // namespace
