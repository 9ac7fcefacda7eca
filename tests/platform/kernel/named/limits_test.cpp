// Many names, many threads, no room; and the list of named objects.

#include <sched.h>
#include <sys/mount.h>

#include <atomic>

#include "platform/kernel/named/support.h"
#include "support/own_process.h"

using namespace zr::test;

namespace {

std::u16string numbered(const char16_t* prefix, int number) {
    std::u16string name = prefix;
    for (const char digit : std::to_string(number)) {
        name += static_cast<char16_t>(digit);
    }
    return name;
}

// A world with a runtime directory of that size, for a forked child; false where the machine does not let us.
bool enter_small_runtime(const std::string& size) {
    if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
    return mount("none", std::getenv("XDG_RUNTIME_DIR"), "tmpfs", 0, ("mode=0700,size=" + size).c_str()) == 0;
}

constexpr int kNotPossibleHere = 77;

// Runs the body with a small runtime directory.
#define WITH_SMALL_RUNTIME(size, ...)                                                 \
    Fork child([&]() -> int {                                                         \
        if (!enter_small_runtime(size)) return kNotPossibleHere;                      \
        __VA_ARGS__                                                                   \
        return testing::Test::HasFailure() ? 1 : 0;                                   \
    });                                                                               \
    const int result = child.join();                                                  \
    if (result == kNotPossibleHere) GTEST_SKIP() << "no file system of our own here"; \
    EXPECT_EQ(result, 0)

}  // namespace

TEST(NamedLimits, ThousandsOfNames) {
    constexpr int kCount = 5000;
    std::vector<Handle> handles;
    for (int i = 0; i < kCount; ++i) {
        const std::u16string name = numbered(u"a name of some length, which goes on in another place ", i);
        handles.push_back(i % 2 == 0 ? named_event(name.c_str()) : named_mutex(name.c_str()));
        ASSERT_NE(handles.back(), nullptr);
        ASSERT_EQ(GetLastError(), ERROR_SUCCESS);
    }
    for (int i = 0; i < kCount; i += 2) {
        const Handle again(OpenEventW(SYNCHRONIZE, FALSE,
                                      numbered(u"a name of some length, which goes on in another place ", i).c_str()));
        ASSERT_TRUE(SetEvent(again));
        ASSERT_EQ(WaitForSingleObject(handles[static_cast<std::size_t>(i)], 0), WAIT_OBJECT_0);
    }
    EXPECT_EQ(listed().size(), static_cast<std::size_t>(kCount));
    handles.clear();
    EXPECT_TRUE(listed().empty());
}

TEST(NamedLimits, ManyMappingsNeedNoDescriptors) {
    std::vector<Handle> handles;
    handles.push_back(named_mapping(u"first", 1));
    const auto before = count_descriptors();
    for (int i = 0; i < 500; ++i) {
        handles.push_back(named_mapping(numbered(u"m", i).c_str(), 100));
        ASSERT_NE(handles.back(), nullptr);
    }
    EXPECT_EQ(count_descriptors(), before);
}

TEST(NamedLimits, SixtyFourThreadsOnOneLock) {
    const Handle lock = named_mutex(u"crowd");
    int count = 0;
    {
        std::vector<std::unique_ptr<Worker>> crowd;
        for (int i = 0; i < 64; ++i) {
            crowd.push_back(std::make_unique<Worker>([&] {
                for (int turn = 0; turn < 30; ++turn) {
                    if (WaitForSingleObject(lock, INFINITE) != WAIT_OBJECT_0) return DWORD{1};
                    ++count;
                    if (!ReleaseMutex(lock)) return DWORD{2};
                }
                return DWORD{0};
            }));
        }
        for (auto& one : crowd) {
            EXPECT_EQ(one->join(), 0u);
        }
    }
    EXPECT_EQ(count, 64 * 30);
}

TEST(NamedLimits, ManyThreadsMixWaits) {
    const Handle lock = named_mutex(u"mix lock");
    const Handle named = named_event(u"mix event", false, true);
    const Handle plain = auto_event(true);
    std::atomic<int> inside = 0;
    std::vector<std::unique_ptr<Worker>> crowd;
    for (int i = 0; i < 8; ++i) {
        crowd.push_back(std::make_unique<Worker>([&] {
            // The two events are one token each; a wait for all takes the token, or nothing.
            const HANDLE all[] = {plain, named, lock};
            for (int turn = 0; turn < 50; ++turn) {
                if (WaitForMultipleObjects(3, all, TRUE, INFINITE) != WAIT_OBJECT_0) return DWORD{1};
                if (++inside != 1) return DWORD{2};
                --inside;
                SetEvent(turn % 2 == 0 ? plain : named);
                SetEvent(turn % 2 == 0 ? named : plain);
                ReleaseMutex(lock);
            }
            return DWORD{0};
        }));
    }
    for (auto& one : crowd) {
        EXPECT_EQ(one->join(), 0u);
    }
}

