#include "store/store_listener.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "base/forks.h"
#include "base/host_fd.h"
#include "base/private_file.h"
#include "kernel/worker.h"

namespace zr::platform {
namespace {

constexpr int kRetryMilliseconds = 20;
// IN_ATTRIB and IN_MOVE_SELF: the name may be gone, and writers make a new file.
constexpr std::uint32_t kEvents = IN_CLOSE_WRITE | IN_ATTRIB | IN_MOVE_SELF;

struct Entry {
    StoreWatcher* watcher;
    std::string bell;
    int watch;   // of the host; -1: none
    bool again;  // to be called without a ring
};

class Listener {
public:
    // Never destroyed: the thread may run as long as the process. Takes no memory.
    static Listener& instance() noexcept {
        alignas(Listener) static char place[sizeof(Listener)];
        static auto* const listener = new (place) Listener;
        return *listener;
    }

    int add(const std::string& bell, StoreWatcher& watcher);
    void remove(StoreWatcher& watcher) noexcept;
    void call(StoreWatcher& watcher) noexcept;
    // In a child made by fork: listens to what its parent's watchers listened to.
    void resume() noexcept;

    void before_fork() noexcept;
    void after_fork() noexcept { mutex_.unlock(); }
    void after_fork_in_child() noexcept;

private:
    int start();
    void close_files() noexcept;
    void wake() noexcept;
    void run() noexcept;
    bool ends() noexcept;
    void take_rings() noexcept;
    void note(int watch, std::uint32_t mask) noexcept;
    void call_all() noexcept;
    int watch_bell(Entry& entry) noexcept;

