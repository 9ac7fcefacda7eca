#include "ZrUtility/Helpers/SystemTimeHelper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "ZrLog/ZrLog.h"
#include "platform/base.h"
#include "platform/diagnostics.h"
#include "platform/errors.h"
#include "platform/kernel.h"
#include "platform/notify.h"
#include "support/child.h"
#include "support/failing_new.h"
#include "support/log_capture.h"
#include "support/log_categories.h"
#include "support/own_process.h"
#include "support/time_changes.h"

#if defined(ZR_SANITIZE_ADDRESS)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using zr::test::Child;
using zr::test::count_threads;
using zr::test::FailingNew;
using zr::test::kTimeFailure;
using zr::test::kTimeInformation;
using zr::test::LogCapture;
using zr::test::others_sleep;
using zr::test::sleeps;
using zr::test::TimeChanges;
using zr::test::until_threads;

constexpr const WCHAR* kEvent = u"ZrNotificationListener";
constexpr const char* kTimeSource = ".\\Helpers\\SystemTimeHelper.cppzrwindowsmobile";

// What the callbacks tell the test.
struct TimeCalls {
    HANDLE called = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::atomic<int> calls{0};
    std::atomic<DWORD> thread{0};

    ~TimeCalls() { CloseHandle(called); }
    bool wait() const { return WaitForSingleObject(called, INFINITE) == WAIT_OBJECT_0; }
};
TimeCalls* told = nullptr;

void note() {
    ++told->calls;
    told->thread = GetCurrentThreadId();
    SetEvent(told->called);
}

std::atomic<int> other_calls{0};
void note_other() {
    ++other_calls;
    note();
}

class SystemTime : public testing::Test {
protected:
    SystemTime() { told = &told_; }
    ~SystemTime() override {
        SystemTimeHelper::Release();
        told = nullptr;
        CloseHandle(first_name_);
    }

    static SystemTimeHelper& helper() { return *SystemTimeHelper::GetInstance(); }
    // True when the event is there and not signalled any more: the listener waits again.
    static void until_reset() {
        const HANDLE event = OpenEventW(EVENT_ALL_ACCESS, FALSE, kEvent);
        ASSERT_NE(event, nullptr);
        while (WaitForSingleObject(event, 0) == WAIT_OBJECT_0) {
            std::this_thread::yield();
        }
        CloseHandle(event);
    }
    void change() const {
        changes.set_clock();
        EXPECT_TRUE(told_.wait());
        until_reset();
    }

    const TimeChanges changes;
    // While a process has a name open a thread of the kernel's watches over it: from before the threads are counted.
    const HANDLE first_name_ = CreateEventW(nullptr, FALSE, FALSE, u"SystemTime test");
    TimeCalls told_;
};

// Returns when the listening thread sleeps: it has reset the event, and will not do so again before the next change.
void until_listening() {
    const std::string thread = "/proc/self/task/" + std::to_string(told->thread);
    for (int asleep = 0; asleep < 3;) {
        asleep = sleeps(thread) ? asleep + 1 : 0;
        std::this_thread::yield();
    }
}

bool event_exists() {
    const HANDLE event = OpenEventW(EVENT_ALL_ACCESS, FALSE, kEvent);
    if (event != nullptr) CloseHandle(event);
    return event != nullptr;
}

}  // namespace

TEST_F(SystemTime, IsOneListener) {
    EXPECT_EQ(SystemTimeHelper::m_Instance, nullptr);
    SystemTimeHelper::Release();
    SystemTimeHelper* const first = SystemTimeHelper::GetInstance();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(SystemTimeHelper::GetInstance(), first);
    EXPECT_EQ(SystemTimeHelper::m_Instance, first);
    SystemTimeHelper::Release();
    EXPECT_EQ(SystemTimeHelper::m_Instance, nullptr);
    SystemTimeHelper::Release();
}

