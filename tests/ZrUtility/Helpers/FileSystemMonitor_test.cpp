#include "ZrUtility/Helpers/FileSystemMonitor.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <random>
#include <thread>

#include "ZrUtility/Helpers/file_monitor_support.h"
#include "ZrUtility/Helpers/merge_table.h"
#include "platform/base.h"
#include "platform/diagnostics.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/shell.h"
#include "platform/windowing.h"
#include "support/failing_new.h"
#include "support/log_capture.h"
#include "support/sandbox.h"
#include "support/slots.h"

namespace fs = std::filesystem;
using namespace zr::test;

namespace {

int g_windows = -1;  // how many can be made until the next fails; less than 0: no end of them

// The steps of a commit, one by one. The monitor's destructor is not virtual.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class OpenMonitor final : public FileSystemMonitor {
public:
    using FileSystemMonitor::FilterFileEventsOnFileType;
    using FileSystemMonitor::IsValidExtension;
    using FileSystemMonitor::OptimizeFileEvents;
    using FileSystemMonitor::ProcessFileEvents;
    using FileSystemMonitor::PushMessageQueue;
    using FileSystemMonitor::RegisterThisClass;

    std::vector<TableEvent> events() const {
        std::vector<TableEvent> all;
        for (int i = 0; i < m_pEvents->getNumberOfElement(); ++i) {
            const FileEvent& each = *m_pEvents->getElementByIndex(i);
            all.push_back({each.code, each.firstPath ? each.firstPath : u"(null)", {}});
        }
        return all;
    }
};
#pragma GCC diagnostic pop

// A monitor on the calling thread, without a folder of its own.
class Monitored {
public:
    explicit Monitored(const WCHAR* extension = nullptr) {
        EXPECT_EQ(monitor.Initialize(&notebook, nullptr, 0, extension, 0), 1);
    }
    void send(LONG event, const WCHAR* first, const WCHAR* second = nullptr, ULONG flags = SHCNF_PATH) {
        FILECHANGENOTIFY notify = {};
        notify.fci.wEventId = event;
        notify.fci.uFlags = flags;
        notify.fci.dwItem1 = reinterpret_cast<DWORD_PTR>(first);
        notify.fci.dwItem2 = reinterpret_cast<DWORD_PTR>(second);
        SendMessageW(monitor.GetNotificationHandler(0), WM_FILECHANGEINFO, 0, reinterpret_cast<LPARAM>(&notify));
    }
    void commit() {
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            DispatchMessageW(&message);
        }
    }

    Notebook notebook;
    OpenMonitor monitor;
};

// Overrides what may be overridden, and keeps the order of calls.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class OverridingMonitor final : public FileSystemMonitor {
public:
    std::vector<std::string> calls;
    int registers = 1;

protected:
    int RegisterThisClass() override {
        calls.push_back("register");
        return registers ? FileSystemMonitor::RegisterThisClass() : 0;
    }
    bool IsValidExtension(const WCHAR*) override {
        calls.push_back("valid");
        return true;
    }
    void PushMessageQueue(unsigned int code, const WCHAR* first, const WCHAR* second) override {
        calls.push_back("push");
        FileSystemMonitor::PushMessageQueue(code, first, second);
    }
    void FilterFileEventsOnFileType() override {
        calls.push_back("filter");
        FileSystemMonitor::FilterFileEventsOnFileType();
    }
    void OptimizeFileEvents() override { calls.push_back("optimize"); }
    void ProcessFileEvents() override { calls.push_back("process"); }
    void OnCommitActions() override {
        calls.push_back("commit");
        FileSystemMonitor::OnCommitActions();
    }
    void OnFileChangeInfo(HWND window, unsigned int wparam, LPARAM lparam) override {
        calls.push_back("change");
        FileSystemMonitor::OnFileChangeInfo(window, wparam, lparam);
    }
};
#pragma GCC diagnostic pop

}  // namespace

