// Changed files as window messages: what is told, that it waits for room, what a fork leaves of it, and that it takes
// no thread for each window.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/shell.h"
#include "platform/windowing.h"
#include "support/forked.h"
#include "support/instrumented.h"
#include "support/own_process.h"
#include "support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using namespace zr::test;

constexpr DWORD kSoon = 20'000;
constexpr DWORD kAll =
    SHCNE_RENAMEITEM | SHCNE_CREATE | SHCNE_DELETE | SHCNE_UPDATEITEM | SHCNE_RENAMEFOLDER | SHCNE_MKDIR | SHCNE_RMDIR;

// A window that is told of a folder, on the thread that made it.
class ToldWindow {
public:
    explicit ToldWindow(std::u16string folder, DWORD mask = kAll) : folder_(std::move(folder)) {
        WNDCLASSW description{};
        description.lpfnWndProc = &ToldWindow::procedure;
        description.lpszClassName = u"shell.test";
        RegisterClassW(&description);
        window_ = CreateWindowExW(0, u"shell.test", nullptr, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, this);
        SHCHANGENOTIFYENTRY entry{mask, folder_.data(), FALSE};
        registered_ = SHChangeNotifyRegister(window_, &entry) != FALSE;
    }
    ~ToldWindow() {
        if (!IsWindow(window_)) return;
        SHChangeNotifyDeregister(window_);
        while (pump_one()) {
        }
        DestroyWindow(window_);
    }
    ToldWindow(const ToldWindow&) = delete;
    ToldWindow& operator=(const ToldWindow&) = delete;

    operator HWND() const { return window_; }  // NOLINT(google-explicit-constructor)
    bool is_registered() const { return registered_; }

    // Takes messages until these are told, in any order: "+name" "*name" "-name" "old>new".
    bool tells(std::multiset<std::string> wanted) {
        const DWORD begin = GetTickCount();
        for (;;) {
            while (pump_one()) {
            }
            bool all = true;
            for (const std::string& each : wanted) {
                all = all && told.count(each) >= wanted.count(each);
            }
            if (all) return true;
            if (GetTickCount() - begin > kSoon) return false;
            MsgWaitForMultipleObjectsEx(0, nullptr, 100, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
        }
    }

    std::multiset<std::string> told;

private:
    static bool pump_one() {
        MSG message;
        if (!PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) return false;
        DispatchMessageW(&message);
        return true;
    }

    static LRESULT procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
        if (message == WM_CREATE) {
            SetWindowLongW(window, GWL_USERDATA,
                           reinterpret_cast<LONG_PTR>(reinterpret_cast<CREATESTRUCTW*>(lparam)->lpCreateParams));
        }
        if (message != WM_FILECHANGEINFO) return DefWindowProcW(window, message, wparam, lparam);
        auto* const notify = reinterpret_cast<FILECHANGENOTIFY*>(lparam);
        reinterpret_cast<ToldWindow*>(GetWindowLongW(window, GWL_USERDATA))->note(notify->fci);
        SHChangeNotifyFree(notify);
        return 0;
    }

    static std::string name_of(DWORD_PTR item) {
        const std::u16string path = reinterpret_cast<const WCHAR*>(item);
        return fs::path(path.substr(path.rfind(u'\\') + 1)).string();
    }

    void note(const FILECHANGEINFO& info) {
        const std::string name = name_of(info.dwItem1);
        switch (info.wEventId) {
            case SHCNE_CREATE:
            case SHCNE_MKDIR:
                told.insert("+" + name);
                break;
            case SHCNE_DELETE:
            case SHCNE_RMDIR:
                told.insert("-" + name);
                break;
            case SHCNE_UPDATEITEM:
                told.insert("*" + name);
                break;
            default:
                told.insert(name + ">" + name_of(info.dwItem2));
        }
    }

    std::u16string folder_;
    HWND window_ = nullptr;
    bool registered_ = false;
};

void make(const fs::path& path) {
    std::ofstream(path).flush();
}

}  // namespace

TEST(ChangeNotify, TellsAWindowOfEachKindOfChange) {
    const TempFolder folder;
    ToldWindow window(folder.handheld());
    ASSERT_TRUE(window.is_registered());
    make(folder.host() / "file");
    EXPECT_TRUE(window.tells({"+file"}));
    std::ofstream(folder.host() / "file") << "text";
    EXPECT_TRUE(window.tells({"*file"}));
    fs::rename(folder.host() / "file", folder.host() / "other");
    EXPECT_TRUE(window.tells({"file>other"}));
    fs::create_directory(folder.host() / "folder");
    fs::remove(folder.host() / "folder");
    fs::remove(folder.host() / "other");
    EXPECT_TRUE(window.tells({"+folder", "-folder", "-other"}));
}

