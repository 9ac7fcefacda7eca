#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstdint>
#include <cstring>
#include <limits>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "guard_page.h"
#include "platform/base.h"
#include "platform/diagnostics.h"
#include "support/forked.h"

namespace {

constexpr SIZE_T kNoSize = static_cast<SIZE_T>(-1);

bool is_filled(const void* block, std::size_t from, std::size_t to, unsigned char value) {
    const auto* const bytes = static_cast<const unsigned char*>(block);
    return std::all_of(bytes + from, bytes + to, [value](unsigned char byte) { return byte == value; });
}

TEST(Heap, AllocatesSizesAndFrees) {
    const HANDLE heap = GetProcessHeap();
    ASSERT_NE(heap, nullptr);
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::HeapBlocks);
    void* const block = HeapAlloc(heap, HEAP_ZERO_MEMORY, 4096);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(is_filled(block, 0, 4096, 0));
    EXPECT_EQ(HeapSize(heap, 0, block), 4096u);
    EXPECT_TRUE(HeapValidate(heap, 0, block));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), before + 1);
    EXPECT_TRUE(HeapFree(heap, 0, block));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), before);
}

TEST(Heap, ZeroBytesAreABlockToo) {
    void* const block = HeapAlloc(GetProcessHeap(), 0, 0);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(HeapSize(GetProcessHeap(), 0, block), 0u);
    EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, block));
}

TEST(Heap, ReallocatingZeroesWhatIsAdded) {
    const HANDLE heap = GetProcessHeap();
    void* block = HeapAlloc(heap, 0, 100);
    std::memset(block, 0x5A, 100);
    block = HeapReAlloc(heap, HEAP_ZERO_MEMORY, block, 9096);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(is_filled(block, 0, 100, 0x5A));
    EXPECT_TRUE(is_filled(block, 100, 9096, 0));
    EXPECT_EQ(HeapSize(heap, 0, block), 9096u);
    block = HeapReAlloc(heap, 0, block, 10);
    EXPECT_TRUE(is_filled(block, 0, 10, 0x5A));
    // Bytes that were given up come back as zeros.
    block = HeapReAlloc(heap, HEAP_ZERO_MEMORY, block, 200);
    EXPECT_TRUE(is_filled(block, 0, 10, 0x5A));
    EXPECT_TRUE(is_filled(block, 10, 200, 0));
    EXPECT_TRUE(HeapFree(heap, 0, block));
}

TEST(Heap, ReallocatingInPlaceDoesNotGrow) {
    const HANDLE heap = GetProcessHeap();
    void* const block = HeapAlloc(heap, 0, 100);
    EXPECT_EQ(HeapReAlloc(heap, HEAP_REALLOC_IN_PLACE_ONLY, block, 100000), nullptr);
    EXPECT_EQ(HeapSize(heap, 0, block), 100u);
    EXPECT_TRUE(HeapFree(heap, 0, block));
}

