#include "kernel/host_events.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <new>

#include "at_fork.h"
#include "base/file_mark.h"
#include "base/host_error.h"
#include "base/host_fd.h"
#include "kernel/worker.h"

namespace zr::platform {

class HostEvents {
public:
    DWORD add(HostSource& source, int descriptor) noexcept;
    void remove(HostSource& source) noexcept;
    void call(HostSource& source, Deadline when) noexcept;

    void lock() noexcept { mutex_.lock(); }
    void unlock() noexcept { mutex_.unlock(); }
    void begin_child() noexcept;

private:
    static constexpr std::size_t kMost = 16;  // sources with a descriptor
    static constexpr int kWakeMark = 1;

    DWORD start() noexcept;
    void wake() noexcept;
    void make_wake() noexcept;
    void replace_wake() noexcept;
    bool has_wake() const noexcept;
    void run() noexcept;
    int wait(std::unique_lock<std::mutex>& lock, pollfd* files, std::size_t count) noexcept;
    std::size_t list(pollfd* files, HostSource** sources) noexcept;
    void take_wakes(short what) noexcept;
    void serve(std::unique_lock<std::mutex>& lock, HostSource& source) noexcept;
    void serve_due(std::unique_lock<std::mutex>& lock) noexcept;
    bool is_on_thread() const noexcept { return worker_.is_running() && pthread_equal(thread_, pthread_self()); }
    bool is_listed(const HostSource& source) const noexcept;