// Stands before the platform's own for everything in this program.
__attribute__((visibility("default"))) HWND CreateWindowExW(DWORD extended, LPCWSTR name, LPCWSTR title, DWORD style,
                                                            int x, int y, int width, int height, HWND parent,
                                                            HMENU menu, HINSTANCE module, LPVOID argument) {
    if (g_windows == 0) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (g_windows > 0) --g_windows;
    static const auto own = reinterpret_cast<decltype(&CreateWindowExW)>(
        dlsym(RTLD_NEXT, "_Z15CreateWindowExWjPKDsS0_jiiiiP6HWND__P7HMENU__P11HINSTANCE__Pv"));
    return own(extended, name, title, style, x, y, width, height, parent, menu, module, argument);
}

TEST(FileSystemMonitor, Slots) {
    OverridingMonitor monitor;
    call_slot<int>(&monitor, 0);
    call_slot<bool>(&monitor, 1, static_cast<const WCHAR*>(u"a"));
    call_slot<void>(&monitor, 2, 2u, static_cast<const WCHAR*>(u"a"), static_cast<const WCHAR*>(nullptr));
    for (const std::size_t slot : {3, 4, 5, 6}) {
        call_slot<void>(&monitor, slot);
    }
    call_slot<void>(&monitor, 7, static_cast<HWND>(nullptr), 0u, LPARAM{0});
    EXPECT_EQ(monitor.calls, (std::vector<std::string>{"register", "valid", "push", "filter", "optimize", "process",
                                                       "commit", "filter", "optimize", "process", "change"}));
    Notebook notebook;
    const WCHAR* const path = u"\\a";
    call_slot<void>(&notebook, 0, path);
    call_slot<void>(&notebook, 1, path);
    call_slot<void>(&notebook, 2, path);
    call_slot<void>(&notebook, 3, path, path);
    EXPECT_EQ(notebook.told, (Told{u"+\\a", u"*\\a", u"-\\a", u"\\a>\\a"}));
}

TEST(FileSystemMonitor, OverridesAreCalled) {
    Notebook notebook;
    OverridingMonitor monitor;
    monitor.registers = 0;
    EXPECT_EQ(monitor.Initialize(&notebook, nullptr, 0, nullptr, 0), 0);
    EXPECT_EQ(monitor.GetNotificationHandler(0), nullptr);
    monitor.registers = 1;
    EXPECT_EQ(monitor.Initialize(&notebook, nullptr, 0, u"txt", 0), 1);
    monitor.calls.clear();
    FILECHANGENOTIFY notify = {};
    notify.fci.wEventId = SHCNE_CREATE;
    notify.fci.uFlags = SHCNF_PATH;
    notify.fci.dwItem1 = reinterpret_cast<DWORD_PTR>(u"\\a.doc");
    SendMessageW(monitor.GetNotificationHandler(0), WM_FILECHANGEINFO, 0, reinterpret_cast<LPARAM>(&notify));
    pump(kSoon, [&] { return !monitor.calls.empty() && monitor.calls.back() == "process"; });
    EXPECT_EQ(monitor.calls,
              (std::vector<std::string>{"change", "push", "commit", "filter", "valid", "optimize", "process"}));
}

TEST(FileSystemMonitor, NoWindowsBeforeTheStart) {
    EXPECT_EQ(std::u16string(FileSystemMonitor::S_pwzClassName), u"kel.app.file.change.notifier");
    FileSystemMonitor monitor;
    for (const int index : {-1, 0, 9, 10}) {
        EXPECT_EQ(monitor.GetNotificationHandler(index), nullptr);
    }
}

TEST(FileSystemMonitor, InitializeRefuses) {
    Notebook notebook;
    FileSystemMonitor monitor;
    LogCapture log;
    EXPECT_EQ(monitor.Initialize(nullptr, nullptr, 0, nullptr, 0), 0);
    WCHAR path[] = u"\\none";
    WCHAR* eleven[11];
    for (WCHAR*& each : eleven) {
        each = path;
    }
    EXPECT_EQ(monitor.Initialize(&notebook, eleven, 11, nullptr, 0), 0);
    const auto records = log.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].line, 254);
    EXPECT_EQ(records[0].category, 0x180004u);
    EXPECT_EQ(records[1].line, 258);
    EXPECT_EQ(records[1].category, 0x180004u);
    EXPECT_EQ(monitor.GetNotificationHandler(0), nullptr);
}

