#include "ZrUtility/Helpers/VirtualMemoryManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "platform/memory.h"
#include "support/failing_new.h"

namespace {

constexpr ULONG kBlock = 32768;

// Whether anything is mapped at the address.
bool is_mapped(const void* address) {
    const auto wanted = reinterpret_cast<std::uintptr_t>(address);
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        std::size_t used = 0;
        const std::uintptr_t begin = std::stoul(line, &used, 16);
        const std::uintptr_t end = std::stoul(line.substr(used + 1), nullptr, 16);
        if (begin <= wanted && wanted < end) return true;
    }
    return false;
}

// The protected part of the manager, on its own.
class Open : public VirtualMemoryManager {
public:
    Open() = default;
    ~Open() = default;
    using VirtualMemoryManager::CommitMemory;
};

class VirtualMemoryManagerTest : public testing::Test {
protected:
    void TearDown() override { VirtualMemoryManager::Release(); }

    VirtualMemoryManager& manager = *VirtualMemoryManager::GetInstance();

    void* get(ULONG size) { return manager.GetMemory(&size); }
    char* get_block() { return static_cast<char*>(get(1)); }
};

}  // namespace

TEST_F(VirtualMemoryManagerTest, ThereIsOneUntilItIsReleased) {
    EXPECT_EQ(VirtualMemoryManager::GetInstance(), &manager);
    EXPECT_EQ(VirtualMemoryManager::m_pInstance, &manager);
    void* const memory = get(1);
    ASSERT_TRUE(is_mapped(memory));
    EXPECT_EQ(VirtualMemoryManager::Release(), 1);
    EXPECT_EQ(VirtualMemoryManager::m_pInstance, nullptr);
    EXPECT_FALSE(is_mapped(memory));
    EXPECT_EQ(VirtualMemoryManager::Release(), 0);
    EXPECT_NE(VirtualMemoryManager::GetInstance(), nullptr);
}

TEST_F(VirtualMemoryManagerTest, TheReleaserReleasesAtTheEnd) {
    void* const memory = get(1);
    { const VirtualMemoryManager::Releaser releaser; }
    EXPECT_EQ(VirtualMemoryManager::m_pInstance, nullptr);
    EXPECT_FALSE(is_mapped(memory));
    { const VirtualMemoryManager::Releaser nothing_to_release; }
}

TEST_F(VirtualMemoryManagerTest, SizesAreRoundedUpToBlocks) {
    const std::pair<ULONG, ULONG> sizes[] = {
        {1, 32768}, {32767, 32768}, {32768, 32768}, {32769, 65536}, {65536, 65536}};
    for (const auto& [wanted, given] : sizes) {
        ULONG size = wanted;
        void* const memory = manager.GetMemory(&size);
        ASSERT_NE(memory, nullptr) << wanted;
        EXPECT_EQ(size, given) << wanted;
        std::memset(memory, 0xAB, size);
        EXPECT_EQ(manager.FreeMemory(memory, size), 0);
    }
}

TEST_F(VirtualMemoryManagerTest, NothingForNoBytesOrNoSize) {
    ULONG none = 0;
    EXPECT_EQ(manager.GetMemory(&none), nullptr);
    EXPECT_EQ(none, 0u);
    EXPECT_EQ(manager.GetMemory(nullptr), nullptr);
    get(1);
    EXPECT_EQ(manager.GetMemory(&none), nullptr);  // after a taken block too
}

TEST_F(VirtualMemoryManagerTest, TheLastBlockIsNeverHandedOut) {
    char* const first = get_block();
    for (ULONG i = 1; i < 63; ++i) {
        ASSERT_EQ(get_block(), first + i * kBlock) << i;
    }
    ULONG size = 5;
    EXPECT_EQ(manager.GetMemory(&size), nullptr);
    EXPECT_EQ(size, 5u);
    manager.FreeMemory(first + 62 * kBlock, kBlock);
    EXPECT_EQ(get(kBlock + 1), nullptr);
    EXPECT_EQ(get_block(), first + 62 * kBlock);
}

TEST_F(VirtualMemoryManagerTest, TheLongestRun) {
    ULONG size = 63 * kBlock;
    void* const all = manager.GetMemory(&size);
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(size, 63 * kBlock);
    EXPECT_EQ(get(1), nullptr);
    manager.FreeMemory(all, size);
    for (const ULONG too_much : {63 * kBlock + 1, 64 * kBlock, 64 * kBlock + 1, 0xFFFFFFFFu}) {
        size = too_much;
        EXPECT_EQ(manager.GetMemory(&size), nullptr);
        EXPECT_EQ(size, too_much);
    }
    EXPECT_EQ(get(63 * kBlock), all);
}

