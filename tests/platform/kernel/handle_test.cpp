#include <random>
#include <vector>

#include "platform/kernel/kernel_support.h"

using namespace zr::test;

namespace {

// Every function that takes a handle refuses this value.
void expect_refused(HANDLE handle) {
    const auto refused = [](bool success) {
        EXPECT_FALSE(success);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
        SetLastError(ERROR_SUCCESS);
    };
    const Handle good = auto_event(true);
    DWORD code = 0;
    HANDLE copy = nullptr;
    SetLastError(ERROR_SUCCESS);
    refused(WaitForSingleObject(handle, 0) != WAIT_FAILED);
    refused(WaitForSingleObject(handle, INFINITE) != WAIT_FAILED);
    const HANDLE handles[] = {good, handle};
    refused(WaitForMultipleObjects(2, handles, FALSE, 0) != WAIT_FAILED);
    refused(WaitForMultipleObjects(2, handles, TRUE, 0) != WAIT_FAILED);
    EXPECT_EQ(WaitForSingleObject(good, 0), WAIT_OBJECT_0);  // a failed wait took nothing
    refused(SetEvent(handle));
    refused(ResetEvent(handle));
    refused(PulseEvent(handle));
    refused(EventModify(handle, EVENT_SET));
    refused(ReleaseMutex(handle));
    refused(GetExitCodeThread(handle, &code));
    refused(TerminateThread(handle, 1));
    refused(ResumeThread(handle) != 0xFFFFFFFF);
    refused(DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &copy, 0, FALSE, 0));
    refused(CloseHandle(handle));
}

}  // namespace

TEST(Handles, WhatNeverWasAHandleIsRefused) {
    expect_refused(nullptr);
    expect_refused(INVALID_HANDLE_VALUE);
    expect_refused(reinterpret_cast<HANDLE>(ULONG_PTR{4}));
    expect_refused(reinterpret_cast<HANDLE>(ULONG_PTR{0x12345678}));
    int on_the_stack = 0;
    expect_refused(&on_the_stack);
    const std::vector<int> on_the_heap(10);
    expect_refused(const_cast<int*>(on_the_heap.data()));
}

TEST(Handles, RandomValuesAreRefused) {
    std::mt19937_64 random(20240511);
    const Handle open[] = {auto_event(), mutex(), manual_event()};
    for (int i = 0; i < 2000; ++i) {
        const HANDLE value = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(random() >> (random() % 64)));
        bool known = value == GetCurrentThread() || value == GetCurrentProcess();
        for (const Handle& handle : open) {
            known = known || value == handle;
        }
        if (known) continue;
        EXPECT_EQ(WaitForSingleObject(value, 0), WAIT_FAILED) << value;
        EXPECT_FALSE(CloseHandle(value)) << value;
    }
}

TEST(Handles, AClosedHandleStaysInvalidWhenItsEntryIsUsedAgain) {
    Handle first = auto_event(true);
    const HANDLE stale = first;
    EXPECT_TRUE(CloseHandle(first.detach()));
    expect_refused(stale);
    std::vector<Handle> others;
    for (int i = 0; i < 3000; ++i) {
        others.push_back(auto_event(true));
        EXPECT_NE(others.back(), stale);
    }
    expect_refused(stale);
    for (int round = 0; round < 5000; ++round) {
        EXPECT_NE(auto_event(), stale);
    }
    expect_refused(stale);
}

TEST(Handles, AnotherKindIsRefused) {
    const Handle event = auto_event();
    DWORD code = 0;
    EXPECT_FALSE(GetExitCodeThread(event, &code));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(TerminateThread(event, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(SetEvent(GetCurrentThread()));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(Handles, AreCounted) {
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::Handles);
    {
        const Handle event = auto_event();
        const Handle lock = mutex();
        Worker worker([] { return DWORD{0}; });
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), before + 3);
        worker.join();
    }
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), before);
}

