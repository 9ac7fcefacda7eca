#include "process.h"

#include <poll.h>
#include <signal.h>
#include <sys/auxv.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <mutex>
#include <new>
#include <utility>

#include "base/fail.h"
#include "base/forks.h"
#include "base/host_error.h"
#include "futex.h"
#include "kernel/child_process.h"
#include "kernel/host_events.h"
#include "kernel/thread.h"
#include "platform/base.h"
#include "platform/kernel.h"

namespace zr::platform {
namespace {

class Process final : public Waitable {
public:
    Process() noexcept : Waitable(ObjectKind::Process) {}

protected:
    ~Process() override = default;
    bool is_signalled(const Thread&) const noexcept override { return false; }
};

// Never destroyed: threads may ask while the process exits.
alignas(Process) std::byte room[sizeof(Process)];
Process& own_process = *new (room) Process;

HostFd open_process(pid_t id) noexcept {
    return HostFd(above_standard(static_cast<int>(syscall(SYS_pidfd_open, id, 0))));
}

int send_signal(const HostFd& host, int signal) noexcept {
    return static_cast<int>(syscall(SYS_pidfd_send_signal, host.get(), signal, nullptr, 0));
}

DWORD process_error(int number) noexcept {
    if (number == ESRCH || number == EINVAL) return ERROR_INVALID_PARAMETER;  // no process has that number
    return number == ENOSYS ? ERROR_NOT_SUPPORTED : error_from_errno(number);
}

}  // namespace

Waitable& this_process() noexcept {
    return own_process;
}

// All processes that there are objects of. One list of the host's tells which have ended, however many there are; it is
// there while one is watched.
class ProcessWatch final : public HostSource {
public:
    static ProcessWatch& get() noexcept;

    Ref<OtherProcess> make(pid_t id, HostFd host, Ref<MainThread> thread, DWORD& error) noexcept;
    Ref<OtherProcess> open(pid_t id, DWORD access, DWORD& error) noexcept;
    // It has ended: unless that is known by now, makes it known.
    void end(OtherProcess& process) noexcept;
    void remove(OtherProcess& process) noexcept;

    // At a fork.
    void lock() noexcept { lock_.lock(); }
    void unlock() noexcept { lock_.unlock(); }
    void forget() noexcept;
    void resume() noexcept;

protected:
    void ready() noexcept override;

private:
    // With the lock held.
    DWORD begin() noexcept;
    DWORD watch(OtherProcess& process) noexcept;
    void watch_all() noexcept;
    Ref<OtherProcess> find(pid_t id, bool over) noexcept;
    void add(OtherProcess& process) noexcept;
    void finish(OtherProcess& process) noexcept;

    // One that has ended and that nobody has made known: it has a reference that is the caller's now. NULL: none.
    OtherProcess* take_ended() noexcept;

