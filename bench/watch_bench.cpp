// From a change in a folder to the listener: ours, beside a bare inotify loop and libuv's watcher, who hear on the
// thread that reads, and beside the bare loop with one and two threads on the way to the listener. And what merging a
// batch costs.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <unistd.h>
#include <uv.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "ZrUtility/Helpers/FileSystemMonitor.h"
#include "platform/kernel.h"
#include "platform/shell.h"
#include "platform/windowing.h"

namespace {

namespace fs = std::filesystem;

// A watched folder, below the root of the handheld's file system for this program, and in memory where the host has
// such a place: a disk would be what is measured.
class Folder {
public:
    Folder() : host_(root() / std::to_string(++made())) { fs::create_directory(host_); }
    ~Folder() { fs::remove_all(host_); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string host() const { return host_.string(); }
    std::u16string handheld() const { return u"\\" + host_.filename().u16string(); }
    std::string file(const std::string& name) const { return host() + "/" + name; }

private:
    struct Root {
        Root() {
            const fs::path memory = "/dev/shm";
            const fs::path place = access(memory.c_str(), W_OK) == 0 ? memory : fs::temp_directory_path();
            std::string pattern = (place / "zrbench-XXXXXX").string();
            path = mkdtemp(pattern.data());
            setenv("ZR_ROOT", path.c_str(), 1);
        }
        ~Root() { fs::remove_all(path); }
        fs::path path;
    };
    static const fs::path& root() {
        static const Root root;
        return root.path;
    }
    static int& made() {
        static int count = 0;
        return count;
    }

    const fs::path host_;
};

void make(const std::string& path) {
    close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
}

// Each subject tells how often it heard of a name, and works until it has once more.
class Listener {
public:
    void listen_for(std::string name) {
        name_ = std::move(name);
        heard_ = false;
    }
    void hear(std::string_view name) {
        if (name == name_) heard_ = true;
    }
    bool heard() const { return heard_; }

private:
    std::string name_;
    bool heard_ = false;
};

class Ours final : public FileSystemListener {
public:
    explicit Ours(const Folder& folder) {
        std::u16string path = folder.handheld();
        WCHAR* directories[] = {path.data()};
        monitor_.Initialize(this, directories, 1, nullptr, 0);
        // The folder is watched when its worker says so.
        listener.listen_for("begin");
        while (!listener.heard()) {
            unlink(folder.file("begin").c_str());
            make(folder.file("begin"));
            MsgWaitForMultipleObjectsEx(0, nullptr, 10, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
            dispatch();
        }
    }

    void until_heard() {
        MSG message;
        while (!listener.heard() && GetMessageW(&message, nullptr, 0, 0) > 0) {
            DispatchMessageW(&message);
        }
    }

    void OnFileCreated(const WCHAR* path) override { hear(path); }
    void OnFileChanged(const WCHAR* path) override { hear(path); }
    void OnFileDeleted(const WCHAR* path) override { hear(path); }
    void OnFileRenamed(const WCHAR*, const WCHAR* path) override { hear(path); }

    Listener listener;

private:
    void hear(const WCHAR* path) {
        const std::u16string_view text(path);
        const std::u16string_view name = text.substr(text.rfind(u'\\') + 1);
        listener.hear(std::string(name.begin(), name.end()));
    }
    static void dispatch() {
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            DispatchMessageW(&message);
        }
    }

    FileSystemMonitor monitor_;
};

class Bare {
public:
    explicit Bare(const Folder& folder) {
        inotify_add_watch(inotify_, folder.host().c_str(),
                          IN_CREATE | IN_DELETE | IN_MODIFY | IN_MOVED_FROM | IN_MOVED_TO);
    }
    ~Bare() { close(inotify_); }
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;

    void until_heard() {
        while (!listener.heard()) {
            read_names([this](const char* name) { listener.hear(name); });
        }
    }

    template <class Each>
    void read_names(Each each) {
        const ssize_t got = read(inotify_, buffer_, sizeof buffer_);
        for (ssize_t at = 0; at < got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer_ + at);
            each(event->name);
            at += static_cast<ssize_t>(sizeof *event + event->len);
        }
    }

    Listener listener;

private:
    const int inotify_ = inotify_init1(IN_CLOEXEC);
    alignas(inotify_event) char buffer_[65536];
};

// Names from one thread to another.
class Pipe {
public:
    void put(std::string name) {
        {
            const std::lock_guard guard(mutex_);
            names_.push_back(std::move(name));
        }
        filled_.notify_one();
    }
    std::string take() {
        std::unique_lock guard(mutex_);
        filled_.wait(guard, [this] { return !names_.empty(); });
        std::string name = std::move(names_.front());
        names_.pop_front();
        return name;
    }

private:
    std::mutex mutex_;
    std::condition_variable filled_;
    std::deque<std::string> names_;
};

// The least that has the listener on a thread of its own: it is woken after so many others, one by the other.
template <int kThreads>
class Relayed {
public:
    explicit Relayed(const Folder& folder) : end_(folder.file("end")), bare_(folder) {
        threads_.emplace_back([this] {
            bool ended = false;
            while (!ended) {
                bare_.read_names([&](const char* name) {
                    pipes_[0].put(name);
                    ended = ended || std::string_view(name) == "end";
                });
            }
        });
        for (int i = 1; i < kThreads; ++i) {
            threads_.emplace_back([this, i] {
                for (std::string name; name != "end";) {
                    name = pipes_[i - 1].take();
                    pipes_[i].put(name);
                }
            });
        }
    }
    ~Relayed() {
        make(end_);
        for (std::thread& each : threads_) {
            each.join();
        }
    }
    Relayed(const Relayed&) = delete;
    Relayed& operator=(const Relayed&) = delete;