TEST(Heap, ImpossibleSizesFail) {
    const HANDLE heap = GetProcessHeap();
    SetLastError(0);
    EXPECT_EQ(HeapAlloc(heap, 0, kNoSize), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(HeapAlloc(heap, HEAP_ZERO_MEMORY, kNoSize - 8), nullptr);
    EXPECT_EQ(HeapAlloc(heap, 0, std::numeric_limits<SIZE_T>::max() / 2), nullptr);
    void* const block = HeapAlloc(heap, 0, 8);
    std::memset(block, 7, 8);
    EXPECT_EQ(HeapReAlloc(heap, 0, block, kNoSize), nullptr);
    EXPECT_EQ(HeapSize(heap, 0, block), 8u);
    EXPECT_TRUE(is_filled(block, 0, 8, 7));
    EXPECT_TRUE(HeapFree(heap, 0, block));
}

TEST(Heap, ForeignPointersAreRefused) {
    const HANDLE heap = GetProcessHeap();
    alignas(64) unsigned char local[128] = {};
    static unsigned char fixed[128];
    std::vector<unsigned char> foreign(128);
    const zr::test::GuardedText guarded("x");
    void* const lone_page = static_cast<char*>(guarded.forbidden());
    for (void* const pointer :
         {static_cast<void*>(local + 64), static_cast<void*>(fixed + 64), static_cast<void*>(foreign.data() + 64),
          static_cast<void*>(local + 65), lone_page, reinterpret_cast<void*>(static_cast<ULONG_PTR>(1)),
          reinterpret_cast<void*>(static_cast<ULONG_PTR>(64))}) {
        SetLastError(0);
        EXPECT_FALSE(HeapFree(heap, 0, pointer));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
        EXPECT_EQ(HeapSize(heap, 0, pointer), kNoSize);
        EXPECT_FALSE(HeapValidate(heap, 0, pointer));
        EXPECT_EQ(HeapReAlloc(heap, 0, pointer, 8), nullptr);
        EXPECT_EQ(LocalFree(pointer), pointer);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
        EXPECT_EQ(LocalSize(pointer), 0u);
        EXPECT_EQ(LocalReAlloc(pointer, 8, 0), nullptr);
    }
}

// No page lies before the first of a mapping: what looks there for a header must not.
TEST(Heap, AMappingsFirstByteIsRefusedWithoutLookingBeforeIt) {
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    auto* const pages =
        static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(mprotect(pages, page, PROT_NONE), 0);
    EXPECT_FALSE(HeapFree(GetProcessHeap(), 0, pages + page));
    munmap(pages, 2 * page);
}

TEST(Heap, Null) {
    const HANDLE heap = GetProcessHeap();
    EXPECT_TRUE(HeapFree(heap, 0, nullptr));
    EXPECT_EQ(HeapSize(heap, 0, nullptr), kNoSize);
    EXPECT_EQ(HeapReAlloc(heap, 0, nullptr, 8), nullptr);
    EXPECT_TRUE(HeapValidate(heap, 0, nullptr));
    EXPECT_EQ(LocalFree(nullptr), nullptr);
    EXPECT_EQ(LocalSize(nullptr), 0u);
}

TEST(Heap, AFreedBlockIsRefused) {
    const HANDLE heap = GetProcessHeap();
    void* const block = HeapAlloc(heap, 0, 64);
    const LONGLONG live = ZrLiveObjects(ZrLiveKind::HeapBlocks);
    EXPECT_TRUE(HeapFree(heap, 0, block));
    EXPECT_FALSE(HeapFree(heap, 0, block));
    EXPECT_EQ(HeapSize(heap, 0, block), kNoSize);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), live - 1);
}

TEST(Heap, ForeignHeapsAreRefused) {
    int nothing = 0;
    for (const HANDLE heap : {HANDLE{nullptr}, static_cast<HANDLE>(&nothing), INVALID_HANDLE_VALUE}) {
        SetLastError(0);
        EXPECT_EQ(HeapAlloc(heap, 0, 8), nullptr);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
        EXPECT_FALSE(HeapFree(heap, 0, &nothing));
        EXPECT_FALSE(HeapValidate(heap, 0, nullptr));
        EXPECT_FALSE(HeapDestroy(heap));
    }
    EXPECT_FALSE(HeapDestroy(GetProcessHeap()));
}

TEST(Heap, APrivateHeapKeepsToItself) {
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::HeapBlocks);
    const HANDLE heap = HeapCreate(0, 0, 0);
    ASSERT_NE(heap, nullptr);
    void* const block = HeapAlloc(heap, HEAP_ZERO_MEMORY, 32);
    EXPECT_TRUE(HeapValidate(heap, 0, block));
    EXPECT_FALSE(HeapValidate(GetProcessHeap(), 0, block));
    EXPECT_FALSE(HeapFree(GetProcessHeap(), 0, block));
    void* const grown = HeapReAlloc(heap, HEAP_ZERO_MEMORY, block, 3000);
    EXPECT_TRUE(is_filled(grown, 0, 3000, 0));
    HeapFree(heap, 0, HeapAlloc(heap, 0, 10));
    HeapAlloc(heap, 0, 10);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), before + 2);
    EXPECT_TRUE(HeapDestroy(heap));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), before) << "its blocks went with it";
    EXPECT_FALSE(HeapDestroy(heap));
    EXPECT_EQ(HeapAlloc(heap, 0, 1), nullptr);
}

