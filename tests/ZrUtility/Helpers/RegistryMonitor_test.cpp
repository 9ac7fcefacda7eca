#include "ZrUtility/Helpers/RegistryMonitor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "ZrUtility/Helpers/RegistryAccessor.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/registry/registry_support.h"
#include "platform/windowing.h"
#include "support/child.h"
#include "support/failing_new.h"

namespace {

using zr::test::kOk;
constexpr DWORD kValues = REG_NOTIFY_CHANGE_LAST_SET;
constexpr DWORD kLong = 20000;
WCHAR kWatchedPath[] = u"Software\\Watched";
WCHAR kWatchedName[] = u"Port";

// What the callbacks do, and what they have seen. A callback has no argument of its own.
struct Reports {
    HANDLE came = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::atomic<int> count{0};
    std::atomic<HKEY> key{nullptr};
    std::atomic<DWORD> thread{0};
    std::atomic<RegistryMonitor*> goes_on{nullptr};
    std::atomic<RegistryMonitor*> stops{nullptr};
    std::atomic<int> result{-1};
    std::atomic<bool> wanted{true};
    std::atomic<int> unwanted{0};
} reports;

void on_change(HKEY key) {
    reports.key = key;
    reports.thread = GetCurrentThreadId();
    if (!reports.wanted) ++reports.unwanted;
    if (RegistryMonitor* const monitor = reports.goes_on) reports.result = monitor->ContinueMonitor();
    if (RegistryMonitor* const monitor = reports.stops) reports.result = monitor->StopMonitor();
    ++reports.count;
    SetEvent(reports.came);
}

class Monitor : public testing::Test {
protected:
    void SetUp() override {
        reports.goes_on = nullptr;
        reports.stops = nullptr;
        reports.count = 0;
        ResetEvent(reports.came);
        ASSERT_EQ(
            RegCreateKeyExW(HKEY_CURRENT_USER, kWatchedPath, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key_, nullptr),
            kOk);
    }
    void TearDown() override { RegCloseKey(key_); }

    void set(const WCHAR* name, DWORD value) {
        ASSERT_EQ(RegSetValueExW(key_, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value), kOk);
    }
    void set(const WCHAR* name, const std::u16string& text) {
        const auto size = static_cast<DWORD>((text.size() + 1) * sizeof(WCHAR));
        ASSERT_EQ(RegSetValueExW(key_, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()), size), kOk);
    }
    static int start(RegistryMonitor& monitor, WCHAR* name = nullptr, const char* expected = nullptr, int dword = 0) {
        return monitor.StartMonitor(HKEY_CURRENT_USER, kWatchedPath, name, expected, FALSE, kValues,
                                    {nullptr, 0, &on_change}, false, dword);
    }
    static bool reported() { return WaitForSingleObject(reports.came, kLong) == WAIT_OBJECT_0; }

    // Its first field.
    static HANDLE thread_of(const RegistryMonitor& monitor) {
        HANDLE fields[sizeof monitor / sizeof(HANDLE)];
        std::memcpy(fields, static_cast<const void*>(&monitor), sizeof monitor);
        return fields[1];
    }

    // Whether what is tried takes less than the second that a stop waits for a thread. On a busy computer anything may
    // take that long, but not each time.
    static bool is_quick(const std::function<void(DWORD& took)>& tried) {
        DWORD took = INFINITE;
        for (int i = 0; i < 10 && took >= 900 && !HasFailure(); ++i) {
            tried(took);
        }
        return took < 900;
    }

    // The thread listens from some time after the start on.
    void change_until_reported() {
        for (DWORD i = 0; WaitForSingleObject(reports.came, 20) != WAIT_OBJECT_0; ++i) {
            set(u"until", i);
        }
    }

    HKEY key_ = nullptr;
};

static_assert(sizeof(RegistryMonitor::CallbackInfo) == sizeof(HWND) + 2 * sizeof(void*));
static_assert(sizeof(RegistryMonitor) == 3 * sizeof(void*));
static_assert(std::is_copy_constructible_v<RegistryMonitor> && std::is_copy_assignable_v<RegistryMonitor>);