    void until_heard() {
        while (!listener.heard()) {
            listener.hear(pipes_[kThreads - 1].take());
        }
    }

    Listener listener;

private:
    const std::string end_;
    Bare bare_;
    Pipe pipes_[kThreads];
    std::vector<std::thread> threads_;
};

class LibUv {
public:
    explicit LibUv(const Folder& folder) {
        uv_loop_init(&loop_);
        uv_fs_event_init(&loop_, &watch_);
        watch_.data = this;
        uv_fs_event_start(&watch_, hear, folder.host().c_str(), 0);
    }
    ~LibUv() {
        uv_close(reinterpret_cast<uv_handle_t*>(&watch_), nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }
    LibUv(const LibUv&) = delete;
    LibUv& operator=(const LibUv&) = delete;

    void until_heard() {
        while (!listener.heard()) {
            uv_run(&loop_, UV_RUN_ONCE);
        }
    }

    Listener listener;

private:
    static void hear(uv_fs_event_t* watch, const char* name, int, int) {
        static_cast<LibUv*>(watch->data)->listener.hear(name);
    }

    uv_loop_t loop_;
    uv_fs_event_t watch_;
};

// One thread makes, renames and removes files, the other one listens until it has heard of the last.
template <class Subject>
void changes(benchmark::State& state) {
    const auto files = static_cast<int>(state.range(0));
    const Folder folder;
    Subject subject(folder);
    for (auto _ : state) {
        subject.listener.listen_for("last");
        std::thread other([&] {
            for (int i = 0; i < files; ++i) {
                const std::string path = folder.file("file" + std::to_string(i));
                make(path);
                rename(path.c_str(), (path + "r").c_str());
                unlink((path + "r").c_str());
            }
            make(folder.file("last"));
        });
        subject.until_heard();
        other.join();
        subject.listener.listen_for("last");
        unlink(folder.file("last").c_str());
        subject.until_heard();
    }
    state.SetItemsProcessed(state.iterations() * (3 * files + 2));
}

// One change at a time.
template <class Subject>
void one_change(benchmark::State& state) {
    const Folder folder;
    Subject subject(folder);
    const std::string path = folder.file("one");
    bool there = false;
    for (auto _ : state) {
        subject.listener.listen_for("one");
        if (there)
            unlink(path.c_str());
        else
            make(path);
        there = !there;
        subject.until_heard();
    }
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class OpenMonitor final : public FileSystemMonitor {
public:
    using FileSystemMonitor::FilterFileEventsOnFileType;
    using FileSystemMonitor::OptimizeFileEvents;
    using FileSystemMonitor::ProcessFileEvents;
    using FileSystemMonitor::PushMessageQueue;
};
#pragma GCC diagnostic pop

class Nobody final : public FileSystemListener {
public:
    void OnFileCreated(const WCHAR*) override {}
    void OnFileChanged(const WCHAR*) override {}
    void OnFileDeleted(const WCHAR*) override {}
    void OnFileRenamed(const WCHAR*, const WCHAR*) override {}
};

// Filtering and merging alone, when every so many events in a row are for one path.
void merge_batch(benchmark::State& state) {
    const auto events = static_cast<int>(state.range(0));
    const auto run = static_cast<int>(state.range(1));
    Nobody nobody;
    OpenMonitor monitor;
    monitor.Initialize(&nobody, nullptr, 0, u"txt", 0);
    for (auto _ : state) {
        for (int i = 0; i < events; ++i) {
            const std::string name = "\\My Documents\\file" + std::to_string(i / run) + ".txt";
            const std::u16string path(name.begin(), name.end());
            monitor.PushMessageQueue(i % run == 0 ? SHCNE_CREATE : SHCNE_UPDATEITEM, path.c_str(), nullptr);
        }
        const auto begin = std::chrono::steady_clock::now();
        monitor.FilterFileEventsOnFileType();
        monitor.OptimizeFileEvents();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        state.SetIterationTime(took.count());
        monitor.ProcessFileEvents();
    }
    state.SetItemsProcessed(state.iterations() * events);
}

BENCHMARK(changes<Ours>)->Name("changes_to_listener/ours")->Arg(1000)->UseRealTime();
BENCHMARK(changes<Bare>)->Name("changes_to_listener/inotify")->Arg(1000)->UseRealTime();
BENCHMARK(changes<Relayed<1>>)->Name("changes_to_listener/inotify_1_thread")->Arg(1000)->UseRealTime();
BENCHMARK(changes<Relayed<2>>)->Name("changes_to_listener/inotify_2_threads")->Arg(1000)->UseRealTime();
BENCHMARK(changes<LibUv>)->Name("changes_to_listener/libuv")->Arg(1000)->UseRealTime();
BENCHMARK(one_change<Ours>)->Name("one_change/ours")->UseRealTime();
BENCHMARK(one_change<Bare>)->Name("one_change/inotify")->UseRealTime();
BENCHMARK(one_change<Relayed<1>>)->Name("one_change/inotify_1_thread")->UseRealTime();
BENCHMARK(one_change<Relayed<2>>)->Name("one_change/inotify_2_threads")->UseRealTime();
BENCHMARK(one_change<LibUv>)->Name("one_change/libuv")->UseRealTime();
BENCHMARK(merge_batch)->Name("merge_batch/ours")->Args({10000, 1})->Args({10000, 10})->UseManualTime();

}  // namespace
