// The monitor while other processes do much at once in ten folders, and its listener is slow: what it is told agrees
// with the folders in the end.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <random>
#include <set>
#include <thread>
#include <unordered_map>

#include "ZrUtility/Helpers/FileSystemMonitor.h"
#include "ZrUtility/Helpers/file_monitor_support.h"
#include "ZrUtility/Helpers/merge_table.h"
#include "platform/diagnostics.h"
#include "platform/file_changes.h"
#include "platform/shell.h"
#include "support/child.h"
#include "support/sandbox.h"
#include "support/small_queue.h"

namespace fs = std::filesystem;
using namespace zr::test;

namespace {

constexpr int kFolders = 10;
constexpr int kProcesses = 4;
#if defined(ZR_SANITIZE_ADDRESS) || defined(ZR_SANITIZE_THREAD)
constexpr int kFiles = 10000;
#else
constexpr int kFiles = 100000;
#endif
constexpr DWORD kPatience = 240000;

// --- Those who change

// Creates, changes, renames and removes files, all that it does to one spread over what it does to others. Some end
// under names that it shares with other processes, some in another folder, and a few stay.
class Troublemaker {
public:
    Troublemaker(std::string root, const std::string& mark)
        : root_(std::move(root)), mark_(mark), random_(static_cast<unsigned>(std::stoi(mark))) {}

    void work(int files) {
        for (int i = 0; i < files; ++i) {
            made_.push_back(make(i));
            if (made_.size() > kWaiting) renamed_.push_back(rename(take(made_)));
            if (renamed_.size() > kWaiting) end(take(renamed_));
            if (i % 100 == 0) folders(i);
        }
        while (!made_.empty()) {
            renamed_.push_back(rename(take(made_)));
        }
        while (!renamed_.empty()) {
            end(take(renamed_));
        }
    }

private:
    static constexpr std::size_t kWaiting = 40;

    std::string make(int number) {
        const char* const kind = number % 4 == 0 ? ".dat" : ".txt";
        std::string path = folder() + mark_ + "-" + std::to_string(number) + kind;
        write(path);
        return path;
    }

    void write(const std::string& path) {
        const int file = open(path.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
        if (file < 0) return;
        const std::string text(1 + random_() % 100, 'x');
        if (::write(file, text.data(), text.size()) < 0) std::abort();
        close(file);
    }

    std::string rename(const std::string& from) {
        std::string to = from.substr(0, from.rfind('.')) + "r.txt";
        const auto choice = random_() % 16;
        if (choice == 0) to = folder() + "shared" + std::to_string(random_() % 8) + ".txt";
        if (choice == 1) to = folder() + fs::path(to).filename().string();
        if (choice == 2) to = from.substr(0, from.rfind('.')) + "r.dat";
        ::rename(from.c_str(), to.c_str());
        return to;
    }

    void end(const std::string& path) {
        const auto choice = random_() % 16;
        if (choice < 2) write(path);
        if (choice != 1) unlink(path.c_str());
    }

    void folders(int number) {
        const std::string path = folder() + mark_ + "-folder" + std::to_string(number);
        mkdir(path.c_str(), 0700);
        ::rename(path.c_str(), (path + "r").c_str());
        if (number % 300 != 0) rmdir((path + "r").c_str());
    }

    std::string take(std::vector<std::string>& paths) {
        std::swap(paths[random_() % paths.size()], paths.back());
        std::string path = std::move(paths.back());
        paths.pop_back();
        return path;
    }

    std::string folder() { return root_ + "/" + std::to_string(random_() % kFolders) + "/"; }

    const std::string root_;
    const std::string mark_;
    std::mt19937 random_;
    std::vector<std::string> made_;
    std::vector<std::string> renamed_;
};

// --- What is told

std::string host_path(const std::u16string& handheld) {
    std::string path = sandbox_root().string();
    for (const WCHAR c : handheld) {
        path += c == u'\\' ? '/' : static_cast<char>(c);
    }
    return path;
}

// -1: there is none.
long size_of(const std::u16string& path) {
    struct stat status;
    if (lstat(host_path(path).c_str(), &status) != 0) return -1;
    return S_ISDIR(status.st_mode) ? 0 : static_cast<long>(status.st_size);
}

using Contents = std::unordered_map<std::u16string, long>;

// A folder that is kept in memory where the host has such a place: what is measured here is not the disk. It stands
// below the handheld's root all the same, by a link.
class QuickFolder {
public:
    QuickFolder() {
        std::string pattern = "/dev/shm/zrtest-XXXXXX";
        if (mkdtemp(pattern.data()))
            fs::create_directory_symlink(in_memory_ = pattern, host());
        else
            fs::create_directory(host());
    }
    ~QuickFolder() {
        std::error_code ignored;
        if (!in_memory_.empty()) fs::remove_all(in_memory_, ignored);
    }
    QuickFolder(const QuickFolder&) = delete;
    QuickFolder& operator=(const QuickFolder&) = delete;

