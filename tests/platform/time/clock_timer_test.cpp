// A clock that is set, without setting the machine's: this program stands between the platform and the kernel's timers,
// and cancels one when a test says so.

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <limits>

#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/notify.h"
#include "support/time_changes.h"

namespace {

std::atomic<bool> stand_between{false};
std::atomic<bool> refuse{false};
std::atomic<int> timer{-1};  // the descriptor that the platform takes for its timer
std::atomic<int> armed{0};

void set_clock() {
    const std::uint64_t one = 1;
    ASSERT_EQ(write(timer, &one, sizeof one), static_cast<ssize_t>(sizeof one));
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int timerfd_create(clockid_t clock, int flags) noexcept {
    if (!stand_between) return static_cast<int>(syscall(SYS_timerfd_create, clock, flags));
    if (refuse) {
        errno = EMFILE;
        return -1;
    }
    EXPECT_EQ(clock, CLOCK_REALTIME);
    EXPECT_EQ(flags, TFD_CLOEXEC | TFD_NONBLOCK);
    return timer = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

__attribute__((visibility("default"))) int timerfd_settime(int fd, int flags, const itimerspec* value,
                                                           itimerspec* old) noexcept {
    if (fd != timer) return static_cast<int>(syscall(SYS_timerfd_settime, fd, flags, value, old));
    EXPECT_EQ(flags, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET);
    EXPECT_EQ(value->it_value.tv_sec, std::numeric_limits<time_t>::max());
    ++armed;
    return 0;
}

__attribute__((visibility("default"))) ssize_t read(int fd, void* buffer, size_t size) {
    const ssize_t got = syscall(SYS_read, fd, buffer, size);
    if (fd < 0 || fd != timer || got < 0) return got;
    errno = ECANCELED;
    return -1;
}
}

TEST(ClockTimer, ACancelledTimerIsAClockThatWasSet) {
    const zr::test::TimeChanges changes;
    stand_between = true;
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, u"clock");
    const HANDLE zone = CreateEventW(nullptr, FALSE, FALSE, u"zone");
    ASSERT_TRUE(CeRunAppAtEvent(u"\\\\.\\Notifications\\NamedEvents\\clock", NOTIFICATION_EVENT_TIME_CHANGE));
    ASSERT_TRUE(CeRunAppAtEvent(u"\\\\.\\Notifications\\NamedEvents\\zone", NOTIFICATION_EVENT_TZ_CHANGE));
    EXPECT_EQ(armed, 1);
    for (int round = 2; round < 5; ++round) {
        set_clock();
        EXPECT_EQ(WaitForSingleObject(event, INFINITE), WAIT_OBJECT_0);
        // Armed again before the event was set, so that nothing is missed in between.
        EXPECT_EQ(armed, round);
    }
    EXPECT_EQ(WaitForSingleObject(zone, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(CeRunAppAtEvent(u"\\\\.\\Notifications\\NamedEvents\\clock", NOTIFICATION_EVENT_NONE));
    EXPECT_TRUE(CeRunAppAtEvent(u"\\\\.\\Notifications\\NamedEvents\\zone", NOTIFICATION_EVENT_NONE));
    CloseHandle(event);
    CloseHandle(zone);
}

TEST(ClockTimer, WithoutOneThereIsNoRegistration) {
    const zr::test::TimeChanges changes;
    stand_between = true;
    refuse = true;
    EXPECT_FALSE(CeRunAppAtEvent(u"\\\\.\\Notifications\\NamedEvents\\clock", NOTIFICATION_EVENT_TIME_CHANGE));
    EXPECT_EQ(GetLastError(), ERROR_TOO_MANY_OPEN_FILES);
    refuse = false;
    EXPECT_TRUE(CeRunAppAtEvent(u"\\\\.\\Notifications\\NamedEvents\\clock", NOTIFICATION_EVENT_TIME_CHANGE));
    EXPECT_TRUE(CeRunAppAtEvent(u"\\\\.\\Notifications\\NamedEvents\\clock", NOTIFICATION_EVENT_NONE));
}
