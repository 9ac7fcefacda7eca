#include "thread_start.h"

#include <pthread.h>

#include <algorithm>
#include <memory>
#include <new>

#include "engine.h"
#include "platform/kernel.h"
#include "process.h"

namespace zr::platform {
namespace {

constexpr SIZE_T kLeastStack = 256 * 1024;

// In a frame of its own, without anything that needs a destructor: an early end jumps to it.
[[gnu::noinline]] void run(Thread& self, ThreadStart& start) {
    start.base_frame = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    if (setjmp(start.base) != 0) return;
    if (const Ref<Event>& gate = ThreadAccess::gate(self)) wait(*gate, Deadline::never());
    cancellation_point();
    ThreadAccess::set_exit_code(self, start.routine(start.parameter));
}

void* thread_main(void* record) {
    Thread& self = *static_cast<Thread*>(record);
    ThreadAccess::enter(self);
    ThreadAccess::begin_priority(self);
    ThreadStart* start = ThreadAccess::start(self);
    run(self, *start);
    ThreadAccess::start(self) = nullptr;
    delete start;
    ThreadAccess::finish(self);
    return nullptr;
}

bool start_posix_thread(Thread& thread, SIZE_T stack_size) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) return false;
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    const SIZE_T page = static_cast<SIZE_T>(sysconf(_SC_PAGESIZE));
    bool sized = true;
    if (stack_size != 0) {
        const SIZE_T wanted = std::max(stack_size, kLeastStack);
        const SIZE_T rounded = (wanted + page - 1) & ~(page - 1);
        sized = rounded >= wanted && pthread_attr_setstacksize(&attributes, rounded) == 0;
    }
    thread.add_ref();  // the running thread's own
    pthread_t made{};
    const bool started = sized && pthread_create(&made, &attributes, thread_main, &thread) == 0;
    pthread_attr_destroy(&attributes);
    if (!started) thread.release();
    return started;
}

// The record with all that the thread needs to run; empty without memory.
Ref<Thread> prepare(LPTHREAD_START_ROUTINE routine, LPVOID parameter, bool suspended) {
    Ref<Thread> thread = Ref<Thread>::adopt(ThreadAccess::make());
    std::unique_ptr<ThreadStart> start(new (std::nothrow) ThreadStart);
    if (!thread || !start) return {};
    if (suspended) {
        ThreadAccess::gate(*thread) = Ref<Event>::adopt(new (std::nothrow) Event(true, false));
        if (!ThreadAccess::gate(*thread)) return {};
        ThreadAccess::suspended(*thread).store(true);
    }
    start->routine = routine;
    start->parameter = parameter;
    ThreadAccess::start(*thread) = start.release();
    return thread;
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

HANDLE CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T stack_size, LPTHREAD_START_ROUTINE start, LPVOID parameter,
                    DWORD flags, DWORD* id) {
    cancellation_point();
    if (!start || (flags & ~(CREATE_SUSPENDED | STACK_SIZE_PARAM_IS_A_RESERVATION)) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    const Ref<Thread> thread = prepare(start, parameter, (flags & CREATE_SUSPENDED) != 0);
    if (!thread) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    const HANDLE handle = open_handle(*thread);
    if (handle && start_posix_thread(*thread, stack_size)) {
        if (id) *id = ThreadAccess::wait_for_id(*thread);
        return handle;
    }
    delete ThreadAccess::start(*thread);
    if (handle) {
        close_handle(handle);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return nullptr;
}

DWORD ResumeThread(HANDLE handle) {
    cancellation_point();
    const Pinned<Thread> thread = lookup<Thread>(handle);
    if (!thread) return 0xFFFFFFFF;
    if (!ThreadAccess::suspended(*thread).exchange(false)) return 0;
    ThreadAccess::gate(*thread)->set();
    return 1;
}

BOOL GetExitCodeThread(HANDLE handle, DWORD* exit_code) {
    cancellation_point();
    if (!exit_code) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (const Pinned<MainThread> other{Pin(handle)}) {
        *exit_code = other->exit_code();
        return TRUE;
    }
    const Pinned<Thread> thread = lookup<Thread>(handle);
    if (!thread) return FALSE;
    *exit_code = thread->exit_code();
    return TRUE;
}
