#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "platform/kernel/kernel_support.h"
#include "support/forked.h"

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

TEST(Mutex, ReleaseLetsTheThreadThatWaitsGoOn) {
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
    EXPECT_EQ(WaitForSingleObject(taken, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_TIMEOUT);
    SetEvent(go);
    EXPECT_EQ(waiter.join(), WAIT_OBJECT_0);
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

namespace {

void only_one_processor() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
}

// From now on the calling thread, when it is woken, does not interrupt who runs.
void give_way() {
    const sched_param none{};
    EXPECT_EQ(sched_setscheduler(0, SCHED_IDLE, &none), 0);
}

}  // namespace

// The main thread takes the mutex again at once whenever it has released it, and lets those who wait look in between.
// It has the only processor at that moment, so that without a hand-over they would never find the mutex free.
TEST(Mutex, WhoWaitsIsPassedOverAFewTimesOnlyAndKeepsItsPlace) {
    constexpr int kWaiters = 5;
    only_one_processor();
    const Handle lock = mutex(true);
    const Handle end = manual_event();
    std::vector<int> order;
    std::vector<std::unique_ptr<Worker>> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.push_back(std::make_unique<Worker>([&, i] {
            give_way();
            EXPECT_EQ(WaitForSingleObject(lock, INFINITE), WAIT_OBJECT_0);
            order.push_back(i);
            EXPECT_TRUE(ReleaseMutex(lock));
            return WaitForSingleObject(end, INFINITE);
        }));
        waiters.back()->until_asleep();
    }
    int passes = 0;
    for (; order.size() < kWaiters; ++passes) {
        ASSERT_LT(passes, kWaiters * 20);
        ReleaseMutex(lock);
        WaitForSingleObject(lock, INFINITE);
        // By sleeping, not yielding: this thread then comes back with a whole slice of the processor's time.
        usleep(100);
        for (const auto& waiter : waiters) {
            waiter->until_asleep();
        }
    }
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
    SetEvent(end);
}

TEST(Mutex, AWaitForMoreThanTheMutexIsNotPassedOver) {
    const Handle lock = mutex(true);
    const Handle never = auto_event();
    const Handle go = manual_event();
    const auto held = [&] {
        WaitForSingleObject(go, INFINITE);
        ReleaseMutex(lock);
        return DWORD{0};
    };
    Worker waiter([&] {
        const HANDLE handles[] = {never, lock};
        EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, INFINITE), WAIT_OBJECT_0 + 1);
        return held();
    });
    waiter.until_asleep();
    ReleaseMutex(lock);
    EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_TIMEOUT);
    SetEvent(go);
    waiter.join();
}

// The one that was called and gives up calls the next.
TEST(Mutex, AWaiterThatGivesUpLosesNothingForTheOthers) {
    for (int round = 0; round < 100; ++round) {
        const Handle lock = mutex(true);
        Worker impatient([&] { return WaitForSingleObject(lock, 1 + round % 3); });
        Worker ended([&] { return WaitForSingleObject(lock, INFINITE); });
        Worker patient([&] {
            const DWORD result = WaitForSingleObject(lock, INFINITE);
            ReleaseMutex(lock);
            return result;
        });
        if (round % 2 == 0) ended.until_asleep();
        if (round % 4 == 0) Sleep(1);
        TerminateThread(ended.handle(), 7);
        ReleaseMutex(lock);
        const DWORD result = patient.join();
        EXPECT_TRUE(result == WAIT_OBJECT_0 || result == WAIT_ABANDONED);
    }
}

TEST(Mutex, AbandonedAfterItWasTakenPastAWaiter) {
    for (int round = 0; round < 60; ++round) {
        const Handle lock = mutex();
        const Handle owned = manual_event();
        const Handle go = manual_event();
        Worker owner([&] {
            WaitForSingleObject(lock, INFINITE);
            SetEvent(owned);
            WaitForSingleObject(go, INFINITE);
            ReleaseMutex(lock);
            return WaitForSingleObject(lock, 0);  // and ends with it
        });
        WaitForSingleObject(owned, INFINITE);
        Worker waiter([&] {
            const DWORD result = WaitForSingleObject(lock, INFINITE);
            ReleaseMutex(lock);
            return result;
        });
        waiter.until_asleep();
        SetEvent(go);
        const DWORD result = waiter.join();
        const DWORD retaken = owner.join();
        const DWORD last = WaitForSingleObject(lock, 0);
        // Abandoned exactly if it was taken again; before or after the waiter had it, and said once.
        const int said = (result == WAIT_ABANDONED ? 1 : 0) + (last == WAIT_ABANDONED ? 1 : 0);
        EXPECT_EQ(said, retaken == WAIT_OBJECT_0 ? 1 : 0) << result << ' ' << retaken << ' ' << last;
        ReleaseMutex(lock);
    }
}

