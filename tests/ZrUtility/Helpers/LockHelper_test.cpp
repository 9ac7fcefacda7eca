#include "ZrUtility/Helpers/LockHelper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <random>
#include <thread>
#include <type_traits>
#include <vector>

#include "platform/diagnostics.h"
#include "support/log_capture.h"

using zr::test::LogCapture;
using zr::test::LoggedRecord;

namespace {

// One record of the locks, by what tells it apart.
struct Record {
    int line;
    std::vector<std::uintptr_t> arguments;
    friend bool operator==(const Record&, const Record&) = default;
    friend std::ostream& operator<<(std::ostream& out, const Record& record) {
        return out << record.line << testing::PrintToString(record.arguments);
    }
};

// The records so far, after a check of what they all have in common.
std::vector<Record> records_of(const LogCapture& log) {
    std::vector<Record> out;
    for (const LoggedRecord& record : log.records()) {
        EXPECT_EQ(record.source, ".\\Helpers\\LockHelper.cppzrwindowsmobile");
        EXPECT_EQ(record.category, 0x980020u);
        out.push_back({record.line, record.arguments});
    }
    return out;
}

template <class T>
std::uintptr_t address(const T& lock) {
    return reinterpret_cast<std::uintptr_t>(static_cast<const LockInterface*>(&lock));
}

int count_of(LockInterface& lock) {
    return LockHelper(&lock).GetLockCount() - 1;
}

class Provider final : public LockHelperInterface {
public:
    explicit Provider(LockInterface* lock) : lock_(lock) {}
    LockInterface* GetLockInterface() override {
        ++asked;
        return lock_;
    }
    int asked = 0;

private:
    LockInterface* lock_;
};

class ProvidedHold : public LockHelper {
public:
    explicit ProvidedHold(LockHelperInterface* provider) : LockHelper(provider) {}
};

// Says in which order its operations are called.
class RecordingLock : public LockInterface {
public:
    explicit RecordingLock(std::vector<std::string>& calls) : calls_(calls) {}
    ~RecordingLock() override { calls_.push_back("ended"); }
    int Init() override { return 1; }
    using LockInterface::GetLockCount;

protected:
    void LockImpl() override { calls_.push_back("lock at " + std::to_string(GetLockCount())); }
    void UnlockImpl() override { calls_.push_back("unlock at " + std::to_string(GetLockCount())); }

private:
    std::vector<std::string>& calls_;
};

// The kinds of locks that exclude.
template <class T>
class ExcludingLock : public testing::Test {};
using ExcludingLocks = testing::Types<MutexLock, DebugMutexLock, CriticalSectionLock>;
TYPED_TEST_SUITE(ExcludingLock, ExcludingLocks);

template <class T>
class AnyLock : public testing::Test {};
using AnyLocks = testing::Types<MutexLock, DebugMutexLock, CriticalSectionLock, NullLock>;
TYPED_TEST_SUITE(AnyLock, AnyLocks);

}  // namespace

TEST(LockHelper, NoLockIsNoLock) {
    const LogCapture log;
    LockHelper none(static_cast<LockInterface*>(nullptr));
    EXPECT_EQ(none.GetLockCount(), 0);
    ProvidedHold no_provider(nullptr);
    EXPECT_EQ(no_provider.GetLockCount(), 0);
    Provider nothing(nullptr);
    {
        ProvidedHold hold(&nothing);
        EXPECT_EQ(hold.GetLockCount(), 0);
    }
    EXPECT_EQ(nothing.asked, 1);
    EXPECT_TRUE(log.records().empty());
}

TEST(LockHelper, AProvidedLockIsHeldForAsLongAsTheHolderLives) {
    MutexLock lock;
    ASSERT_NE(lock.Init(), 0);
    Provider provider(&lock);
    {
        ProvidedHold hold(&provider);
        EXPECT_EQ(hold.GetLockCount(), 1);
    }
    EXPECT_EQ(provider.asked, 1);
    EXPECT_EQ(count_of(lock), 0);
}

