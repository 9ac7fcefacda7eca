// Waitable timers, of this process and of several.
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "platform/base.h"
#include "platform/kernel/named/support.h"
#include "platform/time.h"
#include "platform/windowing.h"
#include "support/forked.h"

using namespace zr::test;

namespace {

Handle timer(bool manual, const char16_t* name = nullptr) {
    return Handle(CreateWaitableTimerW(nullptr, manual ? TRUE : FALSE, name));
}

LARGE_INTEGER in(LONGLONG milliseconds) {
    LARGE_INTEGER due;
    due.QuadPart = -milliseconds * 10'000;
    return due;
}

LARGE_INTEGER at(LONGLONG milliseconds_from_now) {
    SYSTEMTIME now;
    FILETIME file;
    GetSystemTime(&now);
    SystemTimeToFileTime(&now, &file);
    LARGE_INTEGER due;
    due.LowPart = file.dwLowDateTime;
    due.HighPart = static_cast<LONG>(file.dwHighDateTime);
    due.QuadPart += milliseconds_from_now * 10'000;
    return due;
}

BOOL set(HANDLE handle, const LARGE_INTEGER& due, LONG period = 0) {
    return SetWaitableTimer(handle, &due, period, nullptr, nullptr, FALSE);
}

LONGLONG milliseconds() {
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return now.QuadPart / 1'000'000;
}

constexpr LONGLONG kFar = 3'600'000;

class Timers : public testing::TestWithParam<const char16_t*> {
protected:
    Handle make(bool manual) const { return timer(manual, GetParam()); }
};
INSTANTIATE_TEST_SUITE_P(All, Timers, testing::Values(nullptr, u"parity.timer"),
                         [](const auto& param) { return std::string(param.param ? "Named" : "Unnamed"); });

TEST_P(Timers, AreNotSignalledUntilTheyAreDue) {
    const Handle one = make(false);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SUCCESS});
    EXPECT_FALSE(is_signalled(one));
    const LONGLONG begun = milliseconds();
    EXPECT_TRUE(set(one, in(30)));
    EXPECT_EQ(WaitForSingleObject(one, INFINITE), WAIT_OBJECT_0);
    EXPECT_GE(milliseconds() - begun, 29);
    EXPECT_FALSE(is_signalled(one));
}

