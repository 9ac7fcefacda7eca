// Priorities of threads: the host's nice values, where what is lowered can be raised again.

#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "engine.h"
#include "platform/kernel.h"
#include "process.h"

namespace zr::platform {
namespace {

constexpr int kNice[] = {-15, -10, -5, 0, 5, 10, 15, 19};  // beside the process's own, by priority
constexpr int kNicest = -20;
constexpr int kLeastNice = 19;

std::atomic<bool> priorities_used{false};

int usual_nice() noexcept {
    static const int usual = getpriority(PRIO_PROCESS, static_cast<id_t>(getpid()));
    return usual;
}

bool has_capability() noexcept {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3]{};
    return syscall(SYS_capget, &header, data) == 0 && (data[0].effective & 1u << CAP_SYS_NICE) != 0;
}

// Whether the host lets this process have the nice value.
bool may_have(int nice) noexcept {
    rlimit limit{};
    if (getrlimit(RLIMIT_NICE, &limit) == 0 && static_cast<rlim_t>(20 - nice) <= limit.rlim_cur) return true;
    return has_capability();
}

void tell_host(DWORD thread, int priority) noexcept {
    if (!may_have(usual_nice())) return;
    int nice = std::clamp(usual_nice() + kNice[priority], kNicest, kLeastNice);
    while (nice < usual_nice() && !may_have(nice)) {
        ++nice;
    }
    setpriority(PRIO_PROCESS, static_cast<id_t>(thread), nice);
}

}  // namespace

// The host gives a thread its maker's nice value.
void ThreadAccess::begin_priority(Thread& self) noexcept {
    if (priorities_used.load(std::memory_order_relaxed)) tell_host(self.id(), self.priority_.load());
}

void ThreadAccess::set_priority(Thread& thread, int priority) noexcept {
    usual_nice();  // as it is before anything is changed
    priorities_used.store(true, std::memory_order_relaxed);
    thread.priority_.store(priority);
    wait_for_id(thread);
    while_running(thread, [](const Thread& running) { tell_host(running.id(), running.priority_.load()); });
}

}  // namespace zr::platform

using namespace zr::platform;

BOOL SetThreadPriority(HANDLE handle, int priority) {
    cancellation_point();
    const Pinned<Thread> thread = lookup<Thread>(handle);
    if (!thread) return FALSE;
    if (priority < THREAD_PRIORITY_TIME_CRITICAL || priority > THREAD_PRIORITY_IDLE) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    ThreadAccess::set_priority(*thread, priority);
    return TRUE;
}

int GetThreadPriority(HANDLE handle) {
    const Pinned<Thread> thread = lookup<Thread>(handle);
    return thread ? ThreadAccess::priority(*thread) : THREAD_PRIORITY_ERROR_RETURN;
}

DWORD GetThreadId(HANDLE handle) {
    if (const Pinned<MainThread> other{Pin(handle)}) return other->id();
    const Pinned<Thread> thread = lookup<Thread>(handle);
    return thread ? ThreadAccess::wait_for_id(*thread) : 0;
}