    fs::path host() const { return place_.host() / "load"; }
    std::u16string handheld() const { return place_.handheld() + u"\\load"; }

private:
    const TempFolder place_;
    fs::path in_memory_;
};

// What is in the ten folders, with sizes.
Contents entries_below(const QuickFolder& root) {
    Contents entries;
    for (int i = 0; i < kFolders; ++i) {
        const std::string number = std::to_string(i);
        for (const auto& each : fs::directory_iterator(root.host() / number)) {
            const std::u16string path =
                root.handheld() + u"\\" + std::u16string(1, number[0]) + u"\\" + each.path().filename().u16string();
            entries.emplace(path, size_of(path));
        }
    }
    return entries;
}

// The folders as the events tell of them. Someone who looks at a file whenever he is told of it knows its last size.
class Replay {
public:
    Replay() = default;
    explicit Replay(Contents entries) : entries_(std::move(entries)) {}

    void apply(const TableEvent& event) {
        switch (event.code) {
            case SHCNE_CREATE:
                fits(!entries_.contains(event.path));
                entries_[event.path] = size_of(event.path);
                break;
            case SHCNE_UPDATEITEM:
                fits(entries_.contains(event.path));
                entries_[event.path] = size_of(event.path);
                break;
            case SHCNE_DELETE:
                fits(entries_.erase(event.path) == 1);
                break;
            default:
                fits(event.code == SHCNE_RENAMEITEM && entries_.erase(event.path) == 1);
                entries_[event.second] = size_of(event.second);
        }
    }

    const Contents& entries() const { return entries_; }
    int unfit() const { return unfit_; }

private:
    void fits(bool whether) { unfit_ += whether ? 0 : 1; }

    Contents entries_;
    int unfit_ = 0;
};

bool passes(const std::u16string& path) {
    return path.ends_with(u".txt");
}

// A slow listener, which keeps the names that pass the filter as it is told of them.
class SlowListener final : public FileSystemListener {
public:
    void OnFileCreated(const WCHAR* path) override { note({SHCNE_CREATE, path, {}}); }
    void OnFileChanged(const WCHAR* path) override { note({SHCNE_UPDATEITEM, path, {}}); }
    void OnFileDeleted(const WCHAR* path) override { note({SHCNE_DELETE, path, {}}); }
    void OnFileRenamed(const WCHAR* from, const WCHAR* to) override { note({SHCNE_RENAMEITEM, from, to}); }

    void begin(const Contents& entries) {
        for (const auto& [path, size] : entries) {
            if (passes(path)) names.insert(path);
        }
    }

    std::set<std::u16string> names;
    std::vector<TableEvent> told;  // of the batch

private:
    void note(TableEvent event) {
        if (event.code != SHCNE_CREATE && event.code != SHCNE_UPDATEITEM) names.erase(event.path);
        if (event.code == SHCNE_CREATE && passes(event.path)) names.insert(event.path);
        if (event.code == SHCNE_RENAMEITEM && passes(event.second)) names.insert(event.second);
        told.push_back(std::move(event));
        if (++calls_ % 1000 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }

    int calls_ = 0;
};

// Looks at what comes in before it is filtered and merged, and at what of it the listener gets.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class LookedAtMonitor final : public FileSystemMonitor {
public:
    explicit LookedAtMonitor(SlowListener& listener) : listener_(listener) {}

    Replay replay;
    int events = 0;
    int batches = 0;
    int wrong_batches = 0;
    std::set<std::u16string> dropped;  // the paths of dropped events that said that something comes or goes

protected:
    void PushMessageQueue(unsigned int code, const WCHAR* first, const WCHAR* second) override {
        batch_.push_back({code, first, second ? second : u""});
        replay.apply(batch_.back());
        ++events;
        FileSystemMonitor::PushMessageQueue(code, first, second);
    }

    void OnCommitActions() override {
        listener_.told.clear();
        FileSystemMonitor::OnCommitActions();
        std::erase_if(batch_, [](const TableEvent& each) { return !passes(each.path) && !passes(each.second); });
        std::vector<TableEvent> away;
        if (merged(batch_, &away) != listener_.told) ++wrong_batches;
        for (const TableEvent& each : away) {
            if (each.code == SHCNE_UPDATEITEM) continue;
            dropped.insert(each.path);
            dropped.insert(each.second);
        }
        batch_.clear();
        ++batches;
    }

private:
    SlowListener& listener_;
    std::vector<TableEvent> batch_;
};
#pragma GCC diagnostic pop

// Ten watched folders.
class Load {
public:
    Load() : monitor(listener) {
        WCHAR* directories[kFolders];
        for (int i = 0; i < kFolders; ++i) {
            const std::string number = std::to_string(i);
            fs::create_directory(folder.host() / number);
            for (int file = 0; file < 20; ++file) {
                write_file(folder.host() / number / ("first" + std::to_string(file) + ".txt"));
            }
            paths[i] = folder.handheld() + u"\\" + std::u16string(1, number[0]);
            directories[i] = paths[i].data();
        }
        EXPECT_EQ(monitor.Initialize(&listener, directories, kFolders, u"txt", 0), 1);
        wait_for_workers();
        tell_all("begin.dat");
        const Contents first = entries_below(folder);
        monitor.replay = Replay(first);
        listener.begin(first);
    }

