#include <atomic>
#include <memory>
#include <vector>

#include "platform/kernel/kernel_support.h"

using namespace zr::test;

TEST(Event, AutoResetLetsOneWaitThroughPerSignal) {
    const Handle event = auto_event();
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(SetEvent(event));
    EXPECT_TRUE(SetEvent(event));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
}

TEST(Event, ManualResetStaysSetUntilReset) {
    const Handle event = manual_event(true);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(ResetEvent(event));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
}

TEST(Event, InitialStateCountsForAutoReset) {
    const Handle event = auto_event(true);
    EXPECT_EQ(WaitForSingleObject(event, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
}

TEST(Event, ResetTakesASignalBack) {
    const Handle event = auto_event(true);
    EXPECT_TRUE(ResetEvent(event));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
}

TEST(Event, CreationClearsTheLastError) {
    SetLastError(ERROR_ALREADY_EXISTS);
    const Handle event = auto_event();
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
}

TEST(Event, ModifyByNumber) {
    const Handle event = manual_event();
    EXPECT_TRUE(EventModify(event, EVENT_SET));
    EXPECT_TRUE(is_signalled(event));
    EXPECT_TRUE(EventModify(event, EVENT_RESET));
    EXPECT_FALSE(is_signalled(event));
    EXPECT_TRUE(EventModify(event, EVENT_PULSE));
    EXPECT_FALSE(is_signalled(event));
    EXPECT_FALSE(EventModify(event, 4));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(Event, OtherObjectsAreNoEvents) {
    const Handle lock = mutex();
    EXPECT_FALSE(SetEvent(lock));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(ResetEvent(lock));
    EXPECT_FALSE(PulseEvent(lock));
}

TEST(Event, SignalGoesToTheThreadThatWaits) {
    const Handle event = auto_event();
    Worker waiter([&] { return WaitForSingleObject(event, INFINITE); });
    waiter.until_asleep();
    EXPECT_TRUE(SetEvent(event));
    // The waiter had it, whether or not it has run yet.
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_EQ(waiter.join(), WAIT_OBJECT_0);
}

TEST(Event, TwoSignalsReleaseTwoWaiters) {
    const Handle event = auto_event();
    Worker first([&] { return WaitForSingleObject(event, INFINITE); });
    Worker second([&] { return WaitForSingleObject(event, INFINITE); });
    first.until_asleep();
    second.until_asleep();
    SetEvent(event);
    SetEvent(event);
    EXPECT_EQ(first.join(), WAIT_OBJECT_0);
    EXPECT_EQ(second.join(), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
}

TEST(Event, WaitersAreServedInTheirOrder) {
    const Handle event = auto_event();
    const Handle done = auto_event();
    std::vector<int> order;
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 5; ++i) {
        workers.push_back(std::make_unique<Worker>([&, i] {
            WaitForSingleObject(event, INFINITE);
            order.push_back(i);
            SetEvent(done);
            return DWORD{0};
        }));
        workers.back()->until_asleep();
    }
    for (int i = 0; i < 5; ++i) {
        SetEvent(event);
        WaitForSingleObject(done, INFINITE);
    }
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(Event, ManualResetReleasesAll) {
    const Handle event = manual_event();
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 20; ++i) {
        workers.push_back(std::make_unique<Worker>([&] { return WaitForSingleObject(event, INFINITE); }));
    }
    workers.front()->until_asleep();
    SetEvent(event);
    for (const auto& worker : workers) {
        EXPECT_EQ(worker->join(), WAIT_OBJECT_0);
    }
}

TEST(Event, PulseReleasesThoseWhoWaitAndLeavesTheEventReset) {
    for (const BOOL manual : {FALSE, TRUE}) {
        const Handle event(CreateEventW(nullptr, manual, FALSE, nullptr));
        Worker first([&] { return WaitForSingleObject(event, INFINITE); });
        Worker second([&] { return WaitForSingleObject(event, INFINITE); });
        first.until_asleep();
        second.until_asleep();
        EXPECT_TRUE(PulseEvent(event));
        EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
        if (!manual) {
            const HANDLE both[] = {first.handle(), second.handle()};
            const DWORD released = WaitForMultipleObjects(2, both, FALSE, INFINITE);
            EXPECT_EQ(WaitForSingleObject(both[1 - released], 0), WAIT_TIMEOUT);
            PulseEvent(event);
        }
        EXPECT_EQ(first.join(), WAIT_OBJECT_0);
        EXPECT_EQ(second.join(), WAIT_OBJECT_0);
    }
}

TEST(Event, WhatTheSetterWroteIsSeenByTheOneItReleases) {
    const Handle there = auto_event();
    const Handle back = auto_event();
    int value = 0;  // plain on purpose: the events order the accesses
    Worker other([&] {
        for (int i = 0; i < 1000; ++i) {
            WaitForSingleObject(there, INFINITE);
            ++value;
            SetEvent(back);
        }
        return DWORD{0};
    });
    for (int i = 0; i < 1000; ++i) {
        ++value;
        SetEvent(there);
        WaitForSingleObject(back, INFINITE);
    }
    EXPECT_EQ(value, 2000);
}

TEST(Event, AWaiterMayOutliveTheHandle) {
    Handle event = auto_event();
    const HANDLE value = event;
    Worker waiter([value] { return WaitForSingleObject(value, INFINITE); });
    waiter.until_asleep();
    HANDLE second = nullptr;
    ASSERT_TRUE(
        DuplicateHandle(GetCurrentProcess(), event, GetCurrentProcess(), &second, 0, FALSE, DUPLICATE_SAME_ACCESS));
    EXPECT_TRUE(CloseHandle(event.detach()));
    EXPECT_TRUE(SetEvent(second));
    EXPECT_EQ(waiter.join(), WAIT_OBJECT_0);
    EXPECT_TRUE(CloseHandle(second));
}
