#include <gtest/gtest.h>

#include <limits>
#include <thread>
#include <vector>

#include "platform/base.h"

namespace {

TEST(Interlocked, Results) {
    LONG volatile value = 5;
    EXPECT_EQ(InterlockedIncrement(&value), 6);
    EXPECT_EQ(InterlockedDecrement(&value), 5);
    EXPECT_EQ(InterlockedExchange(&value, 9), 5);
    EXPECT_EQ(InterlockedExchangeAdd(&value, -2), 9);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(InterlockedCompareExchange(&value, 1, 8), 7);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(InterlockedCompareExchange(&value, 1, 7), 7);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(InterlockedTestExchange(&value, 1, 2), 1);
    EXPECT_EQ(value, 2);
    value = std::numeric_limits<LONG>::max();
    EXPECT_EQ(InterlockedIncrement(&value), std::numeric_limits<LONG>::min()) << "wraps";
}

TEST(Interlocked, Pointers) {
    int a = 0;
    int b = 0;
    void* volatile place = &a;
    EXPECT_EQ(InterlockedExchangePointer(&place, &b), &a);
    EXPECT_EQ(InterlockedCompareExchangePointer(&place, &a, &a), &b);
    EXPECT_EQ(place, &b);
    EXPECT_EQ(InterlockedCompareExchangePointer(&place, nullptr, &b), &b);
    EXPECT_EQ(place, nullptr);
}

TEST(Interlocked, NoCountIsLostBetweenThreads) {
    LONG volatile up = 0;
    LONG volatile both = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&up, &both] {
            for (int i = 0; i < 20000; ++i) {
                InterlockedIncrement(&up);
                InterlockedExchangeAdd(&both, 3);
                InterlockedDecrement(&both);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(up, 80000);
    EXPECT_EQ(both, 160000);
}

}  // namespace