    // Until each folder has had an event.
    void wait_for_workers() {
        pump(kPatience, [&] {
            bool all = true;
            for (const std::u16string& each : paths) {
                if (monitor.replay.entries().contains(each + u"\\probe.dat")) continue;
                const std::string probe = host_path(each + u"\\probe.dat");
                unlink(probe.c_str());
                write_file(probe);
                all = false;
            }
            return all;
        });
    }

    // A new file in every folder; until all that was before is told. A folder that is read again tells its names in any
    // order, so the file's name alone tells nothing of the others'.
    void tell_all(const std::string& name) {
        for (const std::string& each : {"before-" + name, name}) {
            for (const std::u16string& path : paths) {
                write_file(host_path(path) + "/" + each);
            }
            pump(kPatience, [&] { return told_everywhere(each); });
        }
    }

    bool told_everywhere(const std::string& name) const {
        return std::all_of(std::begin(paths), std::end(paths), [&](const std::u16string& path) {
            return monitor.replay.entries().contains(path + u"\\" + std::u16string(name.begin(), name.end()));
        });
    }

    void run() {
        std::atomic<bool> done{false};
        std::thread others([&] {
            {
                std::vector<std::unique_ptr<Child>> children;
                for (int i = 0; i < kProcesses; ++i) {
                    const std::vector<std::string> arguments{folder.host().string(), std::to_string(i),
                                                             std::to_string(kFiles / kProcesses)};
                    children.push_back(std::make_unique<Child>("troublemaker", arguments));
                }
                for (const auto& child : children) {
                    EXPECT_EQ(child->wait(), 0);
                }
            }
            done = true;
        });
        pump(kPatience, [&] { return done.load(); });
        others.join();
        tell_all("end.dat");
    }

    // Names that the listener has wrong, and the merge does not say why.
    std::vector<std::string> unexplained() const {
        std::set<std::u16string> there;
        for (const auto& [path, size] : entries_below(folder)) {
            if (passes(path)) there.insert(path);
        }
        std::vector<std::u16string> different;
        std::set_symmetric_difference(there.begin(), there.end(), listener.names.begin(), listener.names.end(),
                                      std::back_inserter(different));
        std::vector<std::string> all;
        for (const std::u16string& each : different) {
            if (!monitor.dropped.contains(each)) all.push_back(host_path(each));
        }
        return all;
    }

    const QuickFolder folder;
    std::u16string paths[kFolders];
    SlowListener listener;
    LookedAtMonitor monitor;
};

void expect_agreement(const Load& load) {
    EXPECT_EQ(load.monitor.replay.unfit(), 0);
    EXPECT_TRUE(load.monitor.replay.entries() == entries_below(load.folder));
    EXPECT_EQ(load.monitor.wrong_batches, 0);
    EXPECT_EQ(load.unexplained(), std::vector<std::string>());
    testing::Test::RecordProperty("losses", static_cast<int>(ZrFileChangeLosses()));
    testing::Test::RecordProperty("events", load.monitor.events);
    testing::Test::RecordProperty("batches", load.monitor.batches);
    testing::Test::RecordProperty("dropped", static_cast<int>(load.monitor.dropped.size()));
}

}  // namespace

ZR_CHILD(troublemaker) {
    Troublemaker(args.at(0), args.at(1)).work(std::stoi(args.at(2)));
    return 0;
}

TEST(FileSystemMonitorLoad, WhatIsToldAgreesWithTheFolders) {
    Load load;
    load.run();
    expect_agreement(load);
    // Each file was made and renamed, unless the kernel's queue overflowed on a busy computer: then what came and went
    // before the folders were read is not told.
    EXPECT_GE(load.monitor.events, ZrFileChangeLosses() == 0 ? 2 * kFiles : kFiles / 10);
}

TEST(FileSystemMonitorLoad, SoItDoesWithTheSmallestQueue) {
    {
        if (queues_of_process() > 0) GTEST_SKIP() << "the process has its queue";
        const SmallQueue small;
        if (!small) GTEST_SKIP() << "the kernel's queue cannot be changed here";
        // The first of the process makes its queue.
        EXPECT_TRUE(FindCloseChangeNotification(FindFirstChangeNotificationW(u"\\", FALSE, 1)));
    }
    Load load;
    load.run();
    expect_agreement(load);
    EXPECT_GT(ZrFileChangeLosses(), 0);
}
