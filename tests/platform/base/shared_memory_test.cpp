#include "base/shared_memory.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/forked.h"
#include "support/permissions.h"
#include "support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using namespace zr::platform;

struct Page {
    std::atomic<std::uint32_t> number;
    std::uint32_t rest[1500];
};

class SharedMemoryTest : public testing::Test {
protected:
    SharedMemoryTest() {
        std::string pattern = (zr::test::sandbox() / "shared-XXXXXX").string();
        folder = mkdtemp(pattern.data());
        path = (folder / "page").string();
    }
    ~SharedMemoryTest() override { fs::remove_all(folder); }

    fs::path folder;
    std::string path;
};

ZR_CHILD(shared_page_user) {
    SharedPage<Page> page;
    if (page.open(args[0].c_str()) != 0) return 1;
    zr::test::say(std::to_string(page->number.fetch_add(1)));
    zr::test::hear();
    return 0;
}

TEST_F(SharedMemoryTest, IsZeroAtFirst) {
    SharedPage<Page> page;
    ASSERT_EQ(page.open(path.c_str()), 0);
    EXPECT_EQ(page->number.load(), 0u);
    EXPECT_EQ(page->rest[1499], 0u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&*page) % 64, 0u);
}

TEST_F(SharedMemoryTest, IsOneForAllProcesses) {
    SharedPage<Page> page;
    ASSERT_EQ(page.open(path.c_str()), 0);
    page->number.store(41);
    zr::test::Child other("shared_page_user", {path});
    EXPECT_EQ(other.hear(), "41");
    other.say("go on");
    EXPECT_EQ(other.wait(), 0);
    EXPECT_EQ(page->number.load(), 42u);
}

TEST_F(SharedMemoryTest, PathsAreToldApart) {
    SharedPage<Page> page;
    SharedPage<Page> other;
    ASSERT_EQ(page.open(path.c_str()), 0);
    ASSERT_EQ(other.open((path + "2").c_str()), 0);
    page->number.store(1);
    EXPECT_EQ(other->number.load(), 0u);
    EXPECT_NE(page.number(), other.number());
}

TEST_F(SharedMemoryTest, IsFoundByAnotherPathOfTheSameFolder) {
    SharedPage<Page> page;
    ASSERT_EQ(page.open(path.c_str()), 0);
    page->number.store(1);
    fs::create_directory_symlink(folder, folder.string() + "-link");
    SharedPage<Page> other;
    EXPECT_EQ(other.open((folder.string() + "-link/page").c_str()), 0);
    EXPECT_EQ(other->number.load(), 1u);
    fs::remove(folder.string() + "-link");
}

TEST_F(SharedMemoryTest, EndsWithTheLastProcess) {
    {
        SharedPage<Page> page;
        ASSERT_EQ(page.open(path.c_str()), 0);
        page->number.store(1);
    }
    SharedPage<Page> page;
    ASSERT_EQ(page.open(path.c_str()), 0);
    EXPECT_EQ(page->number.load(), 0u);
}

TEST_F(SharedMemoryTest, EndsWithAKilledProcess) {
    {
        zr::test::Child other("shared_page_user", {path});
        EXPECT_EQ(other.hear(), "0");
        other.kill(SIGKILL);
        other.wait();
    }
    // Who looks into a process's memory from outside keeps it a moment longer than the process.
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::uint32_t number = 1;
    while (number != 0 && std::chrono::steady_clock::now() < limit) {
        SharedPage<Page> page;
        ASSERT_EQ(page.open(path.c_str()), 0);
        number = page->number.load();
    }
    EXPECT_EQ(number, 0u);
}

// `: > file`, and worse: those who have the memory keep it, and newcomers find it.
TEST_F(SharedMemoryTest, TruncatingOrRemovingTheFileChangesNothing) {
    SharedPage<Page> page;
    ASSERT_EQ(page.open(path.c_str()), 0);
    page->number.store(7);
    std::ofstream(path, std::ios::trunc).flush();
    EXPECT_EQ(page->number.load(), 7u);
    {
        zr::test::Child other("shared_page_user", {path});
        EXPECT_EQ(other.hear(), "7");
    }
    fs::remove(path);
    zr::test::Child other("shared_page_user", {path});
    EXPECT_EQ(other.hear(), "8");
}