    std::mutex mutex_;
    std::condition_variable done_;  // a watcher was called, files are closed
    std::vector<Entry> entries_;
    StoreWatcher* calling_ = nullptr;
    int closing_ = 0;  // threads that close what they listened with
    std::thread::id thread_;
    Worker worker_{"zr-stores"};
    HostFd inotify_;
    HostFd wake_;
};

int Listener::add(const std::string& bell, StoreWatcher& watcher) {
    const std::lock_guard lock(mutex_);
    entries_.push_back({&watcher, bell, -1, true});
    int error = worker_.is_running() ? 0 : start();
    if (error == 0) error = watch_bell(entries_.back());
    if (error != 0) entries_.pop_back();
    wake();  // also to end again
    return error;
}

void Listener::remove(StoreWatcher& watcher) noexcept {
    std::unique_lock lock(mutex_);
    const auto is_it = [&](const Entry& entry) { return entry.watcher == &watcher; };
    const auto found = std::find_if(entries_.begin(), entries_.end(), is_it);
    if (found == entries_.end()) return;
    const int watch = found->watch;
    entries_.erase(found);
    const bool shared =
        std::any_of(entries_.begin(), entries_.end(), [&](const Entry& entry) { return entry.watch == watch; });
    if (watch >= 0 && !shared) inotify_rm_watch(inotify_.get(), watch);
    if (entries_.empty()) wake();
    if (thread_ != std::this_thread::get_id()) done_.wait(lock, [&] { return calling_ != &watcher; });
}

void Listener::call(StoreWatcher& watcher) noexcept {
    const std::lock_guard lock(mutex_);
    for (Entry& entry : entries_) {
        if (entry.watcher == &watcher) entry.again = true;
    }
    // A watcher that calls itself is called when the others had their turn, and a while later.
    if (thread_ != std::this_thread::get_id()) wake();
}

void Listener::resume() noexcept {
    const std::lock_guard lock(mutex_);
    if (entries_.empty() || worker_.is_running() || start() != 0) return;
    for (Entry& entry : entries_) {
        entry.again = true;
    }
    wake();
}

void Listener::before_fork() noexcept {
    std::unique_lock lock(mutex_);
    done_.wait(lock, [&] { return closing_ == 0; });
    lock.release();
}

void Listener::after_fork_in_child() noexcept {
    close_files();
    calling_ = nullptr;
    new (&done_) std::condition_variable;  // those who waited are not here
    for (Entry& entry : entries_) {
        entry.watch = -1;
        entry.again = true;  // for the thread that will be started
    }
    after_fork();
}

int Listener::start() {
    inotify_ = HostFd(above_standard(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)));
    if (inotify_) wake_ = HostFd(above_standard(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
    int error = wake_ ? 0 : errno;
    if (error == 0 && !worker_.start([](void* self) { static_cast<Listener*>(self)->run(); }, this)) error = EAGAIN;
    if (error != 0) close_files();
    return error;
}

void Listener::close_files() noexcept {
    inotify_ = HostFd();
    wake_ = HostFd();
}

void Listener::wake() noexcept {
    const std::uint64_t one = 1;
    if (wake_) static_cast<void>(!write(wake_.get(), &one, sizeof one));
}

// The same file gives the same number, and watchers share it.
int Listener::watch_bell(Entry& entry) noexcept {
    if (const int error = open_private_file(entry.bell, 0, nullptr); error != 0) return error;
    entry.watch = inotify_add_watch(inotify_.get(), entry.bell.c_str(), kEvents);
    return entry.watch < 0 ? errno : 0;
}

void Listener::run() noexcept {
    {
        const std::lock_guard lock(mutex_);
        thread_ = std::this_thread::get_id();
    }
    while (!ends()) {
        int timeout = -1;
        {
            const std::lock_guard lock(mutex_);
            if (std::any_of(entries_.begin(), entries_.end(), [](const Entry& entry) { return entry.again; }))
                timeout = kRetryMilliseconds;
        }
        pollfd files[] = {{inotify_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
        ::poll(files, 2, timeout);
        take_rings();
        call_all();
    }
}

// Ends when nobody listens any more. The host takes some 15 ms to close what has had watches: who comes to listen
// meanwhile gets another thread and does not wait; a fork does, whose child would have these files.
bool Listener::ends() noexcept {
    std::unique_lock lock(mutex_);
    if (!entries_.empty()) return false;
    thread_ = {};
    worker_.leave();
    HostFd inotify = std::move(inotify_);
    HostFd wake = std::move(wake_);
    ++closing_;
    lock.unlock();
    inotify = HostFd();
    wake = HostFd();
    lock.lock();
    --closing_;
    done_.notify_all();
    return true;
}

void Listener::take_rings() noexcept {
    const std::lock_guard lock(mutex_);
    std::uint64_t count = 0;
    static_cast<void>(!::read(wake_.get(), &count, sizeof count));
    alignas(inotify_event) char buffer[4096];
    for (ssize_t got = 0; (got = ::read(inotify_.get(), buffer, sizeof buffer)) > 0;) {
        for (const char* at = buffer; at < buffer + got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            note(event->wd, event->mask);
            at += sizeof *event + event->len;
        }
    }
}

void Listener::note(int watch, std::uint32_t mask) noexcept {
    for (Entry& entry : entries_) {
        if (entry.watch != watch && (mask & IN_Q_OVERFLOW) == 0) continue;
        entry.again = true;
        if ((mask & (IN_IGNORED | IN_ATTRIB | IN_MOVE_SELF)) != 0) entry.watch = -1;
    }
}

void Listener::call_all() noexcept {
    std::unique_lock lock(mutex_);
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        if (!entries_[i].again) continue;
        entries_[i].again = entries_[i].watch < 0 && watch_bell(entries_[i]) != 0;
        StoreWatcher* const watcher = calling_ = entries_[i].watcher;
        lock.unlock();
        const bool again = watcher->rang();
        lock.lock();
        calling_ = nullptr;
        done_.notify_all();
        // The list may be another one by now.
        for (Entry& entry : entries_) {
            if (entry.watcher == watcher && again) entry.again = true;
        }
    }
}

}  // namespace

int add_store_watcher(const std::string& bell, StoreWatcher& watcher) {
    return Listener::instance().add(bell, watcher);
}

void remove_store_watcher(StoreWatcher& watcher) noexcept {
    Listener::instance().remove(watcher);
}

void call_store_watcher(StoreWatcher& watcher) noexcept {
    Listener::instance().call(watcher);
}

void resume_store_listener() noexcept {
    Listener::instance().resume();
}

void lock_store_listener() noexcept {
    Listener::instance().before_fork();
}

void unlock_store_listener() noexcept {
    Listener::instance().after_fork();
}

void unlock_store_listener_in_child() noexcept {
    Listener::instance().after_fork_in_child();
}

}  // namespace zr::platform