TEST(NamedLimits, NoRoomForAFile) {
    WITH_SMALL_RUNTIME("64k,nr_inodes=2", {
        EXPECT_EQ(CreateEventW(nullptr, FALSE, FALSE, u"first"), nullptr);
        EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
        const auto folder = std::filesystem::path(std::getenv("XDG_RUNTIME_DIR")) / "zrutility";
        EXPECT_TRUE(std::filesystem::is_empty(folder));
    });
}

// Nothing needs room there.
TEST(NamedLimits, AFullRuntimeFolder) {
    WITH_SMALL_RUNTIME("64k", {
        std::vector<Handle> handles;
        for (int i = 0; i < 2000; ++i) {
            handles.push_back(named_event(numbered(u"a name that does not fit into the object itself ", i).c_str()));
            EXPECT_NE(handles.back(), nullptr);
        }
        EXPECT_EQ(listed().size(), handles.size());
        const Handle memory = named_mapping(u"memory", 2000000);
        EXPECT_NE(static_cast<HANDLE>(memory), nullptr);
        const View view(memory, FILE_MAP_WRITE);
        view[1999999] = 'x';
        EXPECT_TRUE(content_files().empty());
        EXPECT_EQ(listed().size(), handles.size() + 1);
        EXPECT_TRUE(SetEvent(handles.back()));
        EXPECT_EQ(WaitForSingleObject(handles.back(), 0), WAIT_OBJECT_0);
    });
}

TEST(NamedLimits, ARuntimeFolderThatIsNotOurs) {
    Fork child([] {
        const auto folder = std::filesystem::path(std::getenv("XDG_RUNTIME_DIR")) / "elsewhere";
        std::filesystem::create_directory(folder);
        std::filesystem::create_symlink(folder, folder / "zrutility");
        setenv("XDG_RUNTIME_DIR", folder.c_str(), 1);
        EXPECT_EQ(CreateMutexW(nullptr, FALSE, u"any"), nullptr);
        EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
        EXPECT_FALSE(ZrEnumNamedObjects([](const ZrNamedObject*, LPVOID) { return TRUE; }, nullptr));
        EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.join(), 0);
}

// Whatever is done to the file in the runtime directory, those who have the objects keep them, and newcomers find them.
TEST(NamedLimits, NothingDependsOnWhatIsInTheFile) {
    const Handle event = named_event(u"of the truncated");
    const Handle answer = named_event(u"answer");
    const auto folder = std::filesystem::path(std::getenv("XDG_RUNTIME_DIR")) / "zrutility";
    const auto truncate = [&](std::uintmax_t size) {
        int count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            std::filesystem::resize_file(entry.path(), size);
            ++count;
        }
        return count;
    };
    Fork there([] {
        const Handle first = named_event(u"of the truncated");
        const Handle second = named_event(u"answer");
        Fork::say('r');
        return WaitForSingleObject(first, 20000) == WAIT_OBJECT_0 && SetEvent(second) ? 0 : 1;
    });
    ASSERT_EQ(there.hear(), 'r');
    ASSERT_EQ(truncate(0), 1);
    EXPECT_TRUE(SetEvent(event));
    EXPECT_EQ(WaitForSingleObject(answer, 20000), WAIT_OBJECT_0);
    EXPECT_EQ(there.join(), 0);
    ASSERT_EQ(truncate(200000), 1);
    Fork later([] {
        const Handle known = named_event(u"answer");
        return known && GetLastError() == ERROR_ALREADY_EXISTS && SetEvent(known) ? 0 : 1;
    });
    EXPECT_EQ(later.join(), 0);
    EXPECT_EQ(WaitForSingleObject(answer, 0), WAIT_OBJECT_0);
    std::filesystem::remove_all(folder);
    Fork last([] {
        const Handle known = named_event(u"answer");
        return known && GetLastError() == ERROR_SUCCESS ? 0 : 1;  // another folder, other objects
    });
    EXPECT_EQ(last.join(), 0);
}

TEST(NamedLimits, TruncatingFilesHarmsNoMapping) {
    const Handle memory = named_mapping(u"of the truncated folder", 100000);
    const View view(memory, FILE_MAP_WRITE);
    view[99999] = 'a';
    const auto folder = std::filesystem::path(std::getenv("XDG_RUNTIME_DIR")) / "zrutility";
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        std::filesystem::resize_file(entry.path(), 0);
    }
    EXPECT_EQ(view[99999], 'a');
    Fork other([] {
        const Handle known = named_mapping(u"of the truncated folder", 100000);
        if (GetLastError() != ERROR_ALREADY_EXISTS) return 1;
        const View there(known, FILE_MAP_WRITE);
        if (there[99999] != 'a') return 2;
        there[0] = 'b';
        return 0;
    });
    EXPECT_EQ(other.join(), 0);
    EXPECT_EQ(view[0], 'b');
}