TEST_P(Timers, StaySignalledWhereTheyAreManual) {
    const Handle one = make(true);
    EXPECT_TRUE(set(one, in(1)));
    EXPECT_EQ(WaitForSingleObject(one, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(is_signalled(one));
    // Setting it makes it not signalled.
    EXPECT_TRUE(set(one, in(kFar)));
    EXPECT_FALSE(is_signalled(one));
}

TEST_P(Timers, ThatAreDueLongSinceAreDueAtOnce) {
    const Handle one = make(false);
    LARGE_INTEGER never{};
    EXPECT_TRUE(set(one, never));
    EXPECT_TRUE(is_signalled(one));
    EXPECT_TRUE(set(one, at(-5000)));
    EXPECT_TRUE(is_signalled(one));
    EXPECT_FALSE(is_signalled(one));
    never.QuadPart = INT64_MAX;
    EXPECT_TRUE(set(one, never));
    EXPECT_FALSE(is_signalled(one));
    never.QuadPart = INT64_MIN;
    EXPECT_TRUE(set(one, never));
    EXPECT_FALSE(is_signalled(one));
}

TEST_P(Timers, AreSetToTimesOfTheDay) {
    const Handle one = make(false);
    EXPECT_TRUE(set(one, at(40)));
    EXPECT_EQ(WaitForSingleObject(one, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(set(one, at(kFar)));
    EXPECT_EQ(WaitForSingleObject(one, 20), WAIT_TIMEOUT);
}

TEST_P(Timers, ComeAgainAndAgain) {
    const Handle one = make(false);
    const LONGLONG begun = milliseconds();
    EXPECT_TRUE(set(one, in(5), 10));
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(WaitForSingleObject(one, INFINITE), WAIT_OBJECT_0);
    }
    EXPECT_GE(milliseconds() - begun, 44);
    EXPECT_TRUE(CancelWaitableTimer(one));
    is_signalled(one);  // it may have come once more
    EXPECT_EQ(WaitForSingleObject(one, 50), WAIT_TIMEOUT);
}

TEST_P(Timers, CancellingLeavesTheStateAsItIs) {
    const Handle one = make(true);
    EXPECT_TRUE(set(one, in(1)));
    EXPECT_EQ(WaitForSingleObject(one, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(CancelWaitableTimer(one));
    EXPECT_TRUE(is_signalled(one));
    EXPECT_TRUE(set(one, in(20)));
    EXPECT_TRUE(CancelWaitableTimer(one));
    EXPECT_EQ(WaitForSingleObject(one, 60), WAIT_TIMEOUT);
    EXPECT_TRUE(CancelWaitableTimer(one));
}

TEST_P(Timers, ALaterOneDoesNotHoldUpAnEarlierOne) {
    const Handle one = make(false);
    const Handle other = timer(false);
    EXPECT_TRUE(set(one, in(kFar)));
    EXPECT_TRUE(set(other, in(kFar)));
    EXPECT_TRUE(set(other, in(1)));
    EXPECT_EQ(WaitForSingleObject(other, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(set(one, in(1)));
    EXPECT_EQ(WaitForSingleObject(one, INFINITE), WAIT_OBJECT_0);
}

TEST_P(Timers, MixInWaits) {
    const Handle one = make(false);
    const Handle event = auto_event(true);
    const HANDLE both[] = {event, one};
    EXPECT_TRUE(set(one, in(20)));
    EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, INFINITE), WAIT_OBJECT_0);
    EXPECT_FALSE(is_signalled(event));
    EXPECT_TRUE(set(one, in(5)));
    EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, INFINITE), WAIT_OBJECT_0 + 1);
    EXPECT_TRUE(set(one, in(5)));
    EXPECT_EQ(MsgWaitForMultipleObjectsEx(2, both, INFINITE, QS_ALLINPUT, 0), WAIT_OBJECT_0 + 1);
}

TEST_P(Timers, OneOfThoseWhoWaitIsLetGo) {
    const Handle one = make(false);
    std::atomic<int> gone{0};
    const auto wait = [&] {
        const DWORD result = WaitForSingleObject(one, INFINITE);
        ++gone;
        return result;
    };
    Worker first(wait);
    Worker second(wait);
    first.until_asleep();
    second.until_asleep();
    EXPECT_TRUE(set(one, in(1)));
    const HANDLE threads[] = {first.handle(), second.handle()};
    EXPECT_LT(WaitForMultipleObjects(2, threads, FALSE, INFINITE), 2u);
    EXPECT_EQ(gone, 1);
    EXPECT_TRUE(set(one, in(1)));
    EXPECT_EQ(WaitForMultipleObjects(2, threads, TRUE, INFINITE), WAIT_OBJECT_0);
}

TEST_P(Timers, RefuseWhatCannotBe) {
    const Handle one = make(false);
    const LARGE_INTEGER due = in(kFar);
    SetLastError(NO_ERROR);
    EXPECT_FALSE(SetWaitableTimer(one, nullptr, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(SetWaitableTimer(one, &due, -1, nullptr, nullptr, FALSE));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    const PTIMERAPCROUTINE routine = [](LPVOID, DWORD, DWORD) {};
    EXPECT_FALSE(SetWaitableTimer(one, &due, 0, routine, nullptr, FALSE));
    EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
    SetLastError(NO_ERROR);
    EXPECT_TRUE(SetWaitableTimer(one, &due, 0, nullptr, nullptr, TRUE));
    EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
    const Handle event = auto_event();
    SetLastError(NO_ERROR);
    EXPECT_FALSE(set(event, due));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    SetLastError(NO_ERROR);
    EXPECT_FALSE(CancelWaitableTimer(event));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    SetLastError(NO_ERROR);
    EXPECT_FALSE(SetEvent(one));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(Timer, ThatIsClosedWhileItIsSetIsGone) {
    for (int i = 0; i < 200; ++i) {
        const Handle one = timer(false);
        EXPECT_TRUE(set(one, in(i % 3), 1));
    }
    const Handle last = timer(false);
    EXPECT_TRUE(set(last, in(1)));
    EXPECT_EQ(WaitForSingleObject(last, INFINITE), WAIT_OBJECT_0);
}

// Those that are set, too, are due: what the platform had open it opens again.
TEST_P(Timers, AreDueInAProgramThatClosesAllDescriptors) {
    EXPECT_EQ(in_fork([&] {
                  const Handle set_before = make(false);
                  const Handle other = timer(false);
                  if (!set(set_before, in(300)) || !set(other, at(300))) return 1;
                  close_range(STDERR_FILENO + 1, ~0U, 0);
                  if (WaitForSingleObject(set_before, 30'000) != WAIT_OBJECT_0) return 2;
                  if (WaitForSingleObject(other, 30'000) != WAIT_OBJECT_0) return 3;
                  close_range(STDERR_FILENO + 1, ~0U, 0);
                  if (!set(set_before, at(5)) || WaitForSingleObject(set_before, 30'000) != WAIT_OBJECT_0) return 4;
                  return set(other, in(5)) && WaitForSingleObject(other, 30'000) == WAIT_OBJECT_0 ? 0 : 5;
              }),
              0);
}

bool is_host_watched() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::ifstream(entry.path() / "comm") >> name;
        if (name == "zr-host") return true;
    }
    return false;
}

// Each loop ends: the thread takes its name after it began, and lingers for a while.
TEST(Timer, TheThreadThatWatchesTheHostEndsAfterTheLastOne) {
    for (const LARGE_INTEGER& due : {in(1), at(1)}) {
        const Handle one = timer(false);
        const Handle other = timer(false);
        EXPECT_TRUE(set(other, in(kFar)));
        EXPECT_TRUE(set(one, due));
        EXPECT_EQ(WaitForSingleObject(one, INFINITE), WAIT_OBJECT_0);
        while (!is_host_watched()) {
            sched_yield();
        }
    }
    while (is_host_watched()) {
        sched_yield();
    }
}

TEST(Timer, NeedsADescriptor) {
    EXPECT_EQ(in_fork([&] {
                  const Handle one = timer(false);
                  rlimit none{};
                  getrlimit(RLIMIT_NOFILE, &none);
                  const rlim_t before = std::exchange(none.rlim_cur, 3);
                  setrlimit(RLIMIT_NOFILE, &none);
                  SetLastError(NO_ERROR);
                  if (set(one, in(1)) || GetLastError() != ERROR_TOO_MANY_OPEN_FILES) return 1;
                  none.rlim_cur = before;
                  setrlimit(RLIMIT_NOFILE, &none);
                  return set(one, in(1)) && WaitForSingleObject(one, 30'000) == WAIT_OBJECT_0 ? 0 : 2;
              }),
              0);
}

TEST(Timer, GoesOnInAForkedChild) {
    const Handle periodic = timer(false);
    const Handle later = timer(false);
    EXPECT_TRUE(set(periodic, in(2), 2));
    EXPECT_TRUE(set(later, at(50)));
    EXPECT_EQ(in_fork([&] {
                  for (int i = 0; i < 3; ++i) {
                      if (WaitForSingleObject(periodic, 30'000) != WAIT_OBJECT_0) return 1;
                  }
                  if (WaitForSingleObject(later, 30'000) != WAIT_OBJECT_0) return 2;
                  return set(later, in(1)) && WaitForSingleObject(later, 30'000) == WAIT_OBJECT_0 ? 0 : 3;
              }),
              0);
    EXPECT_EQ(WaitForSingleObject(periodic, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(later, INFINITE), WAIT_OBJECT_0);
}

TEST(NamedTimers, AreOneForAll) {
    const Handle one = timer(true, u"parity.shared");
    const Handle again = timer(false, u"parity.shared");
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    const Handle opened = Handle(OpenWaitableTimerW(TIMER_ALL_ACCESS, FALSE, u"parity.shared"));
    EXPECT_TRUE(set(opened, in(1)));
    EXPECT_EQ(WaitForSingleObject(again, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(is_signalled(one));
    EXPECT_EQ(OpenWaitableTimerW(TIMER_ALL_ACCESS, FALSE, u"parity.none"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(OpenWaitableTimerW(TIMER_ALL_ACCESS, FALSE, u""), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(OpenSemaphoreW(SEMAPHORE_ALL_ACCESS, FALSE, u"parity.shared"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    const std::vector<Listed> all = listed();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].object.Kind, ZrNamedObjectKind::Timer);
    EXPECT_TRUE(all[0].object.ManualReset);
    EXPECT_TRUE(all[0].object.Signalled);
}

// Whoever has it open signals it: also when the process that set it is gone, by either clock.
TEST(NamedTimers, AreDueWhoeverSetThemAndWentAway) {
    for (const bool by_day : {false, true}) {
        const Handle one = timer(false, u"parity.shared");
        Fork setter([by_day] {
            const Handle theirs = Handle(OpenWaitableTimerW(TIMER_ALL_ACCESS, FALSE, u"parity.shared"));
            Fork::say(set(theirs, by_day ? at(300) : in(300)) ? 'y' : 'n');
            WaitForSingleObject(auto_event(), INFINITE);
            return 0;
        });
        EXPECT_EQ(setter.hear(), 'y');
        setter.kill();
        EXPECT_EQ(WaitForSingleObject(one, 60'000), WAIT_OBJECT_0);
    }
}

TEST(NamedTimers, WakeOtherProcesses) {
    const Handle one = timer(true, u"parity.shared");
    Fork waiter([] {
        const Handle theirs = Handle(OpenWaitableTimerW(TIMER_ALL_ACCESS, FALSE, u"parity.shared"));
        Fork::say('r');
        return WaitForSingleObject(theirs, 60'000) == WAIT_OBJECT_0 ? 0 : 1;
    });
    EXPECT_EQ(waiter.hear(), 'r');
    EXPECT_TRUE(set(one, in(20)));
    EXPECT_EQ(waiter.join(), 0);
}

}  // namespace