TEST(ChangeNotify, TellsOnlyWhatIsAskedFor) {
    const TempFolder folder;
    ToldWindow window(folder.handheld(), SHCNE_DELETE);
    make(folder.host() / "file");
    fs::create_directory(folder.host() / "folder");
    fs::remove(folder.host() / "file");
    EXPECT_TRUE(window.tells({"-file"}));
    EXPECT_EQ(window.told.size(), 1u);
}

TEST(ChangeNotify, WhatFindsNoRoomInTheQueueComesLater) {
    const TempFolder folder;
    // Another thread's window, which is told after the first one's turn.
    std::promise<void> registered;
    std::promise<bool> tried;
    std::thread other([&] {
        ToldWindow second(folder.handheld());
        registered.set_value();
        tried.set_value(second.tells({"+99"}));
    });
    registered.get_future().wait();
    ToldWindow window(folder.handheld());
    while (PostMessageW(window, WM_USER, 0, 0)) {
    }
    ASSERT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_QUOTA));
    std::multiset<std::string> wanted;
    for (int i = 0; i < 100; ++i) {
        make(folder.host() / std::to_string(i));
        wanted.insert("+" + std::to_string(i));
    }
    EXPECT_TRUE(tried.get_future().get());
    other.join();
    EXPECT_TRUE(window.tells(wanted));
}

TEST(ChangeNotify, NothingIsToldAfterTheEnd) {
    const TempFolder folder;
    ToldWindow window(folder.handheld());
    make(folder.host() / "first");
    EXPECT_TRUE(window.tells({"+first"}));
    EXPECT_TRUE(SHChangeNotifyDeregister(window));
    EXPECT_FALSE(SHChangeNotifyDeregister(window));
    ToldWindow other(folder.handheld());
    make(folder.host() / "second");
    EXPECT_TRUE(other.tells({"+second"}));
    EXPECT_EQ(window.told.count("+second"), 0u);
}

TEST(ChangeNotify, AWindowThatIsGoneIsNoTrouble) {
    const TempFolder folder;
    {
        ToldWindow gone(folder.handheld());
        DestroyWindow(gone);
    }
    ToldWindow window(folder.handheld());
    for (int i = 0; i < 10; ++i) {
        make(folder.host() / std::to_string(i));
        EXPECT_TRUE(window.tells({"+" + std::to_string(i)}));
    }
}

TEST(ChangeNotify, ManyWindowsTakeOneThread) {
    const TempFolder folder;
    const int threads_before = count_threads();
    std::vector<std::unique_ptr<ToldWindow>> windows;
    for (int i = 0; i < 40; ++i) {
        windows.push_back(std::make_unique<ToldWindow>(folder.handheld()));
        ASSERT_TRUE(windows.back()->is_registered());
    }
    make(folder.host() / "file");
    for (const auto& each : windows) {
        EXPECT_TRUE(each->tells({"+file"}));
    }
    EXPECT_TRUE(until_threads(threads_before + 1 + kSanitizerThreads));
}

TEST(ChangeNotify, BothProcessesTellTheirWindowsAfterAFork) {
    const TempFolder folder;
    ToldWindow window(folder.handheld());
    EXPECT_EQ(in_fork([&] {
                  make(folder.host() / "of the child");
                  if (!window.tells({"+of the child"})) return 1;
                  ToldWindow own(folder.handheld());
                  make(folder.host() / "more");
                  if (!own.tells({"+more"}) || !window.tells({"+more"})) return 2;
                  return SHChangeNotifyDeregister(window) ? 0 : 3;
              }),
              0);
    EXPECT_TRUE(window.tells({"+of the child", "+more"}));
    make(folder.host() / "of the parent");
    EXPECT_TRUE(window.tells({"+of the parent"}));
}

TEST(ChangeNotify, ThreeHundredForksUnderLoad) {
    const TempFolder busy;
    const TempFolder folder;
    ToldWindow window(folder.handheld());
    const Load load({[&] {
                         ToldWindow one(busy.handheld());
                         EXPECT_TRUE(one.is_registered());
                     },
                     [&] {
                         make(busy.host() / "file");
                         fs::remove(busy.host() / "file");
                     }});
    for (int i = 0; i < 300 / kStride; ++i) {
        const std::string name = std::to_string(i);
        ASSERT_EQ(in_fork([&] {
                      make(folder.host() / name);
                      return window.tells({"+" + name}) ? 0 : 1;
                  }),
                  0)
            << "fork " << i;
        ASSERT_TRUE(window.tells({"+" + name}));
    }
}