TEST_F(Monitor, HasNothingToStopOrContinueBeforeItIsStarted) {
    RegistryMonitor monitor;
    EXPECT_EQ(monitor.StopMonitor(), 0);
    EXPECT_EQ(monitor.ContinueMonitor(), 0);
}

TEST_F(Monitor, AMissingKeyLeavesItIdle) {
    RegistryMonitor monitor;
    WCHAR missing[] = u"Software\\Missing";
    EXPECT_EQ(monitor.StartMonitor(HKEY_CURRENT_USER, missing, nullptr, nullptr, FALSE, kValues,
                                   {nullptr, 0, &on_change}, false, 0),
              0);
    EXPECT_EQ(monitor.StopMonitor(), 0);
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExW(HKEY_CURRENT_USER, missing, 0, KEY_READ, &key), static_cast<LONG>(ERROR_FILE_NOT_FOUND));
}

TEST_F(Monitor, MakesAMissingKeyOnDemand) {
    RegistryMonitor monitor;
    WCHAR missing[] = u"Software\\Missing";
    EXPECT_EQ(monitor.StartMonitor(HKEY_CURRENT_USER, missing, nullptr, nullptr, FALSE, kValues,
                                   {nullptr, 0, &on_change}, true, 0),
              1);
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExW(HKEY_CURRENT_USER, missing, 0, KEY_READ, &key), kOk);
    RegCloseKey(key);
    EXPECT_EQ(monitor.StopMonitor(), 1);
    EXPECT_EQ(monitor.StopMonitor(), 0);
}

TEST_F(Monitor, AWrongRootIsNotMadeUpFor) {
    RegistryMonitor monitor;
    EXPECT_EQ(monitor.StartMonitor(nullptr, kWatchedPath, nullptr, nullptr, FALSE, kValues, {nullptr, 0, &on_change},
                                   true, 0),
              0);
    EXPECT_EQ(monitor.StopMonitor(), 0);
}

TEST_F(Monitor, ReportsOnceOnAThreadOfItsOwn) {
    RegistryMonitor monitor;
    ASSERT_EQ(start(monitor), 1);
    change_until_reported();
    EXPECT_NE(reports.thread, GetCurrentThreadId());
    EXPECT_NE(reports.key, nullptr);
    set(u"later", 1);
    set(u"later", 2);
    EXPECT_EQ(monitor.StopMonitor(), 1) << "its thread has ended; this waits for it to be sure";
    EXPECT_EQ(reports.count, 1);
}

TEST_F(Monitor, GoesOnWhenToldToDuringTheReport) {
    RegistryMonitor monitor;
    reports.goes_on = &monitor;
    ASSERT_EQ(start(monitor), 1);
    change_until_reported();
    EXPECT_EQ(reports.result, 1);
    for (DWORD i = 0; i < 20; ++i) {
        const int before = reports.count;
        set(u"again", i);
        while (reports.count == before) {
            ASSERT_TRUE(reported());
        }
    }
    EXPECT_EQ(monitor.StopMonitor(), 1);
}

TEST_F(Monitor, AfterItsThreadHasEndedContinuingArmsForNobody) {
    EXPECT_TRUE(is_quick([&](DWORD& took) {
        RegistryMonitor monitor;
        const int reported_before = reports.count;
        ASSERT_EQ(start(monitor), 1);
        change_until_reported();
        ASSERT_EQ(WaitForSingleObject(thread_of(monitor), kLong), WAIT_OBJECT_0) << "else it would go on itself";
        EXPECT_EQ(monitor.ContinueMonitor(), 1);
        set(u"later", 1);
        const DWORD before = GetTickCount();
        EXPECT_EQ(monitor.StopMonitor(), 1);
        took = GetTickCount() - before;
        EXPECT_EQ(reports.count, reported_before + 1);
    })) << "there is nobody to wait for";
}