TEST(Heap, APrivateHeapKeepsItsMaximum) {
    const HANDLE heap = HeapCreate(0, 0, 1000);
    void* const first = HeapAlloc(heap, 0, 500);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(HeapAlloc(heap, 0, 500), nullptr);
    EXPECT_EQ(HeapReAlloc(heap, 0, first, 1001), nullptr);
    EXPECT_TRUE(HeapValidate(heap, 0, first));
    EXPECT_TRUE(HeapFree(heap, 0, first));
    EXPECT_NE(HeapAlloc(heap, 0, 900), nullptr);
    EXPECT_TRUE(HeapDestroy(heap));
}

TEST(LocalMemory, AllocatesGrowsAndFrees) {
    HLOCAL block = LocalAlloc(LPTR, 16);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(is_filled(block, 0, 16, 0));
    EXPECT_EQ(LocalSize(block), 16u);
    std::memset(block, 3, 16);
    block = LocalReAlloc(block, 64, LMEM_MOVEABLE | LMEM_ZEROINIT);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(is_filled(block, 0, 16, 3));
    EXPECT_TRUE(is_filled(block, 16, 64, 0));
    EXPECT_EQ(LocalFree(block), nullptr);
    EXPECT_EQ(LocalFree(block), block);
}

TEST(HeapFaults, FailuresComeAfterTheCountAskedFor) {
    const HANDLE heap = GetProcessHeap();
    ZrFailHeapAfter(2);
    void* const first = HeapAlloc(heap, 0, 8);
    void* const second = LocalAlloc(0, 8);
    EXPECT_NE(first, nullptr);
    EXPECT_NE(second, nullptr);
    SetLastError(0);
    EXPECT_EQ(HeapAlloc(heap, 0, 8), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(LocalAlloc(0, 8), nullptr);
    EXPECT_EQ(HeapReAlloc(heap, 0, first, 80), nullptr);
    EXPECT_EQ(HeapSize(heap, 0, first), 8u) << "the block stays as it was";
    ZrFailHeapAfter(-1);
    void* const third = HeapReAlloc(heap, 0, first, 80);
    EXPECT_NE(third, nullptr);
    EXPECT_TRUE(HeapFree(heap, 0, third));
    EXPECT_EQ(LocalFree(second), nullptr);
}

// Blocks of every size keep their bytes through growing and shrinking, wherever on a page they come to lie.
TEST(Heap, RandomUseAgreesWithAModel) {
    std::mt19937 random(11);
    const HANDLE heaps[] = {GetProcessHeap(), HeapCreate(0, 0, 0)};
    for (const HANDLE heap : heaps) {
        struct Block {
            void* bytes;
            std::size_t size;
            unsigned char value;
        };
        std::vector<Block> blocks;
        for (int i = 0; i < 30000; ++i) {
            const std::size_t size = random() % 8 == 0 ? random() % 20000 : random() % 300;
            const auto value = static_cast<unsigned char>(random());
            if (blocks.size() < 100 || random() % 3 == 0) {
                blocks.push_back({HeapAlloc(heap, 0, size), size, value});
            } else {
                Block& block = blocks[random() % blocks.size()];
                void* const moved = HeapReAlloc(heap, HEAP_ZERO_MEMORY, block.bytes, size);
                ASSERT_TRUE(is_filled(moved, 0, std::min(size, block.size), block.value));
                if (size > block.size) {
                    ASSERT_TRUE(is_filled(moved, block.size, size, 0));
                }
                block = {moved, size, value};
                std::swap(block, blocks.back());
            }
            Block& last = blocks.back();
            ASSERT_NE(last.bytes, nullptr);
            ASSERT_EQ(reinterpret_cast<std::uintptr_t>(last.bytes) % alignof(std::max_align_t), 0u);
            ASSERT_NE(reinterpret_cast<std::uintptr_t>(last.bytes) % 4096, 0u);
            std::memset(last.bytes, last.value, last.size);
            if (blocks.size() > 400) {
                Block& gone = blocks[random() % blocks.size()];
                ASSERT_TRUE(is_filled(gone.bytes, 0, gone.size, gone.value));
                ASSERT_TRUE(HeapFree(heap, 0, gone.bytes));
                gone = blocks.back();
                blocks.pop_back();
            }
        }
        for (const Block& block : blocks) {
            ASSERT_EQ(HeapSize(heap, 0, block.bytes), block.size);
            ASSERT_TRUE(is_filled(block.bytes, 0, block.size, block.value));
            ASSERT_TRUE(HeapFree(heap, 0, block.bytes));
        }
    }
    EXPECT_TRUE(HeapDestroy(heaps[1]));
}

TEST(Heap, ThreadsShareAHeap) {
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::HeapBlocks);
    const HANDLE own = HeapCreate(0, 0, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([own, t] {
            const HANDLE heap = t % 2 == 0 ? own : GetProcessHeap();
            for (int i = 0; i < 3000; ++i) {
                void* block = HeapAlloc(heap, 0, 40);
                std::memset(block, t, 40);
                block = HeapReAlloc(heap, 0, block, 80);
                EXPECT_TRUE(is_filled(block, 0, 40, static_cast<unsigned char>(t)));
                EXPECT_TRUE(HeapFree(heap, 0, block));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(HeapDestroy(own));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), before);
}

// More threads at a time than have a count of their own, each of which ends with blocks that others free.
TEST(Heap, BlocksOfManyThreadsAreCounted) {
    constexpr int kThreads = 300;
    constexpr int kBlocks = 7;
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::HeapBlocks);
    for (int round = 0; round < 2; ++round) {
        std::vector<void*> blocks(kThreads * kBlocks);
        std::vector<std::thread> threads;
        std::barrier all_there(kThreads);
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < kBlocks; ++i) {
                    blocks[t * kBlocks + i] = HeapAlloc(GetProcessHeap(), 0, 24);
                }
                all_there.arrive_and_wait();
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), before + kThreads * kBlocks);
        for (void* const block : blocks) {
            EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, block));
        }
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), before);
    }
}

