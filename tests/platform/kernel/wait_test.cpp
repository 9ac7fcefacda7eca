#include <algorithm>
#include <memory>
#include <vector>

#include "kernel/thread.h"
#include "platform/kernel/kernel_support.h"

using namespace zr::test;

namespace {

DWORD wait_any(const std::vector<HANDLE>& handles, DWORD milliseconds) {
    return WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, milliseconds);
}
DWORD wait_all(const std::vector<HANDLE>& handles, DWORD milliseconds) {
    return WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), TRUE, milliseconds);
}

}  // namespace

TEST(Wait, AnyTakesTheLowestIndexAndNothingElse) {
    const Handle first = auto_event();
    const Handle second = auto_event(true);
    const Handle third = auto_event(true);
    EXPECT_EQ(wait_any({first, second, third}, INFINITE), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(wait_any({first, second, third}, INFINITE), WAIT_OBJECT_0 + 2);
    EXPECT_EQ(wait_any({first, second, third}, 0), WAIT_TIMEOUT);
}

TEST(Wait, AllTakesEverythingOrNothing) {
    const Handle first = auto_event(true);
    const Handle second = auto_event();
    const Handle lock = mutex();
    EXPECT_EQ(wait_all({first, second, lock}, 0), WAIT_TIMEOUT);
    EXPECT_EQ(wait_all({first, second, lock}, 1), WAIT_TIMEOUT);
    EXPECT_EQ(Worker([&] { return WaitForSingleObject(first, 0); }).join(), WAIT_OBJECT_0);
    SetEvent(first);
    SetEvent(second);
    EXPECT_EQ(wait_all({first, second, lock}, 0), WAIT_OBJECT_0);
    EXPECT_EQ(wait_any({first, second}, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseMutex(lock));
}

TEST(Wait, AllSleepsUntilTheLastOneAndTakesItAtThatInstant) {
    const Handle first = auto_event();
    const Handle second = auto_event();
    Worker waiter([&] { return wait_all({first, second}, INFINITE); });
    waiter.until_asleep();
    SetEvent(second);
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);  // not taken: the other is missing
    SetEvent(first);
    SetEvent(second);
    EXPECT_EQ(wait_any({first, second}, 0), WAIT_TIMEOUT);
    EXPECT_EQ(waiter.join(), WAIT_OBJECT_0);
}

TEST(Wait, AllOfAMutexThatTheWaiterOwns) {
    const Handle lock = mutex(true);
    const Handle event = auto_event(true);
    EXPECT_EQ(wait_all({event, lock}, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(lock));
    EXPECT_TRUE(ReleaseMutex(lock));
    EXPECT_FALSE(ReleaseMutex(lock));
}

TEST(Wait, AThreadThatWaitsForSomethingElseIsPassedOver) {
    const Handle shared = auto_event();
    const Handle never = auto_event();
    Worker all([&] { return wait_all({shared, never}, INFINITE); });
    all.until_asleep();
    Worker one([&] { return WaitForSingleObject(shared, INFINITE); });
    one.until_asleep();
    SetEvent(shared);
    EXPECT_EQ(one.join(), WAIT_OBJECT_0);
    SetEvent(shared);
    SetEvent(never);
    EXPECT_EQ(all.join(), WAIT_OBJECT_0);
}

TEST(Wait, MixedKinds) {
    const Handle event = manual_event();
    const Handle lock = mutex();
    const Handle end = manual_event();
    Worker worker([&] { return WaitForSingleObject(end, INFINITE); });
    EXPECT_EQ(wait_any({worker.handle(), event, lock}, INFINITE), WAIT_OBJECT_0 + 2);
    SetEvent(event);
    EXPECT_EQ(wait_any({worker.handle(), event, lock}, INFINITE), WAIT_OBJECT_0 + 1);
    SetEvent(end);
    worker.join();
    EXPECT_EQ(wait_any({worker.handle(), event, lock}, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(wait_all({worker.handle(), event, lock}, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(lock));
    EXPECT_TRUE(ReleaseMutex(lock));
}

TEST(Wait, BadArguments) {
    const Handle event = auto_event(true);
    std::vector<HANDLE> many(65, event);
    EXPECT_EQ(wait_any(many, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(WaitForMultipleObjects(0, many.data(), FALSE, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(WaitForMultipleObjects(1, nullptr, FALSE, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(wait_all({event, event}, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
}

TEST(Wait, SixtyFourObjects) {
    std::vector<Handle> events;
    std::vector<HANDLE> handles;
    for (DWORD i = 0; i < MAXIMUM_WAIT_OBJECTS; ++i) {
        events.push_back(auto_event());
        handles.push_back(events.back());
    }
    for (const DWORD i : {0u, 31u, 63u}) {
        SetEvent(handles[i]);
        EXPECT_EQ(wait_any(handles, INFINITE), WAIT_OBJECT_0 + i);
        Worker waiter([&] { return wait_any(handles, INFINITE); });
        waiter.until_asleep();
        SetEvent(handles[i]);
        EXPECT_EQ(waiter.join(), WAIT_OBJECT_0 + i);
    }
    Worker waiter([&] { return wait_all(handles, INFINITE); });
    waiter.until_asleep();
    for (const HANDLE handle : handles) {
        SetEvent(handle);
    }
    EXPECT_EQ(waiter.join(), WAIT_OBJECT_0);
    EXPECT_EQ(wait_any(handles, 0), WAIT_TIMEOUT);
}

TEST(Wait, TheSameObjectTwiceInAWaitForAny) {
    const Handle event = auto_event();
    Worker waiter([&] { return wait_any({event, event, event}, INFINITE); });
    waiter.until_asleep();
    Worker second([&] { return wait_any({event, event}, INFINITE); });
    second.until_asleep();
    SetEvent(event);
    EXPECT_EQ(waiter.join(), WAIT_OBJECT_0);
    SetEvent(event);
    EXPECT_EQ(second.join(), WAIT_OBJECT_0);
}

TEST(Wait, TimeoutsAreNeitherShortNorForgotten) {
    const Handle event = auto_event();
    for (const DWORD milliseconds : {1u, 20u}) {
        const DWORD before = GetTickCount();
        EXPECT_EQ(WaitForSingleObject(event, milliseconds), WAIT_TIMEOUT);
        EXPECT_GE(GetTickCount() - before, milliseconds);
        EXPECT_EQ(wait_any({event, event}, milliseconds), WAIT_TIMEOUT);
    }
    SetEvent(event);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
}

namespace {

// A kind of object as the families above make them: its state is its own, and only told to the engine.
class Level final : public zr::platform::Waitable {
public:
    Level() : Waitable(zr::platform::ObjectKind::Other) {}
    void raise(int amount) {
        level_.fetch_add(amount);
        state_changed();
    }
    int level() const { return level_.load(); }

protected:
    bool is_signalled(const zr::platform::Thread&) const noexcept override { return level_.load() > 0; }
    bool acquire(zr::platform::Thread&) noexcept override {
        level_.fetch_sub(1);
        return false;
    }

private:
    ~Level() override = default;
    std::atomic<int> level_{0};
};

}  // namespace

TEST(Wait, ObjectsOfOtherFamiliesMixIn) {
    using namespace zr::platform;
    const Ref<Level> level = Ref<Level>::adopt(new Level);
    const Handle event = auto_event();
    const auto wait_both = [&](WaitMode mode, DWORD milliseconds) {
        WaitSet set;
        EXPECT_TRUE(set.add(event));
        EXPECT_TRUE(set.add(*level));
        return set.wait(mode, Deadline::after(milliseconds)).code();
    };
    EXPECT_EQ(wait_both(WaitMode::Any, 0), WAIT_TIMEOUT);
    level->raise(1);
    EXPECT_EQ(wait_both(WaitMode::Any, INFINITE), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(wait_both(WaitMode::Any, 1), WAIT_TIMEOUT);
    Worker waiter([&] { return wait_both(WaitMode::All, INFINITE); });
    waiter.until_asleep();
    level->raise(2);
    SetEvent(event);
    EXPECT_EQ(waiter.join(), WAIT_OBJECT_0);
    EXPECT_EQ(level->level(), 1);
    const Handle named(open_handle(*level));
    EXPECT_EQ(WaitForSingleObject(named, INFINITE), WAIT_OBJECT_0);
    EXPECT_FALSE(SetEvent(named));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(Wait, ObjectsOfOtherFamiliesUnderLoad) {
    using namespace zr::platform;
    const Ref<Level> level = Ref<Level>::adopt(new Level);
    std::atomic<int> taken = 0;
    constexpr int kRounds = 5000;
    std::vector<std::unique_ptr<Worker>> takers;
    for (int i = 0; i < 3; ++i) {
        takers.push_back(std::make_unique<Worker>([&] {
            for (int round = 0; round < kRounds; ++round) {
                EXPECT_EQ(zr::platform::wait(*level, Deadline::never()).code(), WAIT_OBJECT_0);
                ++taken;
            }
            return DWORD{0};
        }));
    }
    for (int i = 0; i < 3 * kRounds; ++i) {
        level->raise(1);
    }
    for (const auto& taker : takers) {
        taker->join();
    }
    EXPECT_EQ(taken, 3 * kRounds);
    EXPECT_EQ(level->level(), 0);
}