TEST(FileSystemMonitor, TellsOfChangesInTenFolders) {
    const TempFolder folder;
    std::vector<std::u16string> paths;
    for (int i = 0; i < 10; ++i) {
        fs::create_directory(folder.host() / std::to_string(i));
        const std::string name = std::to_string(i);
        paths.push_back(folder.handheld() + u"\\" + std::u16string(name.begin(), name.end()));
    }
    WCHAR* directories[10];
    std::transform(paths.begin(), paths.end(), directories, [](auto& each) { return each.data(); });
    Notebook notebook;
    LogCapture log;
    FileSystemMonitor monitor;
    ASSERT_EQ(monitor.Initialize(&notebook, directories, 10, nullptr, 7), 1);
    for (int i = 0; i < 10; ++i) {
        const HWND window = monitor.GetNotificationHandler(i);
        ASSERT_NE(window, nullptr);
        EXPECT_EQ(GetParent(window), i == 0 ? nullptr : monitor.GetNotificationHandler(0));
    }
    // The folders are watched once all ten workers have looked at them.
    pump(kSoon, [&] { return lines(log, 105) == 10; });
    const auto told = [&](const std::u16string& words) {
        return std::find(notebook.told.begin(), notebook.told.end(), words) != notebook.told.end();
    };
    for (int i = 0; i < 10; ++i) {
        int round = 0;
        // A worker logs before it watches: the first files may come too early.
        pump(kSoon, [&, i] {
            write_file(folder.host() / std::to_string(i) / ("new" + std::to_string(round++)));
            return std::any_of(notebook.told.begin(), notebook.told.end(),
                               [&](const auto& each) { return each.starts_with(u"+" + paths[i]); });
        });
    }
    write_file(folder.host() / "3/a");
    pump(kSoon, [&] { return told(u"+" + paths[3] + u"\\a"); });
    std::ofstream(folder.host() / "3/a") << "text";
    pump(kSoon, [&] { return told(u"*" + paths[3] + u"\\a"); });
    fs::rename(folder.host() / "3/a", folder.host() / "3/b");
    pump(kSoon, [&] { return told(paths[3] + u"\\a>" + paths[3] + u"\\b"); });
    fs::remove(folder.host() / "3/b");
    pump(kSoon, [&] { return told(u"-" + paths[3] + u"\\b"); });

    const auto records = log.records();
    for (const auto& [line, category] : std::map<int, std::uint32_t>{{105, 0x180010},
                                                                     {172, 0x180010},
                                                                     {175, 0x180010},
                                                                     {178, 0x180010},
                                                                     {212, 0x180010},
                                                                     {736, 0x180020},
                                                                     {627, 0x180020},
                                                                     {629, 0x40180020},
                                                                     {672, 0x180020},
                                                                     {674, 0x40180020}}) {
        const LoggedRecord* const found = record(records, line);
        ASSERT_NE(found, nullptr) << line;
        EXPECT_EQ(found->category, category) << line;
    }
    const std::string path(paths[3].begin(), paths[3].end());
    EXPECT_EQ(record(records, 674)->data, path + "\\a");
}