    FutexLock lock_;
    OtherProcess* first_ = nullptr;
    std::size_t watched_ = 0;  // how many
    HostFd ends_;              // the host's list of them
};

namespace {

alignas(ProcessWatch) std::byte watch_room[sizeof(ProcessWatch)];
ProcessWatch& the_watch = *new (watch_room) ProcessWatch;

}  // namespace

ProcessWatch& ProcessWatch::get() noexcept {
    return the_watch;
}

DWORD ProcessWatch::begin() noexcept {
    if (ends_) return ERROR_SUCCESS;
    ends_ = HostFd(above_standard(epoll_create1(EPOLL_CLOEXEC)));
    const DWORD error = ends_ ? watch_host(*this, ends_.get()) : error_from_errno(errno);
    if (error != ERROR_SUCCESS) ends_ = HostFd();
    return error;
}

DWORD ProcessWatch::watch(OtherProcess& process) noexcept {
    if (const DWORD error = begin()) return error;
    epoll_event what{};
    what.events = EPOLLIN;
    what.data.ptr = &process;
    if (epoll_ctl(ends_.get(), EPOLL_CTL_ADD, process.host_.get(), &what) != 0) {
        const DWORD error = error_from_errno(errno);
        if (watched_ == 0) call_host_source(*this, Deadline::at_once());  // there is no need of the list
        return error;
    }
    if (!process.is_watched_) {
        process.add_ref();
        ++watched_;
    }
    process.is_watched_ = true;
    return ERROR_SUCCESS;
}

void ProcessWatch::watch_all() noexcept {
    for (OtherProcess* process = first_; process; process = process->next_) {
        if (process->is_watched_) watch(*process);
    }
}

Ref<OtherProcess> ProcessWatch::find(pid_t id, bool over) noexcept {
    for (OtherProcess* process = first_; process; process = process->next_) {
        if (process->id_ == id && process->is_over() == over && (!over || process->has_handle()) &&
            process->try_add_ref()) {
            return Ref<OtherProcess>::adopt(process);
        }
    }
    return {};
}

void ProcessWatch::add(OtherProcess& process) noexcept {
    process.next_ = first_;
    if (first_) first_->previous_ = &process;
    first_ = &process;
}

void ProcessWatch::remove(OtherProcess& process) noexcept {
    const std::lock_guard guard(lock_);
    if (!process.previous_ && first_ != &process) return;
    (process.previous_ ? process.previous_->next_ : first_) = process.next_;
    if (process.next_) process.next_->previous_ = process.previous_;
}

// Empty with the error.
Ref<OtherProcess> ProcessWatch::make(pid_t id, HostFd host, Ref<MainThread> thread, DWORD& error) noexcept {
    const bool is_child = static_cast<bool>(thread);
    auto made = Ref<OtherProcess>::adopt(new (std::nothrow) OtherProcess(id, std::move(host), is_child));
    if (!made) {
        error = ERROR_NOT_ENOUGH_MEMORY;
        return {};
    }
    made->thread_ = std::move(thread);
    {
        const std::lock_guard guard(lock_);
        error = watch(*made);
        if (error == ERROR_SUCCESS) add(*made);
    }
    if (error != ERROR_SUCCESS) made = {};
    return made;
}

// One that has ended counts as long as somebody has a handle to it, and its number is nobody else's.
Ref<OtherProcess> ProcessWatch::open(pid_t id, DWORD access, DWORD& error) noexcept {
    Ref<OtherProcess> found;
    {
        const std::lock_guard guard(lock_);
        found = find(id, false);
    }
    if (!found) {
        HostFd host = open_process(id);
        if (host) {
            found = make(id, std::move(host), {}, error);
        } else {
            error = process_error(errno);
            const std::lock_guard guard(lock_);
            found = find(id, true);
        }
        if (!found) return {};
    }
    error = ERROR_SUCCESS;
    if ((access & PROCESS_TERMINATE) != 0 && send_signal(found->host_, 0) != 0 && errno == EPERM) {
        error = ERROR_ACCESS_DENIED;
        found = {};
    }
    return found;
}

void ProcessWatch::finish(OtherProcess& process) noexcept {
    process.end();
    epoll_ctl(ends_.get(), EPOLL_CTL_DEL, process.host_.get(), nullptr);
    process.is_watched_ = false;
    --watched_;
}

void ProcessWatch::end(OtherProcess& process) noexcept {
    {
        const std::lock_guard guard(lock_);
        if (!process.is_watched_) return;
        finish(process);
    }
    process.release();
}

OtherProcess* ProcessWatch::take_ended() noexcept {
    const std::lock_guard guard(lock_);
    epoll_event ended{};
    const int count = ends_ ? epoll_wait(ends_.get(), &ended, 1, 0) : 0;
    OtherProcess* process = count == 1 ? first_ : nullptr;
    while (process && process != ended.data.ptr) {
        process = process->next_;
    }
    if (process) {
        finish(*process);
        return process;
    }
    // The program closed the list, or a descriptor in it.
    if (count < 0) static_cast<void>(ends_.detach());
    if (count != 0) ends_ = HostFd();
    if (watched_ == 0) {
        unwatch_host(*this);
        ends_ = HostFd();
    } else if (!ends_) {
        watch_all();
    }
    return nullptr;
}

void ProcessWatch::ready() noexcept {
    while (OtherProcess* const process = take_ended()) {
        process->release();
    }
}

// In the child: the list is the parent's, too.
void ProcessWatch::forget() noexcept {
    if (ends_) ends_.close();
}

void ProcessWatch::resume() noexcept {
    const std::lock_guard guard(lock_);
    if (!ends_) watch_all();
}

OtherProcess::OtherProcess(pid_t id, HostFd host, bool is_child) noexcept
    : Event(true, false, kKind), id_(id), host_(std::move(host)), is_child_(is_child), generation_(fork_generation()) {}

OtherProcess::~OtherProcess() {
    ProcessWatch::get().remove(*this);
}

bool OtherProcess::is_over() const noexcept {
    pollfd ended{host_.get(), POLLIN, 0};
    return is_set() || (poll(&ended, 1, 0) == 1 && (ended.revents & POLLIN) != 0);
}

// Who has ended by now counts, whether or not the host's thread has been told.
Waitable::Attempt OtherProcess::try_acquire(Thread& self) noexcept {
    if (!is_set() && is_over()) ProcessWatch::get().end(*this);
    return Event::try_acquire(self);
}

// What the host says, or who ended it; else nobody knows.
void OtherProcess::end() noexcept {
    siginfo_t how{};
    int result = -1;
    if (is_child_ && generation_ == fork_generation()) {
        do {
            result = waitid(P_PIDFD, static_cast<id_t>(host_.get()), &how, WEXITED);
        } while (result != 0 && errno == EINTR);
    }
    const std::uint64_t requested = requested_.load();
    DWORD code = ERROR_PROCESS_ABORTED;
    if (result == 0 && how.si_code == CLD_EXITED) {
        code = static_cast<DWORD>(how.si_status);
    } else if (requested != 0) {
        code = static_cast<DWORD>(requested);
    } else if (result != 0) {
        is_known_.store(false);
    }
    exit_code_.store(code);
    if (thread_) thread_->end(code);
    set();
}

bool OtherProcess::exit_code(DWORD& code) const noexcept {
    code = is_set() ? exit_code_.load() : STILL_ACTIVE;
    return !is_set() || is_known_.load();
}

DWORD OtherProcess::terminate(DWORD code) noexcept {
    if (is_over()) return ERROR_ACCESS_DENIED;
    std::uint64_t none = 0;
    const bool first = requested_.compare_exchange_strong(none, kRequested | code);
    if (send_signal(host_, SIGKILL) == 0) return ERROR_SUCCESS;
    if (first) requested_.store(0);
    return ERROR_ACCESS_DENIED;
}

DWORD adopt_child(pid_t child, ChildHandles& handles) noexcept {
    HostFd host = open_process(child);
    if (!host) return process_error(errno);
    auto thread = Ref<MainThread>::adopt(new (std::nothrow) MainThread(static_cast<DWORD>(child)));
    if (!thread) return ERROR_NOT_ENOUGH_MEMORY;
    DWORD error = ERROR_SUCCESS;
    const Ref<OtherProcess> process = ProcessWatch::get().make(child, std::move(host), thread, error);
    if (!process) return error;
    handles.process = open_handle(*process);
    handles.thread = handles.process ? open_handle(*thread) : nullptr;
    if (handles.thread) return ERROR_SUCCESS;
    error = GetLastError();
    if (handles.process) close_handle(std::exchange(handles.process, nullptr));
    return error;
}

void lock_processes() noexcept {
    the_watch.lock();
}

void unlock_processes() noexcept {
    the_watch.unlock();
}

void forget_process_watch() noexcept {
    the_watch.forget();
}

void resume_process_watch() noexcept {
    the_watch.resume();
}

namespace {

// Calls use(process) for another process, own() for this one.
template <class Own, class Use>
DWORD with_process(HANDLE handle, Own own, Use use) noexcept {
    const Pin pin(handle);
    if (!pin || pin.object()->kind() != ObjectKind::Process) return ERROR_INVALID_HANDLE;
    return pin.object() == &this_process() ? own() : use(*static_cast<OtherProcess*>(pin.object()));
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

HANDLE OpenProcess(DWORD access, BOOL, DWORD id) {
    cancellation_point();
    if (id == GetCurrentProcessId()) return open_handle(this_process());
    DWORD error = ERROR_INVALID_PARAMETER;
    if (id != 0 && id <= static_cast<DWORD>(INT_MAX)) {
        const Ref<OtherProcess> process = ProcessWatch::get().open(static_cast<pid_t>(id), access, error);
        if (process) return open_handle(*process);
    }
    SetLastError(error);
    return nullptr;
}

BOOL GetExitCodeProcess(HANDLE handle, DWORD* exit_code) {
    cancellation_point();
    if (!exit_code) return fail(ERROR_INVALID_PARAMETER, FALSE);
    DWORD code = STILL_ACTIVE;
    const DWORD error = with_process(
        handle, [] { return DWORD{ERROR_SUCCESS}; },
        [&](const OtherProcess& other) { return other.exit_code(code) ? ERROR_SUCCESS : ERROR_NOT_SUPPORTED; });
    if (error != ERROR_SUCCESS) return fail(error, FALSE);
    *exit_code = code;
    return TRUE;
}

BOOL TerminateProcess(HANDLE handle, UINT exit_code) {
    cancellation_point();
    const DWORD error = with_process(
        handle, [exit_code]() -> DWORD { _exit(static_cast<int>(exit_code)); },
        [exit_code](OtherProcess& other) { return other.terminate(exit_code); });
    return error == ERROR_SUCCESS ? TRUE : fail(error, FALSE);
}

void ExitProcess(UINT exit_code) {
    exit(static_cast<int>(exit_code));
}

DWORD GetProcessId(HANDLE handle) {
    DWORD id = 0;
    const DWORD error = with_process(
        handle,
        [&] {
            id = GetCurrentProcessId();
            return DWORD{ERROR_SUCCESS};
        },
        [&](const OtherProcess& other) {
            id = other.id();
            return DWORD{ERROR_SUCCESS};
        });
    if (error != ERROR_SUCCESS) SetLastError(error);
    return id;
}

DWORD GetCurrentProcessId() {
    return static_cast<DWORD>(getpid());
}

HANDLE GetCurrentProcess() {
    return reinterpret_cast<HANDLE>(ULONG_PTR{66});
}

HMODULE GetModuleHandleW(LPCWSTR name) {
    if (name) {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    // Where the program is loaded: its headers begin on the first page.
    const ULONG_PTR headers = getauxval(AT_PHDR);
    return reinterpret_cast<HMODULE>(headers & ~(static_cast<ULONG_PTR>(sysconf(_SC_PAGESIZE)) - 1));
}