TEST_F(Monitor, WithExpectedTextOnlyAnotherTextCounts) {
    set(kWatchedName, u"expected");
    RegistryMonitor monitor;
    reports.goes_on = &monitor;
    const std::u16string expected = u"expected";
    ASSERT_EQ(start(monitor, kWatchedName, reinterpret_cast<const char*>(expected.c_str())), 1);
    reports.wanted = false;
    for (DWORD i = 0; i < 100; ++i) {
        set(u"other", i);
        set(kWatchedName, u"expected");
    }
    reports.wanted = true;
    DWORD turn = 0;
    do {
        set(kWatchedName, ++turn % 2 ? u"different" : u"another");  // the same again would be no change
    } while (WaitForSingleObject(reports.came, 20) != WAIT_OBJECT_0);
    EXPECT_GE(reports.count, 1);
    // From the first report on everything counts, also the value that was expected.
    const int before = reports.count;
    set(kWatchedName, u"expected");
    while (reports.count == before) {
        ASSERT_TRUE(reported());
    }
    EXPECT_EQ(monitor.StopMonitor(), 1);
    EXPECT_EQ(reports.unwanted, 0);
}

TEST_F(Monitor, WithAnExpectedNumberOnlyAnotherNumberCounts) {
    for (const DWORD number : {DWORD{143}, DWORD{0x00410042}, DWORD{0xFFFFFFFF}}) {
        set(kWatchedName, number);
        reports.count = 0;
        RegistryMonitor monitor;
        char expected[sizeof number];
        std::memcpy(expected, &number, sizeof number);
        ASSERT_EQ(start(monitor, kWatchedName, expected, 1), 1);
        reports.wanted = false;
        for (DWORD i = 0; i < 50; ++i) {
            set(u"other", i);
        }
        reports.wanted = true;
        DWORD turn = 0;
        do {
            set(kWatchedName, number ^ (++turn % 2 ? 0x10001 : 0x20002));
        } while (WaitForSingleObject(reports.came, 20) != WAIT_OBJECT_0);
        EXPECT_EQ(monitor.StopMonitor(), 1);
        EXPECT_EQ(reports.count, 1);
        EXPECT_EQ(reports.unwanted, 0) << number;
    }
}

// Its text is empty and has the hash 0, which stands for nothing expected.
TEST_F(Monitor, WithANumberOfLowHalfZeroEveryChangeCounts) {
    set(kWatchedName, 0x00420000);
    const DWORD number = 0x00420000;
    RegistryMonitor monitor;
    ASSERT_EQ(start(monitor, kWatchedName, reinterpret_cast<const char*>(&number), 1), 1);
    change_until_reported();
    EXPECT_EQ(monitor.StopMonitor(), 1);
}

TEST_F(Monitor, AValueThatIsGoneCounts) {
    set(kWatchedName, 1);
    RegistryMonitor monitor;
    const DWORD number = 1;
    ASSERT_EQ(start(monitor, kWatchedName, reinterpret_cast<const char*>(&number), 1), 1);
    ASSERT_EQ(RegDeleteValueW(key_, kWatchedName), kOk);
    change_until_reported();
    EXPECT_EQ(monitor.StopMonitor(), 1);
    EXPECT_EQ(reports.count, 1);
}

TEST_F(Monitor, DataOfAnyLengthIsComparedWithoutReadingPastIt) {
    const std::u16string expected = u"ab";
    RegistryMonitor monitor;
    for (DWORD size = 0; size <= 9; ++size) {
        ASSERT_EQ(
            RegSetValueExW(key_, kWatchedName, 0, REG_BINARY, reinterpret_cast<const BYTE*>("a\0b\0\0\0xyz"), size),
            kOk);
        const bool same = size >= 3;  // the third byte's unit is completed by the zero behind it
        reports.count = 0;
        ASSERT_EQ(start(monitor, kWatchedName, reinterpret_cast<const char*>(expected.c_str())), 1);
        if (same) {
            reports.wanted = false;
            for (DWORD i = 0; i < 50; ++i) {
                set(u"other", i);
            }
            reports.wanted = true;
            set(kWatchedName, u"c");
        }
        change_until_reported();
        EXPECT_EQ(monitor.StopMonitor(), 1);
        EXPECT_EQ(reports.count, 1) << size;
        EXPECT_EQ(reports.unwanted, 0) << size;
    }
}