TEST_F(SharedMemoryTest, WhatStandsInTheFileIsNotBelieved) {
    std::ofstream(path) << std::string(100'000, 'x');
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
    SharedPage<Page> page;
    ASSERT_EQ(page.open(path.c_str()), 0);
    EXPECT_EQ(page->number.load(), 0u);
}

TEST_F(SharedMemoryTest, NothingIsLeftBehind) {
    const auto segments = [] {
        int count = 0;
        shm_info room{};
        const int last = shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&room));
        for (int index = 0; index <= last; ++index) {
            shmid_ds facts{};
            if (shmctl(index, SHM_STAT, &facts) >= 0 && facts.shm_segsz == 4096 + sizeof(Page) &&
                facts.shm_cpid == getpid()) {
                ++count;
            }
        }
        return count;
    };
    for (int round = 0; round < 3; ++round) {
        SharedPage<Page> page;
        ASSERT_EQ(page.open(path.c_str()), 0);
        EXPECT_EQ(segments(), 1);
    }
    EXPECT_EQ(segments(), 0);
}

constexpr key_t kMakersKey = 0x5A720001;  // one of those that segments have until they are marked for removal

// Of the segments that nobody has, those of a user's other programs are none of ours.
TEST_F(SharedMemoryTest, WhatAKilledMakerLeftIsRemovedByTheNextWhoLooks) {
    const auto is_there = [](int id) {
        shmid_ds facts{};
        return shmctl(id, IPC_STAT, &facts) == 0;
    };
    const int left = shmget(kMakersKey, 12288, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(left, 0) << strerror(errno);
    const int foreign = shmget(IPC_PRIVATE, 4096 + sizeof(Page), IPC_CREAT | 0600);
    ASSERT_GE(foreign, 0) << strerror(errno);
    {
        SharedPage<Page> page;
        ASSERT_EQ(page.open(path.c_str()), 0);
        EXPECT_TRUE(is_there(left));  // its maker may be at work
    }
    const int usual = unmarked_segment_seconds.exchange(-1);
    SharedPage<Page> page;
    EXPECT_EQ(page.open(path.c_str()), 0);
    unmarked_segment_seconds = usual;
    EXPECT_FALSE(is_there(left));
    EXPECT_TRUE(is_there(foreign));
    shmctl(left, IPC_RMID, nullptr);
    shmctl(foreign, IPC_RMID, nullptr);
}

TEST_F(SharedMemoryTest, AKilledMakerLeavesNothingForLong) {
    const auto segments_of = [](pid_t maker) {
        int count = 0;
        shm_info room{};
        const int last = shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&room));
        for (int index = 0; index <= last; ++index) {
            shmid_ds facts{};
            count += shmctl(index, SHM_STAT, &facts) >= 0 && facts.shm_cpid == maker &&
                     facts.shm_perm.__key >> 16 == kMakersKey >> 16;
        }
        return count;
    };
    for (int round = 0; round < 100; ++round) {
        const pid_t maker = fork();
        if (maker == 0) {
            while (true) {
                SharedSegment segment;
                if (segment.make(12288) != 0) _exit(1);
            }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500 + round * 37));
        kill(maker, SIGKILL);
        waitpid(maker, nullptr, 0);
        // Its memory may be kept a moment longer, as above.
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        const int usual = unmarked_segment_seconds.exchange(-1);
        do {
            SharedPage<Page> page;
            EXPECT_EQ(page.open(path.c_str()), 0);
        } while (segments_of(maker) != 0 && std::chrono::steady_clock::now() < limit);
        unmarked_segment_seconds = usual;
        EXPECT_EQ(segments_of(maker), 0) << round;
    }
}

TEST_F(SharedMemoryTest, AForkedChildHasItToo) {
    SharedPage<Page> page;
    ASSERT_EQ(page.open(path.c_str()), 0);
    EXPECT_EQ(zr::test::in_fork([&] {
                  page->number.store(5);
                  return 0;
              }),
              0);
    EXPECT_EQ(page->number.load(), 5u);
}

