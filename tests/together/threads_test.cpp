// A program that uses every family: how much of the host it takes, and that no family waits for another's store.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "support/child.h"
#include "support/instrumented.h"
#include "support/own_process.h"
#include "support/sandbox.h"
#include "support/small_queue.h"
#include "support/sql.h"
#include "support/time_changes.h"

namespace {

namespace fs = std::filesystem;
using namespace zr::test;

constexpr DWORD kSoon = 20'000;
constexpr int kMostThreads = 4;  // beside the program's own
constexpr int kMostQueues = 2;

HWND make_window() {
    WNDCLASSW shape = {};
    shape.lpfnWndProc = &DefWindowProcW;
    shape.lpszClassName = u"together.test";
    RegisterClassW(&shape);
    return CreateWindowExW(0, u"together.test", nullptr, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
}

bool comes_soon(HANDLE handle) {
    return WaitForSingleObject(handle, kSoon) == WAIT_OBJECT_0;
}

// Watches and listens to all that there is.
class EveryFamily {
public:
    EveryFamily() : window_(make_window()) {
        EXPECT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, u"key", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key_, nullptr),
                  0);
        registry_ = CeFindFirstRegChange(key_, FALSE, REG_NOTIFY_CHANGE_LAST_SET);
        EXPECT_NE(registry_, INVALID_HANDLE_VALUE);
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        EXPECT_EQ(CoCreateInstance(CLSID_Application, nullptr, CLSCTX_INPROC_SERVER, IID_IPOutlookApp,
                                   reinterpret_cast<void**>(&outlook_)),
                  S_OK);
        EXPECT_EQ(outlook_->Logon(window_), S_OK);
        for (int i = 0; i < 10; ++i) {
            std::u16string path = folder_.handheld() + u"\\" + static_cast<WCHAR>(u'0' + i);
            fs::create_directory(folder_.host() / std::to_string(i));
            folders_.push_back(FindFirstChangeNotificationW(path.c_str(), TRUE, FILE_NOTIFY_CHANGE_FILE_NAME));
            EXPECT_NE(folders_.back(), INVALID_HANDLE_VALUE);
            windows_.push_back(make_window());
            SHCHANGENOTIFYENTRY entry{SHCNE_CREATE, path.data(), FALSE};
            EXPECT_TRUE(SHChangeNotifyRegister(windows_.back(), &entry));
        }
        named_ = CreateEventW(nullptr, FALSE, FALSE, u"together");
        EXPECT_TRUE(CeRunAppAtEvent(time_event_.c_str(), NOTIFICATION_EVENT_TIME_CHANGE));
        EXPECT_EQ(NotifyAddrChange(&addresses_, nullptr), static_cast<DWORD>(NO_ERROR));
        for (const LPCWSTR name : {LPCWSTR{nullptr}, u"together.timer"}) {
            for (const LONGLONG due : {LONGLONG{-3600} * 10'000'000, LONGLONG{INT64_MAX}}) {  // by either clock
                timers_.push_back(CreateWaitableTimerW(nullptr, TRUE, name));
                LARGE_INTEGER when;
                when.QuadPart = due;
                EXPECT_TRUE(SetWaitableTimer(timers_.back(), &when, 0, nullptr, nullptr, FALSE));
            }
        }
        EXPECT_TRUE(
            CreateProcessW(u"sleep", u"1000", nullptr, nullptr, FALSE, 0, nullptr, nullptr, nullptr, &process_));
    }
    ~EveryFamily() {
        EXPECT_TRUE(TerminateProcess(process_.hProcess, 0));
        EXPECT_TRUE(comes_soon(process_.hProcess));
        CloseHandle(process_.hProcess);
        CloseHandle(process_.hThread);
        for (const HANDLE timer : timers_) {
            CloseHandle(timer);
        }
        EXPECT_TRUE(CeRunAppAtEvent(time_event_.c_str(), NOTIFICATION_EVENT_NONE));
        for (std::size_t i = 0; i < folders_.size(); ++i) {
            FindCloseChangeNotification(folders_[i]);
            EXPECT_TRUE(SHChangeNotifyDeregister(windows_[i]));
            MSG message;
            while (PeekMessageW(&message, windows_[i], 0, 0, PM_REMOVE)) {
                SHChangeNotifyFree(reinterpret_cast<FILECHANGENOTIFY*>(message.lParam));
            }
            DestroyWindow(windows_[i]);
        }
        CloseHandle(named_);
        outlook_->Logoff();
        outlook_->Release();
        CoUninitialize();
        CeFindCloseRegChange(registry_);
        RegCloseKey(key_);
        DestroyWindow(window_);
    }
    EveryFamily(const EveryFamily&) = delete;
    EveryFamily& operator=(const EveryFamily&) = delete;