TEST(Mutex, UseRacesWithClose) {
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    std::atomic<bool> stop = false;
    std::atomic<HANDLE> shared = CreateMutexW(nullptr, FALSE, nullptr);
    std::atomic<int> uses = 0;
    std::atomic<int> users = 0;
    const auto use = [&] {
        while (!stop.load()) {
            const HANDLE lock = shared.load();
            const DWORD result = WaitForSingleObject(lock, uses.load() % 2 ? INFINITE : 1);
            ++uses;
            if (result == WAIT_FAILED || result == WAIT_TIMEOUT) continue;
            EXPECT_TRUE(result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) << result;
            if (!ReleaseMutex(lock)) {
                EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
                --users;  // the mutex is this thread's for good, so it ends for others to have it
                return DWORD{1};
            }
        }
        return DWORD{0};
    };
    for (int round = 0; round < 20; ++round) {
        users = 3;
        Worker first(use);
        Worker second(use);
        Worker third(use);
        for (int i = 0; i < 5; ++i) {
            const int seen = uses.load();
            while (users.load() != 0 && uses.load() < seen + 60) {
                sched_yield();
            }
            EXPECT_TRUE(CloseHandle(shared.exchange(CreateMutexW(nullptr, FALSE, nullptr))));
        }
        stop = true;
        first.join();
        second.join();
        third.join();
        stop = false;
    }
    EXPECT_TRUE(CloseHandle(shared.load()));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
}

// Threads take two mutexes in all the ways there are, give up, and end with what they own. Nobody else is ever inside,
// and each abandonment is said once.
TEST(Mutex, ManyThreadsInAllWays) {
    struct Guarded {
        Handle lock = mutex();
        std::atomic<int> inside = 0;
    };
    std::array<Guarded, 2> both;
    const Handle never = auto_event();
    std::atomic<int> abandoned = 0;
    std::atomic<int> said = 0;
    std::atomic<int> said_of_both = 0;  // of one or of two
    const auto take_and_release = [&](std::mt19937& random) {
        Guarded& one = both[random() % 2];
        const HANDLE any[] = {never, one.lock};
        const HANDLE all[] = {both[0].lock, both[1].lock};
        bool took_both = false;
        DWORD result = WAIT_TIMEOUT;
        switch (random() % 8) {
            case 0:
                result = WaitForMultipleObjects(2, any, FALSE, INFINITE) - 1;
                break;
            case 1:
                result = WaitForMultipleObjects(2, all, TRUE, INFINITE);
                took_both = true;
                break;
            case 2:
                result = WaitForSingleObject(one.lock, 0);
                break;
            case 3:
                result = WaitForSingleObject(one.lock, 1);
                break;
            default:
                result = WaitForSingleObject(one.lock, INFINITE);
        }
        if (result == WAIT_TIMEOUT) return true;
        EXPECT_TRUE(result == WAIT_OBJECT_0 || result == WAIT_ABANDONED_0) << result;
        if (result == WAIT_ABANDONED_0) ++(took_both ? said_of_both : said);
        for (Guarded& each : both) {
            if (!took_both && &each != &one) continue;
            EXPECT_EQ(++each.inside, 1);
            if (random() % 16 == 0) sched_yield();
            --each.inside;
        }
        if (!took_both && random() % 64 == 0) {
            ++abandoned;
            return false;
        }
        for (Guarded& each : both) {
            if (!took_both && &each != &one) continue;
            EXPECT_TRUE(ReleaseMutex(each.lock));
        }
        return true;
    };
    for (unsigned round = 0; round < 8; ++round) {
        std::vector<std::unique_ptr<Worker>> workers;
        for (unsigned i = 0; i < 16; ++i) {
            workers.push_back(std::make_unique<Worker>([&, seed = round * 16 + i] {
                std::mt19937 random(seed);
                for (int step = 0; step < 200 && take_and_release(random); ++step) {
                }
                return DWORD{0};
            }));
        }
    }
    for (Guarded& each : both) {
        if (WaitForSingleObject(each.lock, 0) == WAIT_ABANDONED) ++said;
        EXPECT_TRUE(ReleaseMutex(each.lock));
    }
    EXPECT_GT(abandoned, 0);
    EXPECT_LE(said + said_of_both, abandoned);
    EXPECT_GE(said + 2 * said_of_both, abandoned);
}

// In the child nobody goes on with what the parent's other threads were doing.
TEST(Mutex, IsClosedInAChildWhileTheParentsThreadsUseIt) {
    const Handle lock = mutex();
    const Load user({[&] {
        for (int uses = 0; uses < 100; ++uses) {
            EXPECT_EQ(WaitForSingleObject(lock, INFINITE), WAIT_OBJECT_0);
            EXPECT_TRUE(ReleaseMutex(lock));
        }
    }});
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(in_fork([&] { return CloseHandle(lock) ? 0 : 1; }), 0);
    }
}