TEST_F(SystemTime, IsNotMadeWithoutMemory) {
    helper();
    SystemTimeHelper::Release();  // what the platform keeps from then on is there before anything is counted
    const long before = zr::test::live_news();
    {
        const FailingNew failing;
        EXPECT_EQ(SystemTimeHelper::GetInstance(), nullptr);
    }
    EXPECT_EQ(SystemTimeHelper::m_Instance, nullptr);
    EXPECT_NE(SystemTimeHelper::GetInstance(), nullptr);
    EXPECT_EQ(zr::test::live_news(), before + 1);
    SystemTimeHelper::Release();
    EXPECT_EQ(zr::test::live_news(), before);
}

TEST_F(SystemTime, CallsOnEveryChangeOnAThreadOfItsOwn) {
    const LogCapture log;
    EXPECT_EQ(helper().StartListening(note), 0);
    for (int i = 1; i <= 5; ++i) {
        change();
        EXPECT_EQ(told_.calls, i);
        EXPECT_NE(told_.thread, GetCurrentThreadId());
    }
    changes.set_zone("Second");
    EXPECT_TRUE(told_.wait());
    until_reset();
    EXPECT_EQ(told_.calls, 6);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(SystemTime, RefusesNoCallbackAndStaysAsItIs) {
    EXPECT_EQ(helper().StartListening(nullptr), E_FAIL);
    EXPECT_FALSE(event_exists());
    EXPECT_EQ(helper().StartListening(note), 0);
    EXPECT_EQ(helper().StartListening(nullptr), E_FAIL);
    change();
    EXPECT_EQ(told_.calls, 1);
}

TEST_F(SystemTime, StartedTwiceHasOneThreadAndTheSecondCallback) {
    other_calls = 0;
    EXPECT_EQ(helper().StartListening(note), 0);
    const int with_one = count_threads();
    EXPECT_EQ(helper().StartListening(note_other), 0);
    EXPECT_TRUE(until_threads(with_one));
    change();
    EXPECT_EQ(told_.calls, 1);
    EXPECT_EQ(other_calls, 1);
}

TEST_F(SystemTime, StopsAndStartsAgain) {
    EXPECT_EQ(helper().StartListening(note), 0);
    EXPECT_EQ(helper().StopListening(), 0);
    EXPECT_EQ(helper().StopListening(), 0);
    EXPECT_FALSE(event_exists());
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    const int idle = count_threads();
    for (int round = 0; round < 50; ++round) {
        ASSERT_EQ(helper().StartListening(note), 0);
        if (round % 2 == 0) {
            change();
        } else if (round % 3 == 0) {
            changes.set_clock();  // stopped while a change may be on its way
        }
        ASSERT_EQ(helper().StopListening(), 0);
        ASSERT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
        ASSERT_TRUE(until_threads(idle));
        const int calls = told_.calls;
        changes.set_clock();
        ASSERT_EQ(told_.calls, calls);
        WaitForSingleObject(told_.called, 0);
    }
}

TEST_F(SystemTime, ReleaseStops) {
    const int idle = count_threads();
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    EXPECT_EQ(helper().StartListening(note), 0);
    change();
    SystemTimeHelper::Release();
    EXPECT_FALSE(event_exists());
    ASSERT_TRUE(until_threads(idle));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
}

TEST_F(SystemTime, EndsWithARecordOrAtOnce) {
    const LogCapture log;
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(helper().StartListening(note), 0);
        ASSERT_EQ(helper().StopListening(), 0);
    }
    // The thread is ended, and may have seen before that it is to stop, or that its event has gone.
    for (const auto& record : log.records()) {
        EXPECT_EQ(record.source, kTimeSource);
        EXPECT_TRUE(record.category == kTimeInformation || record.category == kTimeFailure) << record.category;
    }
}

TEST_F(SystemTime, LogsNothingWhenTheSystemCannotBeWatched) {
    setenv("ZR_ZONE_FILE", "/nowhere/localtime", 1);
    const LogCapture log;
    EXPECT_EQ(helper().StartListening(note), E_FAIL);
    EXPECT_TRUE(log.records().empty());
    EXPECT_FALSE(event_exists());
    setenv("ZR_ZONE_FILE", changes.zone_file().c_str(), 1);
    EXPECT_EQ(helper().StartListening(note), 0);
    change();
}