TEST_F(Monitor, ANameThatIsTooLongIsIgnored) {
    std::u16string name(260, u'n');
    const DWORD number = 1;
    RegistryMonitor monitor;
    ASSERT_EQ(start(monitor, name.data(), reinterpret_cast<const char*>(&number), 1), 1);
    change_until_reported();
    EXPECT_EQ(monitor.StopMonitor(), 1);
}

TEST_F(Monitor, TheSubtreeCountsWhenAskedFor) {
    RegistryMonitor monitor;
    ASSERT_EQ(monitor.StartMonitor(HKEY_CURRENT_USER, kWatchedPath, nullptr, nullptr, TRUE, REG_NOTIFY_CHANGE_NAME,
                                   {nullptr, 0, &on_change}, false, 0),
              1);
    while (WaitForSingleObject(reports.came, 20) != WAIT_OBJECT_0) {
        HKEY made = nullptr;
        ASSERT_EQ(RegCreateKeyExW(key_, u"a\\b", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &made, nullptr), kOk);
        RegCloseKey(made);
        ASSERT_EQ(RegDeleteKeyW(key_, u"a\\b"), kOk);
    }
    EXPECT_EQ(monitor.StopMonitor(), 1);
}

TEST_F(Monitor, ADeletedKeyIsReportedAndCannotBeContinued) {
    RegistryMonitor monitor;
    reports.goes_on = &monitor;
    ASSERT_EQ(start(monitor), 1);
    change_until_reported();
    const int before = reports.count;
    ASSERT_EQ(RegDeleteKeyW(key_, u""), kOk);
    while (reports.count == before) {
        ASSERT_TRUE(reported());
    }
    EXPECT_EQ(reports.result, 0);
    EXPECT_EQ(monitor.StopMonitor(), 1);
}

// ---- windows -------------------------------------------------------------------------------------------------------

constexpr UINT kMessage = WM_USER + 40;
std::atomic<int> messages_handled{0};
std::atomic<WPARAM> message_key{0};

LRESULT on_message(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
    if (message != kMessage) return DefWindowProcW(window, message, wparam, lparam);
    message_key = wparam;
    EXPECT_EQ(lparam, 0);
    if (RegistryMonitor* const monitor = reports.goes_on) reports.result = monitor->ContinueMonitor();
    ++messages_handled;
    return 0;
}

HWND make_window() {
    WNDCLASSW window_class = {};
    window_class.lpfnWndProc = &on_message;
    window_class.lpszClassName = u"registry.monitor.test";
    RegisterClassW(&window_class);
    return CreateWindowExW(0, u"registry.monitor.test", u"", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
}

TEST_F(Monitor, SendsMessages) {
    const HWND window = make_window();
    ASSERT_NE(window, nullptr);
    RegistryMonitor monitor;
    reports.goes_on = &monitor;
    ASSERT_EQ(monitor.StartMonitor(HKEY_CURRENT_USER, kWatchedPath, nullptr, nullptr, FALSE, kValues,
                                   {window, kMessage, nullptr}, false, 0),
              1);
    for (DWORD i = 0; messages_handled < 5; ++i) {
        set(u"v", i);
        MsgWaitForMultipleObjectsEx(0, nullptr, 20, QS_ALLINPUT, 0);
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE))
            DispatchMessageW(&message);
    }
    EXPECT_NE(message_key, 0u);
    EXPECT_EQ(reports.count, 0);
    EXPECT_EQ(monitor.StopMonitor(), 1);
    DestroyWindow(window);
}

TEST_F(Monitor, AReportThatNobodyTakesIsTerminatedAfterASecond) {
    messages_handled = 0;
    const HWND window = make_window();
    RegistryMonitor monitor;
    ASSERT_EQ(monitor.StartMonitor(HKEY_CURRENT_USER, kWatchedPath, nullptr, nullptr, FALSE, kValues,
                                   {window, kMessage, nullptr}, false, 0),
              1);
    // This thread takes no message: the monitor's one is stuck in SendMessageW as soon as it was told.
    DWORD changes = 0;
    while (!(HIWORD(GetQueueStatus(QS_SENDMESSAGE)) & QS_SENDMESSAGE)) {
        set(u"v", ++changes);
    }
    const DWORD before = GetTickCount();
    EXPECT_EQ(monitor.StopMonitor(), 1);
    EXPECT_GE(GetTickCount() - before, 900u);
    EXPECT_EQ(messages_handled, 0);
    DestroyWindow(window);
}