TEST(FileSystemMonitor, AFolderThatCannotBeWatchedEndsItsWorker) {
    const TempFolder folder;
    std::u16string missing = folder.handheld() + u"\\none";
    std::u16string endless = folder.handheld() + u"\\" + std::u16string(300, u'x');
    WCHAR* directories[] = {missing.data(), nullptr, endless.data()};
    Notebook notebook;
    LogCapture log;
    FileSystemMonitor monitor;
    ASSERT_EQ(monitor.Initialize(&notebook, directories, 3, nullptr, 0), 1);
    EXPECT_EQ(monitor.GetNotificationHandler(1), nullptr);
    EXPECT_NE(monitor.GetNotificationHandler(2), nullptr);
    pump(kSoon, [&] { return lines(log, 243) == 2; });
    const auto records = log.records();
    EXPECT_EQ(lines(log, 110), 2);
    EXPECT_EQ(record(records, 110)->arguments, std::vector<std::uintptr_t>{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(record(records, 110)->category, 0x180004u);
}

TEST(FileSystemMonitor, WithoutItsMainWindowItHasNoThreads) {
    std::u16string missing = u"\\none";
    WCHAR* directories[] = {missing.data(), missing.data()};
    Notebook notebook;
    LogCapture log;
    OpenMonitor monitor;
    g_windows = 0;
    EXPECT_EQ(monitor.Initialize(&notebook, directories, 2, nullptr, 0), 1);
    g_windows = -1;
    const auto records = log.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].line, 309);
    EXPECT_EQ(records[0].category, 0x180004u);
    EXPECT_EQ(records[0].arguments, std::vector<std::uintptr_t>{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(monitor.GetNotificationHandler(0), nullptr);
    monitor.PushMessageQueue(SHCNE_CREATE, u"\\a", nullptr);  // there is a list all the same
    monitor.ProcessFileEvents();
    EXPECT_EQ(notebook.told, Told{u"+\\a"});
}

TEST(FileSystemMonitor, AFolderWithoutAWindowIsNotWatched) {
    std::u16string missing = u"\\none";
    WCHAR* directories[] = {missing.data(), missing.data(), missing.data()};
    Notebook notebook;
    LogCapture log;
    FileSystemMonitor monitor;
    g_windows = 1;
    EXPECT_EQ(monitor.Initialize(&notebook, directories, 3, nullptr, 0), 1);
    g_windows = -1;
    pump(kSoon, [&] { return lines(log, 243) == 1; });
    EXPECT_EQ(lines(log, 105), 1);
    EXPECT_EQ(lines(log, 303), 2);
    const auto records = log.records();
    EXPECT_EQ(record(records, 303)->category, 0x180004u);
    EXPECT_EQ(record(records, 303)->arguments, std::vector<std::uintptr_t>{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_NE(monitor.GetNotificationHandler(0), nullptr);
    EXPECT_EQ(monitor.GetNotificationHandler(1), nullptr);
}

TEST(FileSystemMonitor, WithoutFoldersTheWindowTakesWhatOthersSend) {
    Monitored world;
    world.send(SHCNE_CREATE, u"\\a.txt");
    EXPECT_TRUE(world.notebook.told.empty());  // committed later
    world.commit();
    EXPECT_EQ(world.notebook.told, Told{u"+\\a.txt"});
}

TEST(FileSystemMonitor, NothingIsTakenWhileSuspendedOrWithoutTheFlag) {
    Monitored world;
    world.send(SHCNE_CREATE, u"\\before");
    world.monitor.Suspend();
    world.send(SHCNE_CREATE, u"\\dropped");
    world.commit();
    EXPECT_EQ(world.notebook.told, Told{u"+\\before"});  // was queued already
    world.monitor.Resume();
    world.commit();
    world.send(SHCNE_CREATE, u"\\flagless", nullptr, 2);
    SendMessageW(world.monitor.GetNotificationHandler(0), WM_FILECHANGEINFO, 0, 0);
    world.commit();
    EXPECT_EQ(world.notebook.told.size(), 1u);
    world.send(SHCNE_CREATE, u"\\after");
    world.commit();
    EXPECT_EQ(world.notebook.told.size(), 2u);
}

TEST(FileSystemMonitor, DrainsWhatIsPostedWithoutALookAtFlags) {
    Monitored world;
    const HWND window = world.monitor.GetNotificationHandler(0);
    FILECHANGENOTIFY posted[2] = {};
    posted[0].fci = {sizeof(FILECHANGEINFO), SHCNE_CREATE, 0, reinterpret_cast<DWORD_PTR>(u"\\one"), 0, 0, {}, 0};
    posted[1].fci = {sizeof(FILECHANGEINFO), SHCNE_DELETE, 0, reinterpret_cast<DWORD_PTR>(u"\\two"), 0, 0, {}, 0};
    PostMessageW(window, WM_FILECHANGEINFO, 0, reinterpret_cast<LPARAM>(&posted[0]));
    PostMessageW(window, WM_FILECHANGEINFO, 0, 0);
    PostMessageW(window, WM_FILECHANGEINFO, 0, reinterpret_cast<LPARAM>(&posted[1]));
    world.send(SHCNE_MKDIR, u"\\sent");
    world.commit();
    EXPECT_EQ(world.notebook.told, (Told{u"+\\sent", u"+\\one", u"-\\two"}));
}

TEST(FileSystemMonitor, Extensions) {
    const auto valid = [](const WCHAR* filter, const WCHAR* path) {
        Monitored world(filter);
        return world.monitor.IsValidExtension(path);
    };
    EXPECT_TRUE(valid(u"txt", u"\\a.TXT"));
    EXPECT_TRUE(valid(u"txt", u"\\b.doc\\a.b.txt"));
    EXPECT_FALSE(valid(u"txt", u"\\a."));
    EXPECT_FALSE(valid(u"txt", u"\\readme"));
    EXPECT_FALSE(valid(u"txt", nullptr));
    EXPECT_FALSE(valid(nullptr, nullptr));
    EXPECT_TRUE(valid(nullptr, u"\\readme"));
    EXPECT_TRUE(valid(u"", u"\\readme"));
    EXPECT_FALSE(valid(u"", u"\\a.txt"));
    EXPECT_FALSE(valid(u"", u"\\a."));
    EXPECT_TRUE(valid(u"html", u"\\a.htm"));  // three characters count
    EXPECT_FALSE(valid(u"html", u"\\a.html"));
    EXPECT_TRUE(valid(u"h", u"\\a.H"));
}

TEST(FileSystemMonitor, FilesAreFilteredAndFoldersAreNot) {
    Monitored world(u"txt");
    world.send(SHCNE_CREATE, u"\\a.doc");
    world.send(SHCNE_CREATE, u"\\a.TXT");
    world.send(SHCNE_RENAMEITEM, u"\\b.doc", u"\\b.txt");
    world.send(SHCNE_RENAMEITEM, u"\\c.doc", u"\\d.doc");
    world.send(SHCNE_MKDIR, u"\\folder");
    world.send(SHCNE_RENAMEFOLDER, u"\\folder.x", u"\\folder.y");
    world.send(SHCNE_UPDATEDIR, u"\\folder.z");
    world.send(SHCNE_RMDIR, u"\\folder.w");
    world.commit();
    EXPECT_EQ(world.notebook.told, (Told{u"+\\a.TXT", u"\\b.doc>\\b.txt", u"+\\folder", u"\\folder.x>\\folder.y",
                                         u"*\\folder.z", u"-\\folder.w"}));
}

TEST(FileSystemMonitor, MergesWhatIsRedundant) {
    const auto told = [](std::initializer_list<LONG> events) {
        Monitored world;
        for (const LONG each : events) {
            world.send(each, u"\\a");
        }
        world.commit();
        return world.notebook.told;
    };
    EXPECT_EQ(told({SHCNE_CREATE, SHCNE_UPDATEITEM}), Told{u"+\\a"});
    EXPECT_EQ(told({SHCNE_UPDATEITEM, SHCNE_UPDATEITEM}), Told{u"*\\a"});
    EXPECT_EQ(told({SHCNE_DELETE, SHCNE_CREATE}), (Told{u"-\\a", u"+\\a"}));
    EXPECT_EQ(told({SHCNE_DELETE, SHCNE_DELETE}), Told{u"-\\a"});
    EXPECT_EQ(told({SHCNE_CREATE, SHCNE_DELETE, SHCNE_UPDATEITEM}), Told{u"+\\a"});
    EXPECT_EQ(told({SHCNE_CREATE, SHCNE_DELETE, SHCNE_CREATE}), (Told{u"+\\a", u"+\\a"}));
}

TEST(FileSystemMonitor, DifferentPathsAreNeverMerged) {
    Monitored world;
    for (const WCHAR* path : {u"\\a", u"\\b", u"\\a", u"\\b"}) {
        world.send(SHCNE_UPDATEITEM, path);
    }
    world.commit();
    EXPECT_EQ(world.notebook.told, (Told{u"*\\a", u"*\\b", u"*\\a", u"*\\b"}));
}

TEST(FileSystemMonitor, MergesAsTheTableSays) {
    std::mt19937 random(1);
    const WCHAR* const paths[] = {u"\\a", u"\\A", u"\\b"};
    Monitored world;
    for (int round = 0; round < 3000; ++round) {
        std::vector<TableEvent> events;
        const auto length = random() % 12;
        for (unsigned i = 0; i < length; ++i) {
            const unsigned int code = random() % 40 == 0 ? 0x40 : kCodes[random() % std::size(kCodes)];
            const WCHAR* const path = paths[random() % (random() % 4 == 0 ? 3 : 2)];
            events.push_back({code, path, {}});
            world.monitor.PushMessageQueue(code, path, nullptr);
        }
        world.monitor.OptimizeFileEvents();
        ASSERT_EQ(world.monitor.events(), merged(events)) << "round " << round;
        world.monitor.ProcessFileEvents();
        ASSERT_TRUE(world.monitor.events().empty());
    }
}

TEST(FileSystemMonitor, EachDeliveryIsLoggedWithItsPath) {
    struct Expected {
        unsigned int code;
        const WCHAR* told;
        int line;
        int path_line;
    };
    const Expected all[] = {{SHCNE_CREATE, u"+\\a", 627, 629},        {SHCNE_MKDIR, u"+\\a", 627, 629},
                            {SHCNE_UPDATEDIR, u"*\\a", 640, 642},     {SHCNE_UPDATEITEM, u"*\\a", 640, 642},
                            {SHCNE_DELETE, u"-\\a", 653, 655},        {SHCNE_RMDIR, u"-\\a", 659, 661},
                            {SHCNE_RENAMEITEM, u"\\a>\\b", 672, 674}, {SHCNE_RENAMEFOLDER, u"\\a>\\b", 672, 674}};
    Monitored world;
    for (const Expected& each : all) {
        const LogCapture log;
        world.notebook.told.clear();
        world.monitor.PushMessageQueue(each.code, u"\\a", u"\\b");
        world.monitor.ProcessFileEvents();
        EXPECT_EQ(world.notebook.told, Told{each.told});
        std::vector<LoggedRecord> records = log.records();
        std::erase_if(records, [](const LoggedRecord& record) { return record.line < 627; });  // the worker's
        ASSERT_EQ(records.size(), 2u) << each.code;
        EXPECT_EQ(records[0].line, each.line);
        EXPECT_EQ(records[0].category, 0x180020u);
        EXPECT_EQ(records[1].line, each.path_line);
        EXPECT_EQ(records[1].category, 0x40180020u);
        EXPECT_EQ(records[1].data, "\\a");
    }
}

TEST(FileSystemMonitor, OtherCodesAreNotDelivered) {
    Monitored world;
    for (const unsigned int code : {0u, 0x20u, 0x100u, 0x80000000u}) {
        world.monitor.PushMessageQueue(code, u"\\a", nullptr);
    }
    EXPECT_EQ(world.monitor.events().size(), 4u);
    world.monitor.ProcessFileEvents();
    EXPECT_TRUE(world.monitor.events().empty());
    EXPECT_EQ(world.notebook.told, Told());
}

// Both would end the same windows and free the same list, so one of them is never destroyed.
TEST(FileSystemMonitor, ACopySharesEverything) {
    Monitored world(u"txt");
    world.send(SHCNE_CREATE, u"\\a.txt");
    alignas(OpenMonitor) std::byte room[2][sizeof(OpenMonitor)];
    OpenMonitor& copy = *new (room[0]) OpenMonitor(world.monitor);
    OpenMonitor& assigned = *new (room[1]) OpenMonitor;
    assigned = world.monitor;
    for (OpenMonitor* each : {&copy, &assigned}) {
        EXPECT_EQ(each->GetNotificationHandler(0), world.monitor.GetNotificationHandler(0));
        EXPECT_EQ(each->events(), world.monitor.events());
        EXPECT_FALSE(each->IsValidExtension(u"\\a.doc"));
    }
    copy.ProcessFileEvents();
    EXPECT_EQ(world.notebook.told, Told{u"+\\a.txt"});
    EXPECT_TRUE(world.monitor.events().empty());
}

TEST(FileSystemMonitor, TheEndIsLogged) {
    LogCapture log;
    { const Monitored world; }
    std::vector<LoggedRecord> records = log.records();
    std::erase_if(records, [](const LoggedRecord& each) { return each.line >= 105 && each.line <= 243; });  // workers'
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].line, 753);
    EXPECT_EQ(records[0].category, 0x180020u);
    EXPECT_EQ(records[1].line, 37);
    EXPECT_EQ(records[1].category, 0x180010u);
}

TEST(FileSystemMonitor, TheListenerMayPumpMessages) {
    Monitored world;
    world.send(SHCNE_CREATE, u"\\a");
    world.send(SHCNE_CREATE, u"\\b");
    bool nested = false;
    world.notebook.on_note = [&] {
        if (std::exchange(nested, true)) return;
        world.send(SHCNE_CREATE, u"\\c");
        world.commit();
    };
    world.commit();
    EXPECT_EQ(world.notebook.told, (Told{u"+\\a", u"+\\b", u"+\\c"}));
}

TEST(FileSystemMonitor, AClosedWindowClearsItsSlot) {
    Monitored world;
    LogCapture log;
    SendMessageW(world.monitor.GetNotificationHandler(0), WM_CLOSE, 0, 0);
    EXPECT_EQ(world.monitor.GetNotificationHandler(0), nullptr);
    EXPECT_GE(lines(log, 753), 1);
}

TEST(FileSystemMonitor, TheClassIsRegisteredAnewOrKept) {
    OpenMonitor monitor;
    EXPECT_EQ(monitor.RegisterThisClass(), 1);
    EXPECT_EQ(monitor.RegisterThisClass(), 1);
    Monitored world;  // its window holds the class
    LogCapture log;
    EXPECT_EQ(monitor.RegisterThisClass(), 1);
    EXPECT_EQ(lines(log, 70), 1);
    EXPECT_EQ(record(log.records(), 70)->category, 0x180008u);
}

TEST(FileSystemMonitor, TakesTheShellsNotifications) {
    const TempFolder folder;
    Monitored world;
    std::u16string path = folder.handheld();
    SHCHANGENOTIFYENTRY entry{SHCNE_CREATE | SHCNE_MKDIR | SHCNE_RENAMEITEM, path.data(), FALSE};
    const HWND window = world.monitor.GetNotificationHandler(0);
    ASSERT_TRUE(SHChangeNotifyRegister(window, &entry));
    write_file(folder.host() / "a");
    pump(kSoon, [&] { return !world.notebook.told.empty(); });
    fs::create_directory(folder.host() / "sub");
    pump(kSoon, [&] { return world.notebook.told.size() == 2; });
    fs::rename(folder.host() / "sub", folder.host() / "sub2");  // not asked for
    fs::rename(folder.host() / "a", folder.host() / "b");
    pump(kSoon, [&] { return world.notebook.told.size() == 3; });
    EXPECT_EQ(world.notebook.told,
              (Told{u"+" + path + u"\\a", u"+" + path + u"\\sub", path + u"\\a>" + path + u"\\b"}));
    SendMessageW(window, WM_CLOSE, 0, 0);
    EXPECT_FALSE(SHChangeNotifyDeregister(window));
}

TEST(FileSystemMonitor, EventsGoWithTheMonitorAndWindowsToo) {
    const LONGLONG windows = ZrLiveObjects(ZrLiveKind::Windows);
    {
        Monitored world;
        world.send(SHCNE_CREATE, u"\\a");
        Notebook other;
        EXPECT_EQ(world.monitor.Initialize(&other, nullptr, 0, u"txt", 0), 1);  // begins anew
        world.send(SHCNE_CREATE, u"\\b.txt");
    }
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), windows);
}

TEST(FileSystemMonitor, MemoryMayFailAnywhere) {
    const Monitored first;  // a thread's first call of the platform has to have memory for its record
    for (int nth = 0; nth < 60; ++nth) {
        Notebook notebook;
        OpenMonitor monitor;
        WCHAR none[] = u"\\none";
        WCHAR* directories[] = {none};
        FailingNew failing(nth);
        monitor.Initialize(&notebook, directories, 1, u"txt", 0);
        monitor.PushMessageQueue(SHCNE_CREATE, u"\\a.txt", nullptr);
        monitor.PushMessageQueue(SHCNE_UPDATEITEM, u"\\a.txt", nullptr);
        monitor.PushMessageQueue(SHCNE_RENAMEITEM, u"\\b.txt", u"\\c.txt");
        monitor.FilterFileEventsOnFileType();
        monitor.OptimizeFileEvents();
    }
}
