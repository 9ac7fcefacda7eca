#include "kernel/host_events.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

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
    static constexpr int kWakeMark = 1;

    // What a thread waits for: the wake's file first.
    struct Table {
        explicit Table(std::size_t most) : files(most + 1), sources(most + 1) {}
        std::vector<pollfd> files;
        std::vector<HostSource*> sources;
        std::size_t count = 0;
    };

    DWORD start() noexcept;
    bool make_room(std::size_t sources) noexcept;
    void wake() noexcept;
    void make_wake() noexcept;
    void replace_wake() noexcept;
    bool has_wake() const noexcept;
    void run() noexcept;
    int wait(std::unique_lock<std::mutex>& lock, Table& table) noexcept;
    void list(Table& table) noexcept;
    void take_wakes(short what) noexcept;
    void serve(std::unique_lock<std::mutex>& lock, HostSource& source) noexcept;
    void serve_due(std::unique_lock<std::mutex>& lock) noexcept;
    bool is_on_thread() const noexcept { return worker_.is_running() && pthread_equal(thread_, pthread_self()); }
    bool is_listed(const HostSource& source) const noexcept;

    std::mutex mutex_;
    std::condition_variable called_;  // a call has returned
    HostSource* first_ = nullptr;
    HostSource* calling_ = nullptr;
    std::size_t sources_ = 0;            // that are listed
    std::size_t most_ = 0;               // that the thread's table has room for
    std::unique_ptr<Table> table_;       // the thread's
    std::unique_ptr<Table> next_table_;  // for the thread to take: it may be waiting with the one before
    std::uint32_t round_ = 0;            // of calls whose time has come
    std::uint32_t turn_ = 0;             // which thread it is that waits
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
    if (!is_listed(source)) {
        if (!make_room(sources_ + 1)) return ERROR_NOT_ENOUGH_MEMORY;
        source.next_ = first_;
        first_ = &source;
        ++sources_;
    }
    source.descriptor_ = descriptor;
    wake();
    return ERROR_SUCCESS;
}

void HostEvents::remove(HostSource& source) noexcept {
    std::unique_lock guard(mutex_);
    for (HostSource** link = &first_; *link; link = &(*link)->next_) {
        if (*link != &source) continue;
        *link = source.next_;
        --sources_;
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
    most_ = 0;  // the table is another thread's
    if (!make_room(sources_ + 1)) return ERROR_NOT_ENOUGH_MEMORY;
    const auto body = [](void* self) { static_cast<HostEvents*>(self)->run(); };
    return worker_.start(body, this) ? ERROR_SUCCESS : ERROR_NOT_ENOUGH_MEMORY;
}

bool HostEvents::make_room(std::size_t sources) noexcept {
    if (sources <= most_) return true;
    const std::size_t most = std::max<std::size_t>(16, sources * 2);
    try {
        next_table_ = std::make_unique<Table>(most);
    } catch (const std::bad_alloc&) {
        return false;
    }
    most_ = most;
    return true;
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
    static_cast<void>(table_.release());  // the thread's, as long as it sleeps
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

void HostEvents::list(Table& table) noexcept {
    table.files[0] = {wake_.get(), POLLIN, 0};
    table.count = 1;
    for (HostSource* each = first_; each; each = each->next_) {
        if (each->descriptor_ < 0) continue;
        table.sources[table.count] = each;
        table.files[table.count++] = {each->descriptor_, POLLIN, 0};
    }
}

// Until a file is readable or a source's time has come.
int HostEvents::wait(std::unique_lock<std::mutex>& lock, Table& table) noexcept {
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
    const int ready = poll(table.files.data(), table.count, milliseconds);
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
        if (next_table_) table_ = std::move(next_table_);
        Table* const table = table_.get();
        list(*table);
        const int ready = wait(lock, *table);
        if (turn != turn_) {
            delete table;
            return Worker::end_abandoned();
        }
        is_waiting_ = false;
        if (ready > 0) take_wakes(table->files[0].revents);
        for (std::size_t i = 1; ready > 0 && i < table->count; ++i) {
            const pollfd& file = table->files[i];
            HostSource& source = *table->sources[i];
            // Another call may have taken the source off meanwhile, or given it another descriptor.
            const bool same = is_listed(source) && source.descriptor_ == file.fd;
            if (!same || file.revents == 0) continue;
            // The program closed it. The number may be another file's by now, which the source finds out.
            const bool closed = (file.revents & POLLNVAL) != 0 && fcntl(file.fd, F_GETFD) < 0;
            if (closed) source.descriptor_ = -1;
            serve(lock, source);
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
    sources_ = 0;
    table_.reset();
    next_table_.reset();
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