// ---- other processes -----------------------------------------------------------------------------------------------

constexpr ULONG kLast = 300;

ULONG count_now() {
    return RegistryAccessor::RegistryGetDWORD(HKEY_CURRENT_USER, kWatchedPath, u"Count", 0);
}

ZR_CHILD(registry_monitor_of_ten) {
    static HANDLE at_the_end = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    static RegistryMonitor monitor;
    const auto on_count = [](HKEY) {
        ++reports.count;
        if (monitor.ContinueMonitor() && count_now() == kLast) SetEvent(at_the_end);
    };
    if (!monitor.StartMonitor(HKEY_CURRENT_USER, kWatchedPath, nullptr, nullptr, FALSE, kValues, {nullptr, 0, on_count},
                              true, 0))
        return 1;
    for (ULONG turn = 0; reports.count == 0; ++turn) {  // until it listens
        RegistryAccessor::RegistrySetDWORD(HKEY_CURRENT_USER, kWatchedPath, u"Hello", turn);
    }
    zr::test::say("ready");
    return WaitForSingleObject(at_the_end, kLong) == WAIT_OBJECT_0 && monitor.StopMonitor() == 1 ? 0 : 2;
}

TEST_F(Monitor, TenInOtherProcessesEndAtTheFinalState) {
    std::vector<std::unique_ptr<zr::test::Child>> children;
    for (int i = 0; i < 10; ++i) {
        children.push_back(std::make_unique<zr::test::Child>("registry_monitor_of_ten"));
    }
    for (const auto& child : children) {
        ASSERT_EQ(child->hear(), "ready");
    }
    for (ULONG i = 1; i <= kLast; ++i) {
        set(u"Count", i);
    }
    for (const auto& child : children) {
        EXPECT_EQ(child->wait(), 0);
    }
}

// ---- ends ----------------------------------------------------------------------------------------------------------

TEST_F(Monitor, StopsFromWithinItsReport) {
    EXPECT_TRUE(is_quick([&](DWORD& took) {
        RegistryMonitor monitor;
        reports.stops = &monitor;
        ASSERT_EQ(start(monitor), 1);
        const DWORD before = GetTickCount();
        change_until_reported();
        took = GetTickCount() - before;
        EXPECT_EQ(reports.result, 1);
        EXPECT_EQ(monitor.StopMonitor(), 0);
    })) << "it does not wait for itself";
}

TEST_F(Monitor, StartingTwiceLeavesOneThread) {
    RegistryMonitor monitor;
    reports.goes_on = &monitor;
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(start(monitor), 1);
    }
    change_until_reported();
    const DWORD thread = reports.thread;
    for (DWORD i = 0; i < 10; ++i) {
        const int before = reports.count;
        set(u"again", i);
        while (reports.count == before) {
            ASSERT_TRUE(reported());
        }
        EXPECT_EQ(reports.thread, thread);
    }
    EXPECT_EQ(monitor.StopMonitor(), 1);
}

TEST_F(Monitor, StartedAndStoppedAtOnceNeverHangsOrReportsLater) {
    for (DWORD i = 0; i < 200; ++i) {
        RegistryMonitor monitor;
        ASSERT_EQ(start(monitor), 1);
        set(u"v", i);
    }
    const int before = reports.count;
    set(u"v", 1000);
    EXPECT_EQ(reports.count, before);
}

TEST_F(Monitor, WithoutMemoryThereIsNothingToStop) {
    RegistryMonitor monitor;
    {
        const zr::test::FailingNew failing(0);
        EXPECT_EQ(start(monitor), 0);
    }
    EXPECT_EQ(monitor.StopMonitor(), 0);
}

}  // namespace
