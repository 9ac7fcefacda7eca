#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/log_capture.h"

TEST(Sink, SeesWholeRecords) {
    zr::test::LogCapture log;
    zrKelDebugBinLog2("source", 12, zrLogCategory(0x18, kZrLogWarning), 7, 8);
    zrKelDebugBinBuffer("other", 13, zrLogCategory(0x18, kZrLogTrace) | kZrLogBuffer, "abc", 3);
    const auto records = log.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].source, "source");
    EXPECT_EQ(records[0].line, 12);
    EXPECT_EQ(records[0].category, 0x180008u);
    EXPECT_EQ(records[0].arguments, (std::vector<std::uintptr_t>{7, 8}));
    EXPECT_EQ(records[1].category, 0x40180020u);
    EXPECT_TRUE(records[1].arguments.empty());
    EXPECT_EQ(records[1].data, "abc");
}

TEST(Sink, EveryArgumentCountArrivesInOrder) {
    zr::test::LogCapture log;
    zrKelDebugBinLog0("s", 0, 1);
    zrKelDebugBinLog1("s", 1, 1, 1);
    zrKelDebugBinLog2("s", 2, 1, 1, 2);
    zrKelDebugBinLog3("s", 3, 1, 1, 2, 3);
    zrKelDebugBinLog4("s", 4, 1, 1, 2, 3, UINTPTR_MAX);
    const auto records = log.records();
    ASSERT_EQ(records.size(), 5u);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(records[i].line, i);
        EXPECT_EQ(records[i].arguments.size(), static_cast<std::size_t>(i));
    }
    EXPECT_EQ(records[4].arguments, (std::vector<std::uintptr_t>{1, 2, 3, UINTPTR_MAX}));
}

namespace {

struct Probe {
    std::atomic<bool> alive{true};
    std::atomic<int> inside{0};
    std::atomic<bool> seen_dead{false};
};

void probe_sink(const ZrLogRecord&, void* context) {
    auto* probe = static_cast<Probe*>(context);
    ++probe->inside;
    if (!probe->alive) probe->seen_dead = true;
    --probe->inside;
}

}  // namespace

TEST(Sink, ReplacingReturnsWhenNobodyIsInsideTheOldOne) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&stop] {
            while (!stop) {
                zrKelDebugBinLog0("s", 1, 1);
            }
        });
    }
    Probe probes[50];
    for (Probe& probe : probes) {
        zrLogSetSink(probe_sink, &probe);
        std::this_thread::yield();
        zrLogSetSink(nullptr, nullptr);
        EXPECT_EQ(probe.inside, 0);
        probe.alive = false;
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const Probe& probe : probes) {
        EXPECT_FALSE(probe.seen_dead);
    }
}

TEST(Sink, WhatASinkLogsDoesNotComeBackToIt) {
    int calls = 0;
    zrLogSetSink(
        [](const ZrLogRecord&, void* context) {
            ++*static_cast<int*>(context);
            zrKelDebugBinLog0("inner", 1, 1);
        },
        &calls);
    zrKelDebugBinLog0("outer", 1, 1);
    zrLogSetSink(nullptr, nullptr);
    EXPECT_EQ(calls, 1);
}