TEST_F(VirtualMemoryManagerTest, TheFirstRunThatIsLongEnough) {
    char* const first = get_block();
    for (int i = 1; i < 10; ++i) {
        get_block();
    }
    manager.FreeMemory(first + 2 * kBlock, kBlock);
    manager.FreeMemory(first + 5 * kBlock, 2 * kBlock);
    EXPECT_EQ(get(2 * kBlock), first + 5 * kBlock);
    EXPECT_EQ(get(2 * kBlock), first + 10 * kBlock);
    EXPECT_EQ(get(kBlock), first + 2 * kBlock);
}

TEST_F(VirtualMemoryManagerTest, OnlyWholeBlocksAreFreed) {
    char* const memory = static_cast<char*>(get(3 * kBlock));
    EXPECT_EQ(manager.FreeMemory(memory, kBlock - 1), 0);
    memory[0] = 1;  // still there
    EXPECT_EQ(manager.FreeMemory(memory, 2 * kBlock - 1), 0);
    EXPECT_EQ(get_block(), memory);
    memory[kBlock] = 1;
    EXPECT_EQ(memory[0], 0);  // fresh
}

TEST_F(VirtualMemoryManagerTest, FreeingWhatIsNotThere) {
    char* const memory = get_block();
    memory[0] = 7;
    EXPECT_EQ(manager.FreeMemory(nullptr, kBlock), 0);
    EXPECT_EQ(manager.FreeMemory(memory, 0), 0);
    EXPECT_EQ(manager.FreeMemory(memory + kBlock, kBlock), 0);
    EXPECT_EQ(manager.FreeMemory(memory + 64 * kBlock, kBlock), 0);
    EXPECT_EQ(manager.FreeMemory(memory - kBlock, kBlock), 0);
    EXPECT_EQ(manager.FreeMemory(memory - 5 * kBlock, 5 * kBlock), 0);
    // With 32 bits these would be all of the memory there is: half of the addresses count as before the stretch.
    if (sizeof(void*) == 8) {
        EXPECT_EQ(manager.FreeMemory(reinterpret_cast<void*>(1), 0xFFFFFFFF), 0);
        EXPECT_EQ(manager.FreeMemory(reinterpret_cast<void*>(UINTPTR_MAX), 0xFFFFFFFF), 0);
    }
    EXPECT_EQ(memory[0], 7);
    EXPECT_EQ(get_block(), memory + kBlock);
}

// Frees that start before the stretch or run past its end reach the blocks in between and nothing else.
TEST_F(VirtualMemoryManagerTest, ARunMayLieHalfOutside) {
    char* const first = get_block();
    for (int i = 1; i < 63; ++i) {
        get_block();
    }
    manager.FreeMemory(first + 61 * kBlock, 0xFFFFFFFF);
    EXPECT_EQ(get_block(), first + 61 * kBlock);
    EXPECT_EQ(get_block(), first + 62 * kBlock);
    EXPECT_EQ(get_block(), nullptr);
    manager.FreeMemory(first - 2 * kBlock, 3 * kBlock);
    EXPECT_EQ(get_block(), first);
    EXPECT_EQ(get_block(), nullptr);
    manager.FreeMemory(first - 1, kBlock);  // rounds towards the start
    EXPECT_EQ(get_block(), first);
    manager.FreeMemory(first + 5 * kBlock + 9, kBlock);  // an address inside a block is that block
    EXPECT_EQ(get_block(), first + 5 * kBlock);
}

TEST_F(VirtualMemoryManagerTest, CommittedBlocksAreZeroed) {
    char* const memory = static_cast<char*>(get(2 * kBlock));
    std::memset(memory, 1, 2 * kBlock);
    manager.FreeMemory(memory, 2 * kBlock);
    ASSERT_EQ(get(2 * kBlock), memory);
    EXPECT_TRUE(std::all_of(memory, memory + 2 * kBlock, [](char c) { return c == 0; }));
}