    std::mutex mutex_;
    std::condition_variable called_;  // a call has returned
    HostSource* first_ = nullptr;
    HostSource* calling_ = nullptr;
    std::uint32_t round_ = 0;  // of calls whose time has come
    std::uint32_t turn_ = 0;   // which thread it is that waits
    bool is_waiting_ = false;
    pthread_t thread_{};
    Worker worker_{"zr-host"};
    HostFd wake_;
};

namespace {

// Never destroyed: the thread may run as long as the process.
alignas(HostEvents) unsigned char events_storage[sizeof(HostEvents)];
HostEvents& events = *new (events_storage) HostEvents;

}  // namespace

DWORD HostEvents::add(HostSource& source, int descriptor) noexcept {
    const std::lock_guard guard(mutex_);
    if (!worker_.is_running()) {
        if (const DWORD error = start()) return error;
    }
    source.descriptor_ = descriptor;
    if (!is_listed(source)) {
        source.next_ = first_;
        first_ = &source;
    }
    wake();
    return ERROR_SUCCESS;
}

void HostEvents::remove(HostSource& source) noexcept {
    std::unique_lock guard(mutex_);
    for (HostSource** link = &first_; *link; link = &(*link)->next_) {
        if (*link != &source) continue;
        *link = source.next_;
        break;
    }
    source.descriptor_ = -1;
    source.due_ = INT64_MAX;
    if (is_on_thread()) return;
    wake();
    called_.wait(guard, [&] { return calling_ != &source; });
}

void HostEvents::call(HostSource& source, Deadline when) noexcept {
    const std::lock_guard guard(mutex_);
    if (!is_listed(source)) return;
    source.due_ = when.ns;
    if (!is_on_thread()) wake();
}

DWORD HostEvents::start() noexcept {
    if (!wake_) make_wake();
    if (!wake_) return error_from_errno(errno);
    const auto body = [](void* self) { static_cast<HostEvents*>(self)->run(); };
    return worker_.start(body, this) ? ERROR_SUCCESS : ERROR_NOT_ENOUGH_MEMORY;
}

void HostEvents::make_wake() noexcept {
    wake_ = HostFd(above_standard(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
    if (wake_) mark_file(wake_.get(), kWakeMark);
}

// The program closed it, and who knows what else: each source looks after its own. The number may be the program's by
// now.
void HostEvents::replace_wake() noexcept {
    static_cast<void>(wake_.detach());
    make_wake();
    for (HostSource* each = first_; each; each = each->next_) {
        each->due_ = Deadline::at_once().ns;
    }
}

bool HostEvents::has_wake() const noexcept {
    return wake_ && has_mark(wake_.get(), kWakeMark);
}

// In a program that closed all descriptors it found the thread sleeps on files that nobody can reach any more. Another
// one takes its turn, and it ends should it ever wake.
void HostEvents::wake() noexcept {
    if (!worker_.is_running()) return;
    if (has_wake()) {
        eventfd_write(wake_.get(), 1);
        return;
    }
    replace_wake();
    if (!is_waiting_ || !wake_) return;
    is_waiting_ = false;
    ++turn_;
    worker_.abandon();
    start();
}

bool HostEvents::is_listed(const HostSource& source) const noexcept {
    const HostSource* each = first_;
    while (each && each != &source) {
        each = each->next_;
    }
    return each != nullptr;
}

std::size_t HostEvents::list(pollfd* files, HostSource** sources) noexcept {
    files[0] = {wake_.get(), POLLIN, 0};
    std::size_t count = 1;
    for (HostSource* each = first_; each && count <= kMost; each = each->next_) {
        if (each->descriptor_ < 0) continue;
        sources[count] = each;
        files[count++] = {each->descriptor_, POLLIN, 0};
    }
    return count;
}

// Until a file is readable or a source's time has come.
int HostEvents::wait(std::unique_lock<std::mutex>& lock, pollfd* files, std::size_t count) noexcept {
    std::int64_t due = INT64_MAX;
    for (const HostSource* each = first_; each; each = each->next_) {
        due = std::min(due, each->due_);
    }
    int milliseconds = -1;
    if (due != INT64_MAX) {
        const std::int64_t now = Deadline::now();
        const std::int64_t left = (std::max(due, now) - now + 999'999) / 1'000'000;
        milliseconds = static_cast<int>(std::min<std::int64_t>(left, INT32_MAX));
    }
    is_waiting_ = true;
    lock.unlock();
    const int ready = poll(files, count, milliseconds);
    lock.lock();
    return ready;
}

void HostEvents::take_wakes(short what) noexcept {
    eventfd_t count = 0;
    if ((what & POLLIN) != 0) eventfd_read(wake_.get(), &count);
    if ((what & POLLNVAL) == 0) return;
    replace_wake();
}

void HostEvents::serve(std::unique_lock<std::mutex>& lock, HostSource& source) noexcept {
    calling_ = &source;
    lock.unlock();
    source.ready();
    lock.lock();
    calling_ = nullptr;
    called_.notify_all();
}

void HostEvents::serve_due(std::unique_lock<std::mutex>& lock) noexcept {
    ++round_;
    const std::int64_t now = Deadline::now();
    for (HostSource* each = first_; each;) {
        if (each->due_ > now || each->round_ == round_) {
            each = each->next_;
            continue;
        }
        each->round_ = round_;
        each->due_ = INT64_MAX;
        serve(lock, *each);
        each = first_;  // the list may be another one
    }
}

void HostEvents::run() noexcept {
    std::unique_lock lock(mutex_);
    thread_ = pthread_self();
    const std::uint32_t turn = turn_;
    while (first_) {
        pollfd files[kMost + 1];
        HostSource* sources[kMost + 1];
        const std::size_t count = list(files, sources);
        const int ready = wait(lock, files, count);
        if (turn != turn_) return Worker::end_abandoned();
        is_waiting_ = false;
        if (ready > 0) take_wakes(files[0].revents);
        for (std::size_t i = 1; ready > 0 && i < count; ++i) {
            // Another call may have taken the source off meanwhile, or given it another descriptor.
            const bool same = is_listed(*sources[i]) && sources[i]->descriptor_ == files[i].fd;
            if (!same || files[i].revents == 0) continue;
            // The program closed it. The number may be another file's by now, which the source finds out.
            const bool closed = (files[i].revents & POLLNVAL) != 0 && fcntl(files[i].fd, F_GETFD) < 0;
            if (closed) sources[i]->descriptor_ = -1;
            serve(lock, *sources[i]);
        }
        serve_due(lock);
    }
    worker_.leave();
    wake_ = HostFd();
}

void HostEvents::begin_child() noexcept {
    while (first_) {
        first_->descriptor_ = -1;
        first_->due_ = INT64_MAX;
        first_ = first_->next_;
    }
    calling_ = nullptr;
    is_waiting_ = false;
    wake_ = HostFd();
    new (&called_) std::condition_variable;  // those who waited are not here
}

DWORD watch_host(HostSource& source, int descriptor) noexcept {
    return events.add(source, descriptor);
}

void unwatch_host(HostSource& source) noexcept {
    events.remove(source);
}

void call_host_source(HostSource& source, Deadline when) noexcept {
    events.call(source, when);
}

void at_fork::lock_host_events() noexcept {
    events.lock();
}

void at_fork::unlock_host_events() noexcept {
    events.unlock();
}

void at_fork::forget_host_events() noexcept {
    events.begin_child();
}

}  // namespace zr::platform
