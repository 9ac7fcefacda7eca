#include <thread>

#include "platform/kernel/kernel_support.h"

using namespace zr::test;

TEST(Mutex, OwnerMayTakeItAgainAndReleasesItAsOften) {
    const Handle lock = mutex();
    EXPECT_EQ(WaitForSingleObject(lock, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(lock, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_OBJECT_0);
    const auto others_try = [&] { return Worker([&] { return WaitForSingleObject(lock, 0); }).join(); };
    EXPECT_EQ(others_try(), WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseMutex(lock));
    EXPECT_TRUE(ReleaseMutex(lock));
    EXPECT_EQ(others_try(), WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseMutex(lock));
    EXPECT_FALSE(ReleaseMutex(lock));
    EXPECT_EQ(GetLastError(), ERROR_NOT_OWNER);
    EXPECT_EQ(others_try(), WAIT_OBJECT_0);
}

TEST(Mutex, InitialOwner) {
    const Handle lock = mutex(true);
    EXPECT_EQ(Worker([&] { return WaitForSingleObject(lock, 0); }).join(), WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseMutex(lock));
    EXPECT_FALSE(ReleaseMutex(lock));
}

TEST(Mutex, OnlyTheOwnerReleases) {
    const Handle lock = mutex(true);
    Worker other([&] {
        SetLastError(ERROR_SUCCESS);
        return ReleaseMutex(lock) ? ERROR_SUCCESS : GetLastError();
    });
    EXPECT_EQ(other.join(), ERROR_NOT_OWNER);
    EXPECT_TRUE(ReleaseMutex(lock));
}

TEST(Mutex, NotAMutex) {
    const Handle event = auto_event();
    EXPECT_FALSE(ReleaseMutex(event));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(Mutex, ReleaseHandsOverToTheThreadThatWaits) {
    const Handle lock = mutex(true);
    const Handle taken = manual_event();
    const Handle go = manual_event();
    Worker waiter([&] {
        const DWORD result = WaitForSingleObject(lock, INFINITE);
        SetEvent(taken);
        WaitForSingleObject(go, INFINITE);
        ReleaseMutex(lock);
        return result;
    });
    waiter.until_asleep();
    ReleaseMutex(lock);
    EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_TIMEOUT);
    SetEvent(go);
    EXPECT_EQ(waiter.join(), WAIT_OBJECT_0);
    EXPECT_TRUE(is_signalled(taken));
    EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_OBJECT_0);
    ReleaseMutex(lock);
}

TEST(Mutex, AbandonedIsSaidOnce) {
    const Handle lock = mutex();
    Worker([&] {
        WaitForSingleObject(lock, INFINITE);
        return WaitForSingleObject(lock, INFINITE);
    }).join();
    EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_ABANDONED);
    EXPECT_TRUE(ReleaseMutex(lock));
    EXPECT_FALSE(ReleaseMutex(lock));
    EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(lock));
}

TEST(Mutex, AbandonmentReachesAWaiterWithItsIndex) {
    const Handle lock = mutex();
    const Handle event = auto_event();
    const Handle owned = manual_event();
    const Handle end = manual_event();
    Worker owner([&] {
        WaitForSingleObject(lock, INFINITE);
        SetEvent(owned);
        return WaitForSingleObject(end, INFINITE);
    });
    WaitForSingleObject(owned, INFINITE);
    Worker waiter([&] {
        const HANDLE handles[] = {event, lock};
        return WaitForMultipleObjects(2, handles, FALSE, INFINITE);
    });
    waiter.until_asleep();
    SetEvent(end);
    EXPECT_EQ(waiter.join(), WAIT_ABANDONED_0 + 1);
    EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_ABANDONED);  // that waiter ended with it, too
    ReleaseMutex(lock);
}

TEST(Mutex, AbandonedInAWaitForAll) {
    const Handle event = auto_event(true);
    const Handle lock = mutex();
    Worker([&] { return WaitForSingleObject(lock, INFINITE); }).join();
    const HANDLE handles[] = {event, lock};
    EXPECT_EQ(WaitForMultipleObjects(2, handles, TRUE, 0), WAIT_ABANDONED_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseMutex(lock));
}

TEST(Mutex, ThreadsThatOthersMadeAbandonToo) {
    const Handle lock = mutex();
    std::thread([&] { WaitForSingleObject(lock, INFINITE); }).join();
    EXPECT_EQ(WaitForSingleObject(lock, INFINITE), WAIT_ABANDONED);
    ReleaseMutex(lock);
}

TEST(Mutex, SeveralAbandonedAtOnce) {
    const Handle locks[] = {mutex(), mutex(), mutex()};
    Worker([&] {
        for (const Handle& lock : locks) {
            WaitForSingleObject(lock, INFINITE);
        }
        return ReleaseMutex(locks[1]);
    }).join();
    EXPECT_EQ(WaitForSingleObject(locks[0], 0), WAIT_ABANDONED);
    EXPECT_EQ(WaitForSingleObject(locks[1], 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(locks[2], 0), WAIT_ABANDONED);
    for (const Handle& lock : locks) {
        EXPECT_TRUE(ReleaseMutex(lock));
    }
}

TEST(Mutex, ClosingTheLastHandleOfAnOwnedMutexGivesItUp) {
    // Were it kept, every round would leave a mutex behind; the leak checker of the sanitized run looks for that.
    for (int i = 0; i < 1000; ++i) {
        Handle lock = mutex(true);
        WaitForSingleObject(lock, INFINITE);
    }
    Handle lock = mutex(true);
    const HANDLE value = lock;
    Worker waiter([value] { return WaitForSingleObject(value, INFINITE); });
    waiter.until_asleep();
    CloseHandle(lock.detach());
    EXPECT_EQ(waiter.join(), WAIT_ABANDONED);
}

TEST(Mutex, ClosedByAnotherThreadWhileOwned) {
    const Handle owned = manual_event();
    const Handle end = manual_event();
    Handle lock = mutex();
    const HANDLE value = lock;
    Worker owner([&, value] {
        WaitForSingleObject(value, INFINITE);
        SetEvent(owned);
        return WaitForSingleObject(end, INFINITE);
    });
    WaitForSingleObject(owned, INFINITE);
    CloseHandle(lock.detach());
    SetEvent(end);
    owner.join();
}