TEST_F(SharedMemoryTest, MadeAnewItIsAnother) {
    FileLock lock;
    ASSERT_EQ(lock.take(path.c_str(), FileLock::Missing::IsMade), 0);
    SharedMemory old;
    SharedMemory fresh;
    EXPECT_EQ(old.find(lock, 100), ENOENT);
    ASSERT_EQ(old.make(lock, 100), 0);
    std::memset(old.data(), 1, 100);
    ASSERT_EQ(fresh.make(lock, 100), 0);
    EXPECT_EQ(*static_cast<const char*>(fresh.data()), 0);
    EXPECT_EQ(*static_cast<const char*>(old.data()), 1);
    EXPECT_NE(old.number(), fresh.number());
    SharedMemory found;
    ASSERT_EQ(found.find(lock, 100), 0);
    EXPECT_EQ(found.number(), fresh.number());
}

TEST_F(SharedMemoryTest, OfManyWhoOpenAtOnceAllHaveTheSame) {
    constexpr int kUsers = 8;
    for (int round = 0; round < 20; ++round) {
        std::atomic<std::uint32_t> sum{0};
        std::vector<std::unique_ptr<SharedPage<Page>>> pages(kUsers);
        std::vector<std::thread> users;
        for (auto& page : pages) {
            page = std::make_unique<SharedPage<Page>>();
            users.emplace_back([&] {
                if (page->open(path.c_str()) == 0) sum.fetch_add((*page)->number.fetch_add(1) + 1);
            });
        }
        for (std::thread& user : users) {
            user.join();
        }
        EXPECT_EQ(sum.load(), kUsers * (kUsers + 1) / 2u);
    }
}

TEST_F(SharedMemoryTest, ALinkIsRefused) {
    std::ofstream(folder / "target").flush();
    fs::create_symlink(folder / "target", path);
    SharedPage<Page> page;
    EXPECT_EQ(page.open(path.c_str()), ELOOP);
}

TEST_F(SharedMemoryTest, AnotherUsersFileIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "only the administrator can make another user's file";
    std::ofstream(path).flush();
    ASSERT_EQ(chown(path.c_str(), 12345, 12345), 0);
    SharedPage<Page> page;
    EXPECT_EQ(page.open(path.c_str()), EPERM);
}

TEST_F(SharedMemoryTest, AFileThatOthersMayWriteIsNarrowed) {
    std::ofstream(path).flush();
    fs::permissions(path, fs::perms::all & ~fs::perms::set_uid);
    SharedPage<Page> page;
    ASSERT_EQ(page.open(path.c_str()), 0);
    EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(SharedMemoryTest, ALockThatAnotherKeepsIsNotWaitedForForEver) {
    FileLock held;
    ASSERT_EQ(held.take(path.c_str(), FileLock::Missing::IsMade), 0);
    FileLock second;
    EXPECT_EQ(second.take(path.c_str(), FileLock::Missing::Fails, 0600, 30), ETIMEDOUT);
}

TEST_F(SharedMemoryTest, AMissingFileIsMadeWhenAskedFor) {
    FileLock lock;
    EXPECT_EQ(lock.take(path.c_str(), FileLock::Missing::Fails), ENOENT);
    EXPECT_EQ(lock.take(path.c_str(), FileLock::Missing::IsMade), 0);
}

// A program that has closed its standard streams finds no file of ours in their place.
TEST_F(SharedMemoryTest, NoFileTakesAStandardStreamsPlace) {
    EXPECT_EQ(zr::test::in_fork([this] {
                  for (const int stream : {0, 1, 2}) {
                      close(stream);
                  }
                  FileLock lock;
                  if (lock.take(path.c_str(), FileLock::Missing::IsMade) != 0) return 1;
                  for (const int stream : {0, 1, 2}) {
                      if (fcntl(stream, F_GETFD) >= 0) return 2;
                  }
                  return 0;
              }),
              0);
}

}  // namespace