TEST_F(SystemTime, AFailedStartStopsTheListenerBefore) {
    EXPECT_EQ(helper().StartListening(note), 0);
    const int listening = count_threads();
    setenv("ZR_ZONE_FILE", "/nowhere/localtime", 1);
    EXPECT_EQ(helper().StartListening(note_other), E_FAIL);
    EXPECT_TRUE(until_threads(listening - 2));
    EXPECT_FALSE(event_exists());
    setenv("ZR_ZONE_FILE", changes.zone_file().c_str(), 1);
}

TEST_F(SystemTime, LogsWhenTheEventCannotBeMade) {
    const HANDLE in_the_way = CreateMutexW(nullptr, FALSE, kEvent);
    ASSERT_NE(in_the_way, nullptr);
    {
        const LogCapture log;
        EXPECT_EQ(helper().StartListening(note), E_FAIL);
        const auto records = log.records();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].source, kTimeSource);
        EXPECT_EQ(records[0].category, kTimeFailure);
        EXPECT_EQ(records[0].arguments, std::vector<std::uintptr_t>{ERROR_INVALID_HANDLE});
    }
    CloseHandle(in_the_way);
    EXPECT_EQ(helper().StartListening(note), 0);
    change();
}

TEST_F(SystemTime, StartsOrFailsWholeWhenMemoryIsShort) {
    EXPECT_EQ(helper().StartListening(note), 0);  // what the process keeps of its first time is there
    EXPECT_EQ(helper().StopListening(), 0);
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    const int idle = count_threads();
    int failures = 0;
    for (int successes = 0;; ++successes) {
        ASSERT_LT(successes, 200);
        LONG result = 0;
        {
            const FailingNew failing(successes);
            result = helper().StartListening(note);
        }
        if (result == 0) break;
        EXPECT_EQ(result, E_FAIL);
        ++failures;
        EXPECT_FALSE(event_exists());
        EXPECT_EQ(helper().StopListening(), 0);
        ASSERT_TRUE(until_threads(idle));
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
    }
    EXPECT_GT(failures, 1);
    change();
}

TEST_F(SystemTime, IsToldThroughTheEventByOtherProcessesToo) {
    EXPECT_EQ(helper().StartListening(note), 0);
    const HANDLE event = OpenEventW(EVENT_ALL_ACCESS, FALSE, kEvent);
    ASSERT_NE(event, nullptr);
    EXPECT_TRUE(SetEvent(event));
    EXPECT_TRUE(told_.wait());
    until_reset();
    CloseHandle(event);
    EXPECT_EQ(told_.calls, 1);
}

ZR_CHILD(listening_process) {
    TimeCalls own;
    told = &own;
    if (SystemTimeHelper::GetInstance()->StartListening(note) != 0) return 1;
    // Before the first call, which tells which thread it is.
    while (!others_sleep(1000)) {
    }
    zr::test::say("ready");
    for (;;) {
        own.wait();
        until_listening();
        zr::test::say("called");
        if (args[0] == "once") break;
    }
    SystemTimeHelper::Release();
    told = nullptr;
    return 0;
}

TEST_F(SystemTime, IsToldInEveryProcess) {
    EXPECT_EQ(helper().StartListening(note), 0);
    // Tells that this process has noticed a change, whichever set the shared event.
    const HANDLE own = CreateEventW(nullptr, FALSE, FALSE, u"own");
    EXPECT_TRUE(CeRunAppAtEvent(u"\\\\.\\Notifications\\NamedEvents\\own", NOTIFICATION_EVENT_TIME_CHANGE));
    Child first("listening_process", {"always"});
    ASSERT_EQ(first.hear(), "ready");
    for (int round = 0; round < 10; ++round) {
        changes.set_clock();
        EXPECT_EQ(first.hear(), "called");
        EXPECT_TRUE(told_.wait());
        until_listening();
        EXPECT_EQ(WaitForSingleObject(own, INFINITE), WAIT_OBJECT_0);
    }
    // Killed in the middle of it, it takes nothing from the others.
    first.kill(SIGKILL);
    EXPECT_EQ(first.wait(), -SIGKILL);
    change();
    Child second("listening_process", {"once"});
    ASSERT_EQ(second.hear(), "ready");
    changes.set_clock();
    EXPECT_EQ(second.hear(), "called");
    EXPECT_EQ(second.wait(), 0);
    // It stopped, which took back its own registration only.
    EXPECT_TRUE(told_.wait());
    until_listening();
    WaitForSingleObject(told_.called, 0);  // its stopping may have been taken for a change
    change();
    EXPECT_TRUE(CeRunAppAtEvent(u"\\\\.\\Notifications\\NamedEvents\\own", NOTIFICATION_EVENT_NONE));
    CloseHandle(own);
}