TEST(LockHelper, TheCountChangesOnlyWhileTheLockIsHeld) {
    std::vector<std::string> calls;
    {
        RecordingLock lock(calls);
        {
            LockHelper outer(&lock);
            LockHelper inner(&lock);
        }
        EXPECT_EQ(lock.GetLockCount(), 0);
    }
    EXPECT_THAT(calls, testing::ElementsAre("lock at 0", "lock at 1", "unlock at 1", "unlock at 0", "ended"));
}

TEST(LockHelper, ACopiedHolderReleasesOnceMore) {
    std::vector<std::string> calls;
    RecordingLock lock(calls);
    {
        LockHelper first(&lock);
        const LockHelper copy(first);
        EXPECT_EQ(lock.GetLockCount(), 1);
    }
    EXPECT_EQ(lock.GetLockCount(), -1);
    EXPECT_THAT(calls, testing::ElementsAre("lock at 0", "unlock at 0", "unlock at -1"));
}

TYPED_TEST(AnyLock, NestedHoldsAreCounted) {
    TypeParam lock;
    ASSERT_NE(lock.Init(), 0);
    {
        LockHelper outer(&lock);
        EXPECT_EQ(outer.GetLockCount(), 1);
        {
            LockHelper inner(&lock);
            EXPECT_EQ(inner.GetLockCount(), 2);
            EXPECT_EQ(outer.GetLockCount(), 2);
        }
        EXPECT_EQ(outer.GetLockCount(), 1);
    }
    EXPECT_EQ(count_of(lock), 0);
}

TYPED_TEST(AnyLock, WithoutInitHoldsAreCountedAndNobodyIsExcluded) {
    TypeParam lock;
    LockHelper here(&lock);
    int there = 0;
    std::thread([&] { there = LockHelper(&lock).GetLockCount(); }).join();
    EXPECT_EQ(there, 2);
    EXPECT_EQ(here.GetLockCount(), 1);
}

TYPED_TEST(ExcludingLock, HoldsOneThreadOut) {
    TypeParam lock;
    ASSERT_EQ(lock.Init(), 1);
    std::atomic<bool> inside = false;
    std::thread other;
    {
        LockHelper hold(&lock);
        other = std::thread([&] {
            LockHelper late(&lock);
            EXPECT_EQ(late.GetLockCount(), 1);
            EXPECT_TRUE(inside);
        });
        LockHelper again(&lock);
        inside = true;
    }
    other.join();
    EXPECT_EQ(count_of(lock), 0);
}