TEST(VirtualMemoryManager, CommitMemoryKeepsItsBound) {
    Open manager;
    EXPECT_EQ(manager.CommitMemory(64, 0), 0);
    EXPECT_EQ(manager.CommitMemory(64, 1), 0);
    EXPECT_EQ(manager.CommitMemory(63, 1), 0);
    EXPECT_EQ(manager.CommitMemory(0, 64), 0);
    EXPECT_EQ(manager.CommitMemory(1, 0xFFFFFFFF), 0);
    EXPECT_EQ(manager.CommitMemory(0xFFFFFFFF, 2), 0);
    EXPECT_EQ(manager.CommitMemory(3, 0), 0);
    EXPECT_EQ(manager.CommitMemory(62, 1), 1);
    EXPECT_EQ(manager.CommitMemory(0, 63), 1);
    ULONG size = 1;
    EXPECT_EQ(manager.GetMemory(&size), nullptr);
}

TEST(VirtualMemoryManager, AssignmentCopiesWhatIsKnown) {
    Open from;
    ULONG size = kBlock;
    void* const memory = from.GetMemory(&size);
    // Raw room, because only one of the two may give the stretch back.
    alignas(Open) unsigned char room[sizeof(Open)];
    auto& to = *new (room) Open;
    void* const own = to.GetMemory(&size);
    ASSERT_NE(own, nullptr);
    to = from;
    to.FreeMemory(memory, size);
    EXPECT_EQ(to.GetMemory(&size), memory);
    void* const unreachable = own;
    EXPECT_TRUE(VirtualFree(unreachable, 0, MEM_RELEASE));
}

TEST(VirtualMemoryManager, NoMemoryForTheManager) {
    ASSERT_EQ(VirtualMemoryManager::m_pInstance, nullptr);
    {
        const zr::test::FailingNew failing;
        EXPECT_EQ(VirtualMemoryManager::GetInstance(), nullptr);
    }
    EXPECT_EQ(VirtualMemoryManager::Release(), 0);
}

#if !defined(ZR_SANITIZE_ADDRESS) && !defined(ZR_SANITIZE_THREAD)
TEST(VirtualMemoryManager, NoRoomForTheStretch) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    const rlimit tight{1 << 20, before.rlim_max};  // less than the process has already
    ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    VirtualMemoryManager* const manager = VirtualMemoryManager::GetInstance();
    setrlimit(RLIMIT_AS, &before);
    ASSERT_NE(manager, nullptr);
    ULONG size = 1;
    EXPECT_EQ(manager->GetMemory(&size), nullptr);
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(manager->FreeMemory(&size, kBlock), 0);
    EXPECT_EQ(VirtualMemoryManager::Release(), 1);
}
#endif

// Random calls beside a model: a table of the 64 blocks and what was written into them.
TEST_F(VirtualMemoryManagerTest, RandomCallsAgreeWithAModel) {
    char* const base = get_block();
    manager.FreeMemory(base, kBlock);
    std::mt19937 random(1);
    const auto below = [&](unsigned limit) { return std::uniform_int_distribution<unsigned>(0, limit - 1)(random); };
    std::vector<int> blocks(64, -1);  // what each holds, -1 when it is free
    for (int step = 0; step < 4000; ++step) {
        if (below(2) == 0) {
            const ULONG wanted = below(6 * kBlock);
            const int count = static_cast<int>((wanted + kBlock - 1) / kBlock);
            int found = -1;
            for (int start = 0; found < 0 && count > 0 && start + count <= 64; ++start) {
                if (std::all_of(&blocks[start], &blocks[start] + count, [](int b) { return b < 0; })) found = start;
            }
            if (found + count >= 64) found = -1;
            ULONG size = wanted;
            char* const memory = static_cast<char*>(manager.GetMemory(&size));
            ASSERT_EQ(memory, found < 0 ? nullptr : base + found * static_cast<int>(kBlock)) << step;
            ASSERT_EQ(size, found < 0 ? wanted : count * kBlock) << step;
            for (int i = found; found >= 0 && i < found + count; ++i) {
                blocks[i] = static_cast<int>(below(100));
                std::memset(base + i * static_cast<int>(kBlock), blocks[i], kBlock);
            }
        } else {
            const int start = static_cast<int>(below(70)) - 3;
            const ULONG size = below(8 * kBlock);
            ASSERT_EQ(manager.FreeMemory(base + start * static_cast<int>(kBlock), size), 0);
            for (int i = std::max(start, 0); i < std::min(start + static_cast<int>(size / kBlock), 64); ++i) {
                blocks[i] = -1;
            }
        }
        const int look = static_cast<int>(below(64));
        if (blocks[look] >= 0) {
            ASSERT_EQ(base[look * static_cast<int>(kBlock) + static_cast<int>(below(kBlock))], blocks[look]) << step;
        }
    }
}
