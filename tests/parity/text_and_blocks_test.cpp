// Functions of the ground floor: texts that may be NULL, blocks under other names, interlocked lists.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/base.h"
#include "platform/diagnostics.h"
#include "support/forked.h"
#include "support/instrumented.h"

namespace {

TEST(LenientStrings, TakeNullForNothing) {
    EXPECT_EQ(lstrlenW(nullptr), 0);
    EXPECT_EQ(lstrlenW(u""), 0);
    EXPECT_EQ(lstrlenW(u"four"), 4);
    WCHAR text[16] = u"kept";
    EXPECT_EQ(lstrcpyW(text, nullptr), nullptr);
    EXPECT_EQ(lstrcpyW(nullptr, u"a"), nullptr);
    EXPECT_EQ(lstrcatW(text, nullptr), nullptr);
    EXPECT_EQ(lstrcpynW(text, nullptr, 5), nullptr);
    EXPECT_EQ(std::u16string(text), u"kept");
    EXPECT_EQ(lstrcmpW(nullptr, nullptr), 0);
    EXPECT_EQ(lstrcmpW(nullptr, u""), -1);
    EXPECT_EQ(lstrcmpiW(u"", nullptr), 1);
}

TEST(LenientStrings, CopyAndJoin) {
    WCHAR text[8] = {};
    EXPECT_EQ(lstrcpyW(text, u"abc"), text);
    EXPECT_EQ(lstrcatW(text, u"def"), text);
    EXPECT_EQ(std::u16string(text), u"abcdef");
    EXPECT_EQ(lstrcpynW(text, u"12345678", 8), text);
    EXPECT_EQ(std::u16string(text), u"1234567");
    EXPECT_EQ(lstrcpynW(text, u"xyz", 1), text);
    EXPECT_EQ(text[0], 0);
    text[0] = u'q';
    EXPECT_EQ(lstrcpynW(text, u"xyz", 0), nullptr);
    EXPECT_EQ(text[0], u'q');
    // No character beyond what is copied is read.
    const auto block = std::make_unique<WCHAR[]>(3);
    block[0] = block[1] = block[2] = u'z';
    EXPECT_EQ(lstrcpynW(text, block.get(), 4), text);
    EXPECT_EQ(std::u16string(text), u"zzz");
}

TEST(LenientStrings, OrderIsASign) {
    EXPECT_EQ(lstrcmpW(u"a", u"z"), -1);
    EXPECT_EQ(lstrcmpW(u"z", u"a"), 1);
    EXPECT_EQ(lstrcmpW(u"same", u"same"), 0);
    EXPECT_EQ(lstrcmpW(u"A", u"a"), -1);
    EXPECT_EQ(lstrcmpiW(u"HELLO", u"hello"), 0);
    EXPECT_EQ(lstrcmpiW(u"ÄPFEL", u"äpfel"), 0);
    EXPECT_EQ(lstrcmpiW(u"B", u"a"), 1);
}

TEST(Blocks, LockIsTheBlockAndUnlockLeavesNothingLocked) {
    const HLOCAL block = LocalAlloc(LHND, 100);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(LocalLock(block), block);
    EXPECT_EQ(LocalHandle(block), block);
    EXPECT_EQ(LocalFlags(block) & LMEM_LOCKCOUNT, 0u);
    EXPECT_EQ(LocalFlags(block), 0u);
    SetLastError(ERROR_BUSY);
    EXPECT_FALSE(LocalUnlock(block));
    EXPECT_EQ(GetLastError(), DWORD{NO_ERROR});
    EXPECT_EQ(LocalReAlloc(block, 1, LMEM_MODIFY | LMEM_MOVEABLE), block);
    EXPECT_EQ(LocalSize(block), 100u);
    EXPECT_EQ(LocalFree(block), nullptr);
}

TEST(Blocks, WhatIsNoBlockIsRefused) {
    alignas(16) char foreign[64] = {};
    HLOCAL const address = foreign + 32;
    SetLastError(NO_ERROR);
    EXPECT_EQ(LocalLock(address), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    SetLastError(NO_ERROR);
    EXPECT_FALSE(LocalUnlock(address));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    SetLastError(NO_ERROR);
    EXPECT_EQ(LocalHandle(nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(GlobalFlags(address), GMEM_INVALID_HANDLE);
}

TEST(Blocks, GlobalOnesAreLocalOnes) {
    HGLOBAL block = GlobalAlloc(GHND, 10);
    ASSERT_NE(block, nullptr);
    const char* const bytes = static_cast<const char*>(GlobalLock(block));
    EXPECT_EQ(std::string(bytes, 10), std::string(10, '\0'));
    EXPECT_FALSE(GlobalUnlock(block));
    EXPECT_EQ(GlobalSize(block), 10u);
    block = GlobalReAlloc(block, 200, GMEM_ZEROINIT | GMEM_MOVEABLE);
    EXPECT_EQ(LocalSize(block), 200u);
    EXPECT_EQ(GlobalHandle(GlobalLock(block)), block);
    EXPECT_EQ(GlobalFree(block), nullptr);
    EXPECT_EQ(GlobalFree(nullptr), nullptr);
}

struct Item {
    SLIST_ENTRY link;
    int number;
};

TEST(InterlockedLists, LastInIsFirstOut) {
    SLIST_HEADER list;
    InitializeSListHead(&list);
    EXPECT_EQ(QueryDepthSList(&list), 0);
    EXPECT_EQ(InterlockedPopEntrySList(&list), nullptr);
    EXPECT_EQ(InterlockedFlushSList(&list), nullptr);
    Item items[3] = {{{}, 0}, {{}, 1}, {{}, 2}};
    EXPECT_EQ(InterlockedPushEntrySList(&list, &items[0].link), nullptr);
    EXPECT_EQ(InterlockedPushEntrySList(&list, &items[1].link), &items[0].link);
    EXPECT_EQ(InterlockedPushEntrySList(&list, &items[2].link), &items[1].link);
    EXPECT_EQ(QueryDepthSList(&list), 3);
    EXPECT_EQ(InterlockedPopEntrySList(&list), &items[2].link);
    EXPECT_EQ(QueryDepthSList(&list), 2);
    PSLIST_ENTRY rest = InterlockedFlushSList(&list);
    EXPECT_EQ(rest, &items[1].link);
    EXPECT_EQ(rest->Next, &items[0].link);
    EXPECT_EQ(rest->Next->Next, nullptr);
    EXPECT_EQ(QueryDepthSList(&list), 0);
    EXPECT_EQ(InterlockedPopEntrySList(&list), nullptr);
}

// Each entry is popped once, and its memory given back at once, while others look at the list.
TEST(InterlockedLists, EntriesAreFreedAsSoonAsTheyArePopped) {
    constexpr int kThreads = 4;
    constexpr int kEach = 20'000 / zr::test::kStride;
    SLIST_HEADER list;
    InitializeSListHead(&list);
    std::atomic<long long> sum{0};
    std::atomic<int> popped{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                InterlockedPushEntrySList(&list, &(new Item{{}, t * kEach + i})->link);
                auto* const item = reinterpret_cast<Item*>(InterlockedPopEntrySList(&list));
                if (!item) continue;
                sum += item->number;
                ++popped;
                delete item;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    while (auto* const item = reinterpret_cast<Item*>(InterlockedPopEntrySList(&list))) {
        sum += item->number;
        ++popped;
        delete item;
    }
    constexpr long long kAll = kThreads * kEach;
    EXPECT_EQ(popped, kAll);
    EXPECT_EQ(sum, kAll * (kAll - 1) / 2);
}

TEST(InterlockedLists, GoOnAfterAFork) {
    SLIST_HEADER list;
    InitializeSListHead(&list);
    Item items[2] = {};
    InterlockedPushEntrySList(&list, &items[0].link);
    SLIST_HEADER busy;
    InitializeSListHead(&busy);
    Item others[1] = {};
    const zr::test::Load load({[&] {
        InterlockedPushEntrySList(&busy, &others[0].link);
        InterlockedPopEntrySList(&busy);
    }});
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(zr::test::in_fork([&] {
                      InterlockedPushEntrySList(&list, &items[1].link);
                      InterlockedPushEntrySList(&busy, &items[1].link);
                      return static_cast<int>(QueryDepthSList(&list));
                  }),
                  2);
    }
    EXPECT_EQ(QueryDepthSList(&list), 1);
}

}  // namespace