TYPED_TEST(ExcludingLock, SixtyFourThreads) {
    TypeParam lock;
    ASSERT_EQ(lock.Init(), 1);
    constexpr int kThreads = 64;
    constexpr int kRounds = 60;
    int shared = 0;  // guarded by the lock
    std::array<int, kThreads> of_thread{};
    std::vector<std::thread> threads;
    for (int& mine : of_thread) {
        threads.emplace_back([&lock, &shared, &mine] {
            for (int i = 0; i < kRounds; ++i) {
                LockHelper outer(&lock);
                if (outer.GetLockCount() != 1) return;
                LockHelper inner(&lock);
                if (inner.GetLockCount() != 2) return;
                ++shared;
                ++mine;
                if (i % 8 == 0) std::this_thread::yield();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(shared, kThreads * kRounds);
    EXPECT_THAT(of_thread, testing::Each(kRounds));
    EXPECT_EQ(count_of(lock), 0);
}

// Many locks, held and given up at random by several threads that take them in the order of their addresses; each
// lock's count, and what it guards, is what a plain counter says.
TYPED_TEST(ExcludingLock, RandomHoldsAgreeWithCounters) {
    struct Guarded {
        TypeParam lock;
        int holds = 0;
        long uses = 0;
    };
    std::array<Guarded, 4> all;
    for (Guarded& each : all) {
        ASSERT_EQ(each.lock.Init(), 1);
    }
    std::atomic<long> uses = 0;
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < 6; ++seed) {
        threads.emplace_back([&all, &uses, seed] {
            std::mt19937 random(seed);
            for (int round = 0; round < 200; ++round) {
                std::vector<std::pair<Guarded*, std::unique_ptr<LockHelper>>> held;
                for (Guarded& each : all) {
                    for (auto times = random() % 3; times > 0; --times) {
                        held.emplace_back(&each, std::make_unique<LockHelper>(&each.lock));
                        ++each.uses;
                        ++uses;
                        ASSERT_EQ(held.back().second->GetLockCount(), ++each.holds);
                    }
                }
                while (!held.empty()) {
                    --held.back().first->holds;
                    held.pop_back();
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    long sum = 0;
    for (Guarded& each : all) {
        EXPECT_EQ(count_of(each.lock), 0);
        sum += each.uses;
    }
    EXPECT_EQ(sum, uses);
}

TEST(MutexLock, EveryRecord) {
    const LogCapture log;
    std::uintptr_t a = 0;
    {
        MutexLock lock;
        a = address(lock);
        lock.Init();
        LockHelper outer(&lock);
        LockHelper inner(&lock);
    }
    EXPECT_THAT(records_of(log),
                testing::ElementsAre(Record{28, {a}}, Record{12, {a}}, Record{15, {a, 1}}, Record{12, {a}},
                                     Record{15, {a, 2}}, Record{20, {a, 1}}, Record{20, {a, 0}}, Record{32, {a}}));
}

TEST(DebugMutexLock, EveryRecord) {
    const LogCapture log;
    std::uintptr_t a = 0;
    {
        DebugMutexLock lock;
        a = address(lock);
        { LockHelper without_init(&lock); }
        lock.Init();
        LockHelper hold(&lock);
    }
    EXPECT_THAT(records_of(log), testing::ElementsAre(Record{62, {a}}, Record{12, {a}}, Record{15, {a, 1}},
                                                      Record{20, {a, 0}}, Record{12, {a}}, Record{84, {a}},
                                                      Record{15, {a, 1}}, Record{20, {a, 0}}, Record{66, {a}}));
}

TEST(CriticalSectionLock, EveryRecord) {
    const LogCapture log;
    std::uintptr_t a = 0;
    {
        CriticalSectionLock lock;
        a = address(lock);
        lock.Init();
        LockHelper hold(&lock);
    }
    EXPECT_THAT(records_of(log), testing::ElementsAre(Record{100, {a}}, Record{12, {a}}, Record{15, {a, 1}},
                                                      Record{20, {a, 0}}, Record{104, {a}}));
}

TEST(NullLock, IsLoggedOnlyWhenItIsHeld) {
    const LogCapture log;
    std::uintptr_t a = 0;
    {
        NullLock lock;
        a = address(lock);
        EXPECT_EQ(lock.Init(), 1);
        LockHelper hold(&lock);
    }
    EXPECT_THAT(records_of(log), testing::ElementsAre(Record{12, {a}}, Record{15, {a, 1}}, Record{20, {a, 0}}));
}

TEST(CriticalSectionLock, MayEndWithoutInit) {
    { const CriticalSectionLock never_used; }
    CriticalSectionLock lock;
    EXPECT_EQ(lock.Init(), 1);
    EXPECT_EQ(lock.Init(), 1);
    EXPECT_EQ(count_of(lock), 0);
}

TEST(CriticalSectionLock, ACopyIsAnotherLock) {
    CriticalSectionLock lock;
    lock.Init();
    CriticalSectionLock copy(lock);
    LockHelper hold(&lock);
    int there = 0;
    std::thread([&] { there = LockHelper(&copy).GetLockCount(); }).join();
    EXPECT_EQ(there, 1);
}

template <class Mutex>
static void expect_handles_of() {
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::Handles);
    {
        Mutex lock;
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), before);
        lock.Init();
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), before + 1);
        EXPECT_EQ(lock.Init(), 1);  // the first mutex stays open
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), before + 2);
    }
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), before + 1);
    {
        Mutex lock;
        lock.Init();
        const Mutex copy(lock);
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), before + 2);
    }
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), before + 1);
}