TEST(NamedLimits, PartsAndCopiesOfAMapping) {
    const Handle memory = named_mapping(u"of parts", 300000);
    const View whole(memory, FILE_MAP_WRITE);
    for (int i = 0; i < 300000; ++i) {
        whole[i] = static_cast<char>(i / 65536);
    }
    char* const part = static_cast<char*>(MapViewOfFile(memory, FILE_MAP_WRITE, 0, 131072, 70000));
    ASSERT_NE(part, nullptr);
    EXPECT_EQ(part[0], 2);
    EXPECT_EQ(part[69999], 3);
    part[0] = 'p';
    EXPECT_EQ(whole[131072], 'p');
    char* const copy = static_cast<char*>(MapViewOfFile(memory, FILE_MAP_COPY, 0, 131072, 0));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy[0], 'p');
    copy[0] = 'c';
    EXPECT_EQ(whole[131072], 'p');
    EXPECT_TRUE(UnmapViewOfFile(part));
    EXPECT_TRUE(UnmapViewOfFile(copy));
    EXPECT_EQ(whole[131072], 'p');
}

// The runtime directory of a machine that was switched off, or one that was copied back.
TEST(NamedLimits, AFileOfAnEarlierBootMeansNothing) {
    Fork child([] {
        const auto run = std::filesystem::path(std::getenv("XDG_RUNTIME_DIR")) / "earlier";
        const auto folder = run / "zrutility";
        std::filesystem::create_directory(run);
        setenv("XDG_RUNTIME_DIR", run.c_str(), 1);
        Fork first([&] {
            const Handle lock = named_mutex(u"lock", true);
            std::filesystem::copy(folder, run / "copy");
            return 0;
        });
        if (first.join() != 0) return 1;
        std::filesystem::remove_all(folder);
        std::filesystem::copy(run / "copy", folder);
        const Handle lock = named_mutex(u"lock");
        if (!lock || GetLastError() != ERROR_SUCCESS) return 2;
        return WaitForSingleObject(lock, 0) == WAIT_OBJECT_0 ? 0 : 3;
    });
    EXPECT_EQ(child.join(), 0);
}

// --- The list --------------------------------------------------------------------------------------------------------

TEST(NamedList, IsEmptyWithoutObjects) {
    EXPECT_TRUE(listed().empty());
    EXPECT_TRUE(content_files().empty());
    EXPECT_FALSE(ZrEnumNamedObjects(nullptr, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(NamedList, TellsWhatEachObjectIs) {
    const Handle event = named_event(u"c event", true, true);
    const Handle lock = named_mutex(u"a lock", true);
    const Handle memory = named_mapping(u"b memory", 12345, PAGE_READONLY);
    Fork other([] {
        const Handle mine = named_mutex(u"a lock");
        const Handle own = named_mutex(u"d other's", true);
        Fork::say('r');
        pause();
        return 0;
    });
    ASSERT_EQ(other.hear(), 'r');
    const DWORD here = GetCurrentProcessId();
    const DWORD there = static_cast<DWORD>(other.pid());
    const std::vector<Listed> all = listed();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all[0].name, u"a lock");
    EXPECT_EQ(all[0].object.Kind, ZrNamedObjectKind::Mutex);
    EXPECT_EQ(all[0].object.OwnerProcess, here);
    EXPECT_EQ(all[0].object.OwnerThread, GetCurrentThreadId());
    EXPECT_FALSE(all[0].object.Signalled);
    EXPECT_EQ(all[0].processes, (std::vector<DWORD>{std::min(here, there), std::max(here, there)}));
    EXPECT_EQ(all[1].name, u"b memory");
    EXPECT_EQ(all[1].object.Kind, ZrNamedObjectKind::FileMapping);
    EXPECT_EQ(all[1].object.Size, 12345u);
    EXPECT_EQ(all[1].object.Protection, PAGE_READONLY);
    EXPECT_EQ(all[1].processes, std::vector<DWORD>{here});
    EXPECT_EQ(all[2].name, u"c event");
    EXPECT_EQ(all[2].object.Kind, ZrNamedObjectKind::Event);
    EXPECT_TRUE(all[2].object.ManualReset);
    EXPECT_TRUE(all[2].object.Signalled);
    EXPECT_EQ(all[3].object.OwnerProcess, there);
    EXPECT_EQ(all[3].processes, std::vector<DWORD>{there});
    ReleaseMutex(lock);
    EXPECT_TRUE(listed()[0].object.Signalled);
    EXPECT_EQ(listed()[0].object.OwnerProcess, 0u);
}

TEST(NamedList, EndsWhenTheVisitorSaysSo) {
    const Handle first = named_event(u"1");
    const Handle second = named_event(u"2");
    int calls = 0;
    EXPECT_TRUE(ZrEnumNamedObjects(
        [](const ZrNamedObject*, LPVOID context) {
            ++*static_cast<int*>(context);
            return FALSE;
        },
        &calls));
    EXPECT_EQ(calls, 1);
}
