// Semaphores, of this process and of several.
#include <thread>

#include "platform/kernel/named/support.h"
#include "support/forked.h"
#include "support/instrumented.h"

using namespace zr::test;

namespace {

Handle semaphore(LONG initial, LONG most, const char16_t* name = nullptr) {
    return Handle(CreateSemaphoreW(nullptr, initial, most, name));
}

constexpr LONG kLargest = 0x7FFFFFFF;

bool take(HANDLE handle) {
    return WaitForSingleObject(handle, 0) == WAIT_OBJECT_0;
}

// NULL: one of this process.
class Semaphores : public testing::TestWithParam<const char16_t*> {
protected:
    Handle make(LONG initial, LONG most) const { return semaphore(initial, most, GetParam()); }
};
INSTANTIATE_TEST_SUITE_P(All, Semaphores, testing::Values(nullptr, u"parity.semaphore"),
                         [](const auto& param) { return std::string(param.param ? "Named" : "Unnamed"); });

TEST_P(Semaphores, CountWhatIsTakenAndGiven) {
    const Handle one = make(2, 3);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SUCCESS});
    EXPECT_TRUE(take(one));
    EXPECT_TRUE(take(one));
    EXPECT_FALSE(take(one));
    LONG before = -1;
    EXPECT_TRUE(ReleaseSemaphore(one, 2, &before));
    EXPECT_EQ(before, 0);
    EXPECT_TRUE(ReleaseSemaphore(one, 1, nullptr));
    EXPECT_TRUE(take(one));
    EXPECT_TRUE(ReleaseSemaphore(one, 1, &before));
    EXPECT_EQ(before, 2);
}