TEST(MutexLock, OwnsTheLastHandleThatInitMade) {
    expect_handles_of<MutexLock>();
}

TEST(DebugMutexLock, OwnsTheLastHandleThatInitMade) {
    expect_handles_of<DebugMutexLock>();
}

TEST(MutexLock, ACopySharesTheMutex) {
    MutexLock lock;
    lock.Init();
    auto copy = std::make_unique<MutexLock>(lock);
    std::atomic<bool> released = false;
    std::thread other;
    {
        LockHelper hold(copy.get());
        other = std::thread([&] {
            LockHelper late(&lock);
            EXPECT_TRUE(released);
        });
        released = true;
    }
    other.join();
}

// The owner of the lock has ended: the next one gets it all the same.
TEST(MutexLock, AnAbandonedMutexCountsAsTaken) {
    MutexLock lock;
    lock.Init();
    const HANDLE owner = CreateThread(
        nullptr, 0,
        [](void* to) -> DWORD {
            // Never released: the holder is not destroyed.
            alignas(LockHelper) static unsigned char room[sizeof(LockHelper)];
            new (room) LockHelper(static_cast<LockInterface*>(to));
            return 0;
        },
        static_cast<LockInterface*>(&lock), 0, nullptr);
    ASSERT_EQ(WaitForSingleObject(owner, INFINITE), WAIT_OBJECT_0);
    CloseHandle(owner);
    EXPECT_EQ(LockHelper(&lock).GetLockCount(), 2);
}

namespace {

struct Ended {
    LockInterface* lock;
    HANDLE about_to_wait;
};

DWORD wait_and_be_ended(void* parameter) {
    const Ended& ended = *static_cast<Ended*>(parameter);
    SetEvent(ended.about_to_wait);
    LockHelper never(ended.lock);
    return 0;
}

}  // namespace

TYPED_TEST(ExcludingLock, AThreadThatIsEndedWhileItWaitsHoldsNothing) {
    TypeParam lock;
    lock.Init();
    Ended ended{&lock, CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    {
        LockHelper hold(&lock);
        const HANDLE thread = CreateThread(nullptr, 0, wait_and_be_ended, &ended, 0, nullptr);
        ASSERT_EQ(WaitForSingleObject(ended.about_to_wait, INFINITE), WAIT_OBJECT_0);
        ASSERT_TRUE(TerminateThread(thread, 77));
        ASSERT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
        DWORD code = 0;
        EXPECT_TRUE(GetExitCodeThread(thread, &code));
        EXPECT_EQ(code, 77u);
        CloseHandle(thread);
        EXPECT_EQ(hold.GetLockCount(), 1);
    }
    CloseHandle(ended.about_to_wait);
    int there = 0;
    std::thread([&] { there = LockHelper(&lock).GetLockCount(); }).join();
    EXPECT_EQ(there, 1);
}

// Half a minute of sleep, beside other tests. Time cannot be made shorter for it; once, in the plain builds, is enough.
#if !defined(ZR_SANITIZE_ADDRESS) && !defined(ZR_SANITIZE_THREAD)
TEST(DebugMutexLockSlow, CarriesOnAfterThirtySeconds) {
    DebugMutexLock lock;
    ASSERT_EQ(lock.Init(), 1);
    const LogCapture log;
    const std::uintptr_t a = address(lock);
    const auto hold = std::make_unique<LockHelper>(&lock);
    const DWORD before = GetTickCount();
    int count = 0;
    std::thread([&] {
        LockHelper late(&lock);
        count = late.GetLockCount();
    }).join();
    const DWORD waited = GetTickCount() - before;
    EXPECT_GE(waited, 30000u);
    EXPECT_LT(waited, 60000u);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(hold->GetLockCount(), 1);
    EXPECT_THAT(records_of(log),
                testing::ElementsAre(Record{12, {a}}, Record{84, {a}}, Record{15, {a, 1}}, Record{12, {a}},
                                     Record{84, {a}}, Record{15, {a, 2}}, Record{20, {a, 1}}));
}
#endif