// ---- The callback and the end of listening ----

TEST_F(SystemTime, ACallbackMayStop) {
    static std::atomic<bool> went_on{false};
    went_on = false;
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    const int idle = count_threads();
    EXPECT_EQ(helper().StartListening([] {
        SetEvent(told->called);
        SystemTimeHelper::GetInstance()->StopListening();
        went_on = true;
    }),
              0);
    changes.set_clock();
    EXPECT_TRUE(told_.wait());
    ASSERT_TRUE(until_threads(idle));
    EXPECT_FALSE(went_on);
    EXPECT_FALSE(event_exists());
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
    EXPECT_EQ(helper().StartListening(note), 0);
    change();
}

TEST_F(SystemTime, ACallbackIsEndedAtItsNextCallOfThePlatform) {
    static std::atomic<bool> went_on{false};
    went_on = false;
    const int idle = count_threads();
    EXPECT_EQ(helper().StartListening([] {
        SetEvent(told->called);
        Sleep(INFINITE);
        went_on = true;
    }),
              0);
    changes.set_clock();
    EXPECT_TRUE(told_.wait());
    EXPECT_EQ(helper().StopListening(), 0);
    ASSERT_TRUE(until_threads(idle));
    EXPECT_FALSE(went_on);
}

TEST_F(SystemTime, ACallbackThatCallsNothingIsLeftToItself) {
    static std::atomic<bool> let_go{false};
    static std::atomic<int> returned{0};
    let_go = false;
    returned = 0;
    const int idle = count_threads();
    const auto busy = [] {
        SetEvent(told->called);
        while (!let_go) {
            std::this_thread::yield();
        }
        ++returned;
    };
    EXPECT_EQ(helper().StartListening(busy), 0);
    changes.set_clock();
    EXPECT_TRUE(told_.wait());
#if defined(ZR_SANITIZE_ADDRESS)
    __lsan_ignore_object(SystemTimeHelper::m_Instance);  // which is left to the thread
#endif
    const DWORD start = GetTickCount();
    SystemTimeHelper::Release();
    EXPECT_GE(GetTickCount() - start, 900u);
    EXPECT_EQ(SystemTimeHelper::m_Instance, nullptr);
    EXPECT_EQ(helper().StartListening(note), 0);
    change();
    EXPECT_EQ(told_.calls, 1);
    let_go = true;
    while (returned == 0) {
        std::this_thread::yield();
    }
    SystemTimeHelper::Release();
    ASSERT_TRUE(until_threads(idle));
}

TEST_F(SystemTime, ForgetsAChangeDuringTheCallback) {
    static HANDLE go = nullptr;
    go = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    EXPECT_EQ(helper().StartListening([] {
        note();
        WaitForSingleObject(go, INFINITE);
    }),
              0);
    changes.set_clock();
    EXPECT_TRUE(told_.wait());
    const HANDLE event = OpenEventW(EVENT_ALL_ACCESS, FALSE, kEvent);
    SetEvent(event);
    CloseHandle(event);
    SetEvent(go);
    until_reset();
    EXPECT_EQ(told_.calls, 1);
    SetEvent(go);
    change();
    EXPECT_EQ(told_.calls, 2);
    SystemTimeHelper::Release();
    CloseHandle(go);
}