TEST_P(Semaphores, DoNotCountBeyondTheirMost) {
    const Handle one = make(1, 3);
    LONG before = -1;
    SetLastError(NO_ERROR);
    EXPECT_FALSE(ReleaseSemaphore(one, 3, &before));
    EXPECT_EQ(GetLastError(), ERROR_TOO_MANY_POSTS);
    EXPECT_EQ(before, -1);
    EXPECT_TRUE(ReleaseSemaphore(one, 2, &before));
    EXPECT_EQ(before, 1);
    EXPECT_FALSE(ReleaseSemaphore(one, kLargest, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_TOO_MANY_POSTS);
    const Handle largest = Handle(CreateSemaphoreW(nullptr, kLargest, kLargest, nullptr));
    EXPECT_FALSE(ReleaseSemaphore(largest, 1, nullptr));
    EXPECT_TRUE(take(largest));
    EXPECT_TRUE(ReleaseSemaphore(largest, 1, &before));
    EXPECT_EQ(before, kLargest - 1);
}

TEST_P(Semaphores, RefuseWhatCannotBe) {
    const Handle one = make(0, 1);
    for (const LONG wrong : {LONG{0}, LONG{-1}, LONG{-kLargest}}) {
        SetLastError(NO_ERROR);
        EXPECT_FALSE(ReleaseSemaphore(one, wrong, nullptr));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
    const std::pair<LONG, LONG> counts[] = {{-1, 1}, {2, 1}, {0, 0}, {0, -1}};
    for (const auto& [initial, most] : counts) {
        SetLastError(NO_ERROR);
        EXPECT_EQ(CreateSemaphoreW(nullptr, initial, most, nullptr), nullptr);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
    const Handle event = auto_event();
    EXPECT_FALSE(ReleaseSemaphore(event, 1, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    SetLastError(NO_ERROR);
    EXPECT_FALSE(SetEvent(one));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(ReleaseMutex(one));
    const HANDLE closed = one;
    CloseHandle(semaphore(0, 1).detach());
    EXPECT_FALSE(take(closed));
}

TEST_P(Semaphores, AReleaseOfSeveralLetsAsManyGo) {
    const Handle one = make(0, 10);
    const Handle done = Handle(CreateSemaphoreW(nullptr, 0, 10, nullptr));
    std::vector<std::unique_ptr<Worker>> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.push_back(std::make_unique<Worker>([&] {
            const DWORD result = WaitForSingleObject(one, INFINITE);
            ReleaseSemaphore(done, 1, nullptr);
            return result;
        }));
        waiters.back()->until_asleep();
    }
    LONG before = -1;
    EXPECT_TRUE(ReleaseSemaphore(one, 3, &before));
    EXPECT_EQ(before, 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(WaitForSingleObject(done, INFINITE), WAIT_OBJECT_0);
    }
    EXPECT_FALSE(take(one));
    EXPECT_FALSE(take(done));
    EXPECT_TRUE(ReleaseSemaphore(one, 5, &before));
    for (const auto& waiter : waiters) {
        EXPECT_EQ(waiter->join(), WAIT_OBJECT_0);
    }
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(take(one));
    }
    EXPECT_FALSE(take(one));
}

TEST_P(Semaphores, MixInWaits) {
    const Handle one = make(1, 2);
    const Handle event = auto_event();
    const Handle named = named_event(u"parity.semaphore.event");
    const HANDLE all[] = {event, one, named};
    EXPECT_EQ(WaitForMultipleObjects(3, all, FALSE, 0), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(WaitForMultipleObjects(3, all, FALSE, 0), WAIT_TIMEOUT);
    SetEvent(event);
    SetEvent(named);
    EXPECT_EQ(WaitForMultipleObjects(3, all, TRUE, 0), WAIT_TIMEOUT);
    Worker waiter([&] { return WaitForMultipleObjects(3, all, TRUE, INFINITE); });
    waiter.until_asleep();
    EXPECT_TRUE(ReleaseSemaphore(one, 2, nullptr));
    EXPECT_EQ(waiter.join(), WAIT_OBJECT_0);
    EXPECT_FALSE(is_signalled(event));
    EXPECT_FALSE(is_signalled(named));
    EXPECT_TRUE(take(one));
    EXPECT_FALSE(take(one));
}

TEST_P(Semaphores, OfManyThreadsNeverLetInMoreThanTheyCount) {
    constexpr LONG kMost = 3;
    constexpr int kRounds = 3000 / kStride;
    const Handle one = make(kMost, kMost);
    std::atomic<int> inside{0};
    std::atomic<bool> too_many{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                WaitForSingleObject(one, INFINITE);
                if (++inside > kMost) too_many = true;
                --inside;
                ReleaseSemaphore(one, 1, nullptr);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(too_many);
    for (LONG i = 0; i < kMost; ++i) {
        EXPECT_TRUE(take(one));
    }
    EXPECT_FALSE(take(one));
}

TEST(NamedSemaphores, AreOneForAll) {
    const Handle one = semaphore(1, 5, u"parity.shared");
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SUCCESS});
    const Handle again = semaphore(4, 4, u"parity.shared");
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    const Handle opened = Handle(OpenSemaphoreW(SEMAPHORE_ALL_ACCESS, FALSE, u"parity.shared"));
    EXPECT_TRUE(take(opened));
    EXPECT_FALSE(take(again));
    LONG before = -1;
    EXPECT_TRUE(ReleaseSemaphore(again, 5, &before));
    EXPECT_EQ(before, 0);
    EXPECT_EQ(OpenSemaphoreW(SEMAPHORE_ALL_ACCESS, FALSE, u"parity.none"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(OpenSemaphoreW(SEMAPHORE_ALL_ACCESS, FALSE, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(OpenEventW(EVENT_ALL_ACCESS, FALSE, u"parity.shared"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(CreateMutexW(nullptr, FALSE, u"parity.shared"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    const std::vector<Listed> all = listed();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].object.Kind, ZrNamedObjectKind::Semaphore);
    EXPECT_EQ(all[0].object.Count, 5);
    EXPECT_EQ(all[0].object.MaximumCount, 5);
    EXPECT_TRUE(all[0].object.Signalled);
}

TEST(NamedSemaphores, WakeOtherProcesses) {
    const Handle one = semaphore(0, 100, u"parity.shared");
    const Handle back = semaphore(0, 100, u"parity.back");
    std::vector<std::unique_ptr<Fork>> forks;
    for (int i = 0; i < 3; ++i) {
        forks.push_back(std::make_unique<Fork>([] {
            const Handle theirs = Handle(OpenSemaphoreW(SEMAPHORE_ALL_ACCESS, FALSE, u"parity.shared"));
            const Handle answer = Handle(OpenSemaphoreW(SEMAPHORE_ALL_ACCESS, FALSE, u"parity.back"));
            Fork::say('r');
            for (int round = 0; round < 20; ++round) {
                if (WaitForSingleObject(theirs, INFINITE) != WAIT_OBJECT_0) return 1;
                if (!ReleaseSemaphore(answer, 1, nullptr)) return 2;
            }
            return 0;
        }));
        EXPECT_EQ(forks.back()->hear(), 'r');
    }
    for (int round = 0; round < 20; ++round) {
        EXPECT_TRUE(ReleaseSemaphore(one, 3, nullptr));
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(WaitForSingleObject(back, INFINITE), WAIT_OBJECT_0);
        }
    }
    for (const auto& fork : forks) {
        EXPECT_EQ(fork->join(), 0);
    }
    EXPECT_FALSE(take(one));
}

// Counts stay whole, and nobody is stuck, whatever is killed when: a pass goes round between a few processes, that are
// killed while they have none.
TEST(NamedSemaphores, SurviveTheKillOfThoseThatUseThem) {
    constexpr int kKills = 100 / kStride;
    const Handle one = semaphore(0, 1'000'000, u"parity.shared");
    for (int kill = 0; kill < kKills; ++kill) {
        Fork busy([]() -> int {
            const Handle theirs = Handle(OpenSemaphoreW(SEMAPHORE_ALL_ACCESS, FALSE, u"parity.shared"));
            const Handle event = auto_event();
            const HANDLE both[] = {theirs, event};
            Fork::say('r');
            for (;;) {
                if (!ReleaseSemaphore(theirs, 2, nullptr)) _exit(1);
                if (WaitForSingleObject(theirs, INFINITE) != WAIT_OBJECT_0) _exit(2);
                SetEvent(event);
                if (WaitForMultipleObjects(2, both, TRUE, INFINITE) != WAIT_OBJECT_0) _exit(3);
            }
        });
        EXPECT_EQ(busy.hear(), 'r');
        for (int i = 0; i < 20; ++i) {
            EXPECT_TRUE(ReleaseSemaphore(one, 1, nullptr));
            EXPECT_EQ(WaitForSingleObject(one, 60'000), WAIT_OBJECT_0);
        }
        busy.kill();
    }
    // What was left is what the killed had given and not yet taken: two for each at most.
    int left = 0;
    while (take(one)) {
        ++left;
    }
    EXPECT_LE(left, 2 * kKills);
    EXPECT_TRUE(ReleaseSemaphore(one, 1, nullptr));
    EXPECT_TRUE(take(one));
}

TEST(SemaphoresOfBothKinds, GoOnInAForkedChild) {
    const Handle one = semaphore(1, 2);
    const Handle named = semaphore(1, 2, u"parity.shared");
    EXPECT_EQ(in_fork([&] {
                  if (!take(one) || take(one) || !ReleaseSemaphore(one, 2, nullptr)) return 1;
                  SetLastError(NO_ERROR);
                  if (ReleaseSemaphore(named, 1, nullptr) || GetLastError() != ERROR_INVALID_HANDLE) return 2;
                  const Handle own = Handle(OpenSemaphoreW(SEMAPHORE_ALL_ACCESS, FALSE, u"parity.shared"));
                  return take(own) ? 0 : 3;
              }),
              0);
    EXPECT_TRUE(take(one));
    EXPECT_FALSE(take(named));
}

TEST(SemaphoresOfBothKinds, AThreadThatIsEndedInItsWaitTakesNothing) {
    for (const char16_t* const name : {static_cast<const char16_t*>(nullptr), u"parity.shared"}) {
        const Handle one = semaphore(0, 1, name);
        Worker waiter([&] { return WaitForSingleObject(one, INFINITE); });
        waiter.until_asleep();
        EXPECT_TRUE(TerminateThread(waiter.handle(), 5));
        EXPECT_EQ(waiter.join(), 5u);
        EXPECT_TRUE(ReleaseSemaphore(one, 1, nullptr));
        EXPECT_TRUE(take(one));
    }
}

}  // namespace