    HANDLE registry() const { return registry_; }
    HANDLE named() const { return named_; }
    HANDLE first_folder() const { return folders_[0]; }

    LONG set_value(DWORD value) const {
        return RegSetValueExW(key_, u"value", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
    }
    void make_file(const std::string& name) const { std::ofstream(folder_.host() / "0" / name).flush(); }
    // The shell's message about the first folder.
    bool window_is_told() const {
        MSG message;
        if (GetMessageW(&message, windows_[0], 0, 0) <= 0) return false;
        const bool told = message.message == WM_FILECHANGEINFO;
        SHChangeNotifyFree(reinterpret_cast<FILECHANGENOTIFY*>(message.lParam));
        return told;
    }

private:
    const std::u16string time_event_ = std::u16string(NAMED_EVENT_PREFIX_TEXT) + u"together";

    const TempFolder folder_;
    const HWND window_;
    HKEY key_ = nullptr;
    HANDLE registry_ = nullptr;
    IPOutlookApp* outlook_ = nullptr;
    std::vector<HANDLE> folders_;
    std::vector<HWND> windows_;
    HANDLE named_ = nullptr;
    HANDLE addresses_ = nullptr;
    std::vector<HANDLE> timers_;
    PROCESS_INFORMATION process_{};
};

}  // namespace

// Keeps the stores for itself until it is told to go.
ZR_CHILD(holder) {
    std::vector<sqlite3*> stores;
    for (const char* name : {"registry.db", "pim.db"}) {
        sqlite3* db = nullptr;
        if (open_as_the_stores_do(fs::path(getenv("ZR_HOME")) / name, &db) != SQLITE_OK) return 1;
        if (sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) != SQLITE_OK) return 2;
        stores.push_back(db);
    }
    zr::test::say("held");
    zr::test::hear();
    for (sqlite3* each : stores) {
        sqlite3_close(each);
    }
    return 0;
}

ZR_CHILD(event_setter) {
    const HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, u"together");
    return event && SetEvent(event) ? 0 : 1;
}

TEST(Together, TakesFewThreadsAndQueuesOfTheHost) {
    const TimeChanges changes;
    const EveryFamily all;
    EXPECT_EQ(all.set_value(1), 0);
    EXPECT_TRUE(comes_soon(all.registry()));
    all.make_file("file");
    EXPECT_TRUE(comes_soon(all.first_folder()));
    EXPECT_TRUE(all.window_is_told());
    EXPECT_EQ(Child("event_setter").wait(), 0);
    EXPECT_TRUE(comes_soon(all.named()));
    changes.set_clock();
    EXPECT_TRUE(comes_soon(all.named()));
    EXPECT_TRUE(until_threads(1 + kMostThreads + added_threads()));
    EXPECT_LE(queues_of_process(), kMostQueues);
}

// A writer waits five seconds for a store; what has nothing to do with stores is told meanwhile.
TEST(Together, ALockedStoreDelaysNeitherFoldersNorNamedObjects) {
    const TimeChanges changes;
    const EveryFamily all;
    EXPECT_EQ(all.set_value(1), 0);
    EXPECT_TRUE(comes_soon(all.registry()));
    Child holder("holder");
    ASSERT_EQ(holder.hear(), "held");
    std::atomic<bool> refused{false};
    std::thread writer([&] {
        EXPECT_EQ(all.set_value(2), static_cast<LONG>(ERROR_BUSY));
        refused = true;
    });
    int told = 0;
    for (int i = 0; !refused; ++i) {
        all.make_file(std::to_string(i));
        EXPECT_TRUE(comes_soon(all.first_folder()));
        FindNextChangeNotification(all.first_folder());
        EXPECT_TRUE(all.window_is_told());
        EXPECT_EQ(Child("event_setter").wait(), 0);
        EXPECT_TRUE(comes_soon(all.named()));
        changes.set_clock();
        EXPECT_TRUE(comes_soon(all.named()));
        if (!refused) ++told;
    }
    EXPECT_GE(told, 1) << "before the writer was refused";
    writer.join();
    holder.say("go");
    EXPECT_EQ(holder.wait(), 0);
    EXPECT_EQ(all.set_value(3), 0);
}