TEST(Handles, ADuplicateThatNobodyIsToldOfStaysOpen) {
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::Handles);
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, u"duplicate without a target");
    EXPECT_TRUE(
        DuplicateHandle(GetCurrentProcess(), event, GetCurrentProcess(), nullptr, 0, FALSE, DUPLICATE_SAME_ACCESS));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), before + 2);
    EXPECT_TRUE(
        DuplicateHandle(GetCurrentProcess(), event, GetCurrentProcess(), nullptr, 0, FALSE, DUPLICATE_CLOSE_SOURCE));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), before + 1);
    const HANDLE still = OpenEventW(EVENT_ALL_ACCESS, FALSE, u"duplicate without a target");
    EXPECT_NE(still, nullptr);
    EXPECT_TRUE(CloseHandle(still));
    EXPECT_FALSE(DuplicateHandle(GetCurrentProcess(), event, GetCurrentProcess(), nullptr, 0, FALSE, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(Handles, ADuplicateNamesTheSameObject) {
    Handle event = auto_event();
    HANDLE copy = nullptr;
    ASSERT_TRUE(
        DuplicateHandle(GetCurrentProcess(), event, GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS));
    EXPECT_NE(copy, event);
    SetEvent(event);
    EXPECT_EQ(WaitForSingleObject(copy, 0), WAIT_OBJECT_0);
    CloseHandle(event.detach());
    SetEvent(copy);
    EXPECT_EQ(WaitForSingleObject(copy, 0), WAIT_OBJECT_0);
    HANDLE moved = nullptr;
    EXPECT_TRUE(DuplicateHandle(GetCurrentProcess(), copy, GetCurrentProcess(), &moved, 0, FALSE,
                                DUPLICATE_SAME_ACCESS | DUPLICATE_CLOSE_SOURCE));
    EXPECT_FALSE(CloseHandle(copy));
    EXPECT_TRUE(CloseHandle(moved));
    EXPECT_FALSE(DuplicateHandle(moved, moved, GetCurrentProcess(), &copy, 0, FALSE, 0));
    EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
}

TEST(Handles, PseudoHandles) {
    EXPECT_EQ(WaitForSingleObject(GetCurrentThread(), 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(GetCurrentProcess(), 0), WAIT_TIMEOUT);
    EXPECT_TRUE(CloseHandle(GetCurrentThread()));
    EXPECT_TRUE(CloseHandle(GetCurrentProcess()));
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(GetCurrentThread(), &code));
    EXPECT_EQ(code, STILL_ACTIVE);
}

TEST(Handles, OfTwoClosersOneWins) {
    for (int round = 0; round < 200; ++round) {
        const HANDLE handle = CreateEventW(nullptr, FALSE, FALSE, nullptr);
        const Handle go = manual_event();
        const auto close = [&] {
            WaitForSingleObject(go, INFINITE);
            return static_cast<DWORD>(CloseHandle(handle));
        };
        Worker first(close);
        Worker second(close);
        SetEvent(go);
        EXPECT_EQ(first.join() + second.join(), 1u);
    }
}

TEST(Handles, UseRacesWithClose) {
    std::atomic<bool> stop = false;
    std::atomic<HANDLE> shared = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    const auto use = [&] {
        while (!stop.load()) {
            const HANDLE handle = shared.load();
            const DWORD result = WaitForSingleObject(handle, 0);
            EXPECT_TRUE(result == WAIT_OBJECT_0 || (result == WAIT_FAILED && GetLastError() == ERROR_INVALID_HANDLE));
            SetEvent(handle);
        }
        return DWORD{0};
    };
    Worker first(use);
    Worker second(use);
    for (int i = 0; i < 20000; ++i) {
        const HANDLE old = shared.exchange(CreateEventW(nullptr, TRUE, TRUE, nullptr));
        EXPECT_TRUE(CloseHandle(old));
    }
    stop = true;
    first.join();
    second.join();
    EXPECT_TRUE(CloseHandle(shared.load()));
}