TEST(Heap, BlocksThatEndWithTheirThreadAreCounted) {
    struct Block {
        ~Block() { HeapFree(GetProcessHeap(), 0, bytes); }
        void* bytes = HeapAlloc(GetProcessHeap(), 0, 24);
    };
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::HeapBlocks);
    pthread_key_t late = 0;  // its destructor runs after the thread's count was given back
    ASSERT_EQ(pthread_key_create(&late, [](void* block) { delete static_cast<Block*>(block); }), 0);
    std::thread([late] {
        thread_local const Block block;
        EXPECT_NE(block.bytes, nullptr);
        EXPECT_EQ(pthread_setspecific(late, new Block), 0);
    }).join();
    pthread_key_delete(late);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), before);
}

TEST(Heap, AForkedChildGoesOnCounting) {
    void* const block = HeapAlloc(GetProcessHeap(), 0, 24);
    std::mutex gate;
    gate.lock();
    void* of_other = nullptr;
    std::atomic<bool> made = false;
    std::thread other([&] {
        of_other = HeapAlloc(GetProcessHeap(), 0, 24);
        made = true;
        made.notify_all();
        const std::lock_guard wait(gate);
    });
    made.wait(false);
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::HeapBlocks);
    const int result = zr::test::in_fork([&] {
        if (ZrLiveObjects(ZrLiveKind::HeapBlocks) != before) return 1;
        HeapFree(GetProcessHeap(), 0, block);
        HeapFree(GetProcessHeap(), 0, of_other);
        return ZrLiveObjects(ZrLiveKind::HeapBlocks) == before - 2 ? 0 : 2;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), before);
    gate.unlock();
    other.join();
    EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, block));
    EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, of_other));
}

}  // namespace
