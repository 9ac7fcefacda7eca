// InitOnceExecuteOnce, priorities and identifiers of threads.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/kernel/kernel_support.h"

using namespace zr::test;

namespace {

struct Calls {
    std::atomic<int> count{0};
    int failures = 0;
    PVOID result = nullptr;
};

BOOL initialise(PINIT_ONCE, PVOID parameter, PVOID* context) {
    Calls& calls = *static_cast<Calls*>(parameter);
    if (calls.count++ < calls.failures) {
        SetLastError(ERROR_NOT_READY);
        return FALSE;
    }
    *context = calls.result;
    return TRUE;
}

TEST(Once, IsDoneOnceAndKeepsWhatCameOfIt) {
    INIT_ONCE once = INIT_ONCE_STATIC_INIT;
    alignas(8) int value = 0;
    Calls calls;
    calls.result = &value;
    PVOID context = nullptr;
    EXPECT_TRUE(InitOnceExecuteOnce(&once, initialise, &calls, &context));
    EXPECT_EQ(context, &value);
    context = nullptr;
    EXPECT_TRUE(InitOnceExecuteOnce(&once, initialise, &calls, &context));
    EXPECT_EQ(context, &value);
    EXPECT_TRUE(InitOnceExecuteOnce(&once, nullptr, nullptr, nullptr));
    EXPECT_EQ(calls.count, 1);
    InitOnceInitialize(&once);
    EXPECT_TRUE(InitOnceExecuteOnce(&once, initialise, &calls, nullptr));
    EXPECT_EQ(calls.count, 2);
}

TEST(Once, AFailureIsTriedAgainByTheNext) {
    INIT_ONCE once;
    InitOnceInitialize(&once);
    Calls calls;
    calls.failures = 1;
    SetLastError(NO_ERROR);
    EXPECT_FALSE(InitOnceExecuteOnce(&once, initialise, &calls, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_NOT_READY);
    EXPECT_TRUE(InitOnceExecuteOnce(&once, initialise, &calls, nullptr));
    EXPECT_EQ(calls.count, 2);
}

TEST(Once, RefusesWhatCannotBe) {
    INIT_ONCE once = INIT_ONCE_STATIC_INIT;
    Calls calls;
    calls.result = reinterpret_cast<PVOID>(1);
    SetLastError(NO_ERROR);
    EXPECT_FALSE(InitOnceExecuteOnce(&once, initialise, &calls, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    SetLastError(NO_ERROR);
    EXPECT_FALSE(InitOnceExecuteOnce(&once, nullptr, nullptr, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    const auto again = [](PINIT_ONCE self, PVOID, PVOID*) -> BOOL {
        EXPECT_FALSE(InitOnceExecuteOnce(self, initialise, nullptr, nullptr));
        return GetLastError() == ERROR_POSSIBLE_DEADLOCK ? TRUE : FALSE;
    };
    EXPECT_TRUE(InitOnceExecuteOnce(&once, again, nullptr, nullptr));
}

TEST(Once, OthersWaitUntilItIsDone) {
    INIT_ONCE once = INIT_ONCE_STATIC_INIT;
    struct Shared {
        Handle begun = manual_event();
        Handle go_on = manual_event();
        std::atomic<bool> done{false};
    } shared;
    const auto slow = [](PINIT_ONCE, PVOID parameter, PVOID*) -> BOOL {
        Shared& all = *static_cast<Shared*>(parameter);
        SetEvent(all.begun);
        WaitForSingleObject(all.go_on, INFINITE);
        all.done = true;
        return TRUE;
    };
    Worker first([&] { return static_cast<DWORD>(InitOnceExecuteOnce(&once, slow, &shared, nullptr)); });
    WaitForSingleObject(shared.begun, INFINITE);
    Worker second([&] {
        InitOnceExecuteOnce(&once, slow, &shared, nullptr);
        return DWORD{shared.done};
    });
    second.until_asleep();
    SetEvent(shared.go_on);
    EXPECT_EQ(second.join(), 1u);
    EXPECT_EQ(first.join(), 1u);
}

TEST(Once, AThreadThatIsEndedInItLeavesItToTheNext) {
    INIT_ONCE once = INIT_ONCE_STATIC_INIT;
    const auto ends = [](PINIT_ONCE, PVOID, PVOID*) -> BOOL { ExitThread(7); };
    Worker ended([&]() -> DWORD {
        InitOnceExecuteOnce(&once, ends, nullptr, nullptr);
        return 0;
    });
    EXPECT_EQ(ended.join(), 7u);
    Calls calls;
    EXPECT_TRUE(InitOnceExecuteOnce(&once, initialise, &calls, nullptr));
    EXPECT_EQ(calls.count, 1);
}

TEST(Once, ManyThreadsAtOnce) {
    for (int round = 0; round < 50; ++round) {
        INIT_ONCE once = INIT_ONCE_STATIC_INIT;
        Calls calls;
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] { EXPECT_TRUE(InitOnceExecuteOnce(&once, initialise, &calls, nullptr)); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(calls.count, 1);
    }
}

TEST(ThreadPriority, IsKeptForEachThread) {
    EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_NORMAL);
    const Handle go_on = manual_event();
    Worker worker([&]() -> DWORD {
        WaitForSingleObject(go_on, INFINITE);
        return static_cast<DWORD>(GetThreadPriority(GetCurrentThread()));
    });
    for (int priority = THREAD_PRIORITY_TIME_CRITICAL; priority <= THREAD_PRIORITY_IDLE; ++priority) {
        EXPECT_TRUE(SetThreadPriority(worker.handle(), priority));
        EXPECT_EQ(GetThreadPriority(worker.handle()), priority);
    }
    EXPECT_TRUE(SetThreadPriority(worker.handle(), THREAD_PRIORITY_BELOW_NORMAL));
    SetEvent(go_on);
    EXPECT_EQ(worker.join(), static_cast<DWORD>(THREAD_PRIORITY_BELOW_NORMAL));
    // It has ended: nobody is told, and nothing goes wrong.
    EXPECT_TRUE(SetThreadPriority(worker.handle(), THREAD_PRIORITY_NORMAL));
    EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_NORMAL);
}

// Whether the kernel lets this process have any nice value: the capability's bit in its list.
bool may_be_nicer() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("CapEff:")) return (std::stoull(line.substr(7), nullptr, 16) >> 23 & 1) != 0;
    }
    return false;
}

// What the host lets be taken back is carried out there, else nothing is.
TEST(ThreadPriority, ReachesTheHostWhereItCanBeTakenBack) {
    const int usual = getpriority(PRIO_PROCESS, 0);
    rlimit limit{};
    getrlimit(RLIMIT_NICE, &limit);
    const bool may = may_be_nicer() || limit.rlim_cur >= static_cast<rlim_t>(20 - usual);
    const Handle go_on = manual_event();
    Worker worker([&]() -> DWORD { return WaitForSingleObject(go_on, INFINITE); }, CREATE_SUSPENDED);
    EXPECT_TRUE(SetThreadPriority(worker.handle(), THREAD_PRIORITY_IDLE));
    const int lowered = getpriority(PRIO_PROCESS, worker.id());
    EXPECT_TRUE(SetThreadPriority(worker.handle(), THREAD_PRIORITY_NORMAL));
    EXPECT_EQ(getpriority(PRIO_PROCESS, worker.id()), usual);
    // As far below what the process has as it goes.
    EXPECT_TRUE(lowered == std::min(usual + 19, 19) || (!may && lowered == usual)) << lowered;
    SetEvent(go_on);
    EXPECT_EQ(ResumeThread(worker.handle()), 1u);
}

TEST(ThreadPriority, RefusesOthers) {
    for (const int wrong : {-1, 8, 15, THREAD_PRIORITY_ERROR_RETURN}) {
        SetLastError(NO_ERROR);
        EXPECT_FALSE(SetThreadPriority(GetCurrentThread(), wrong));
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
    const Handle event = auto_event();
    EXPECT_FALSE(SetThreadPriority(event, THREAD_PRIORITY_NORMAL));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(GetThreadPriority(event), THREAD_PRIORITY_ERROR_RETURN);
    EXPECT_EQ(GetThreadId(event), 0u);
    EXPECT_EQ(GetThreadId(GetCurrentThread()), GetCurrentThreadId());
}

}  // namespace
