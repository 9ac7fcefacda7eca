// How a thread ends before its routine returns.
//
// The stack is unwound, so that everything on it that has a destructor gives back what it holds. Two things on it could
// spoil that. A catch (...) could swallow the end: so before each frame is unwound its exception table is asked, in the
// way a throw asks it, whether it would stop an exception. And a function declared noexcept (every destructor is one)
// calls std::terminate when it is unwound, which its table tells only sometimes: so a terminate handler knows the
// threads that are being unwound. In both cases the rest of the stack is cut off, by a jump to the thread's first
// frame. A thread that CreateThread did not make has no such frame: it ends by pthread_exit where nothing stands in the
// way, and is otherwise taken off the processor where it is.

#include <pthread.h>
#include <sys/mman.h>
#include <ucontext.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

#include "arm_frames.h"
#include "at_fork.h"
#include "engine.h"
#include "platform/kernel.h"
#include "thread_start.h"

#if !defined(__ARM_EABI_UNWINDER__)
extern "C" _Unwind_Reason_Code __gxx_personality_v0(int version, _Unwind_Action actions,
                                                    _Unwind_Exception_Class exception_class,
                                                    _Unwind_Exception* exception, _Unwind_Context* context);
#endif

// Present in programs built with the address sanitizer: forgets what it knows of the calling thread's stack.
extern "C" [[gnu::weak]] void __asan_handle_no_return();

namespace zr::platform {
namespace {

#if !defined(__ARM_EABI_UNWINDER__)

constexpr _Unwind_Exception_Class kThreadEnd = 0x5A52544852454144;  // "ZRTHREAD"

void name_end(_Unwind_Exception& exception) noexcept {
    exception = {};
    exception.exception_class = kThreadEnd;
}

bool would_stop(_Unwind_Context* context, _Unwind_Exception* exception) noexcept {
    if (_Unwind_GetLanguageSpecificData(context) == nullptr) return false;
    return __gxx_personality_v0(1, _UA_SEARCH_PHASE, kThreadEnd, exception, context) == _URC_HANDLER_FOUND;
}

// What tells of the frame that a walk along the stack is at.
_Unwind_Exception* exception_at(_Unwind_Context*, _Unwind_Exception& own) noexcept {
    return &own;
}

#else

void name_end(_Unwind_Exception& exception) noexcept {
    exception = {};
    std::memcpy(exception.exception_class, "ZRTHREAD", sizeof exception.exception_class);
}

_Unwind_Exception* exception_at(_Unwind_Context* context, _Unwind_Exception&) noexcept {
    constexpr int kPointer = 12;  // the register in which the unwinder keeps it
    return reinterpret_cast<_Unwind_Exception*>(_Unwind_GetGR(context, kPointer));
}

bool would_stop(_Unwind_Context* context, const _Unwind_Exception* exception) noexcept {
    return FrameTable(*exception).stops(_Unwind_GetIP(context) - 1);
}

#endif

_Unwind_Reason_Code before_frame(int, _Unwind_Action actions, _Unwind_Exception_Class, _Unwind_Exception* exception,
                                 _Unwind_Context* context, void* argument) {
    ThreadStart& start = *static_cast<ThreadStart*>(argument);
    if ((actions & _UA_END_OF_STACK) != 0 || _Unwind_GetCFA(context) > start.base_frame ||
        would_stop(context, exception)) {
        longjmp(start.base, 1);
    }
    return _URC_NO_REASON;
}

void unwind(ThreadStart& start) {
    name_end(start.exception);
    // Destructors will run in the place of frames that never return, which the sanitizer would take for an overflow.
    if (__asan_handle_no_return) __asan_handle_no_return();
    _Unwind_ForcedUnwind(&start.exception, before_frame, &start);
}

bool stack_is_free() {
    struct Search {
        _Unwind_Exception exception;
        bool stopped;
    } search{};
    name_end(search.exception);
    _Unwind_Backtrace(
        [](_Unwind_Context* context, void* argument) {
            Search& found = *static_cast<Search*>(argument);
            found.stopped = would_stop(context, exception_at(context, found.exception));
            return found.stopped ? _URC_END_OF_STACK : _URC_NO_REASON;
        },
        &search);
    return !search.stopped;
}

// A thread's exit unwinds its stack. On another stack there is nothing that could stand in its way.
constexpr std::size_t kExitStack = 256 * 1024;
constinit thread_local void* exit_stack = nullptr;

[[noreturn]] void exit_from_empty_stack() {
    void* memory = mmap(nullptr, kExitStack, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory != MAP_FAILED) {
        exit_stack = memory;
        ucontext_t* context = new (memory) ucontext_t;
        getcontext(context);
        context->uc_stack.ss_sp = context + 1;
        context->uc_stack.ss_size = kExitStack - sizeof *context;
        context->uc_link = nullptr;
        makecontext(
            context, [] { pthread_exit(nullptr); }, 0);
        setcontext(context);
    }
    pthread_exit(nullptr);
}

std::atomic<std::terminate_handler> next_handler = nullptr;
constinit FutexLock handler_lock;

void on_terminate() {
    if (current_thread && ThreadAccess::is_unwinding(*current_thread)) ThreadAccess::cut_off(*current_thread);
    if (const std::terminate_handler next = next_handler) next();
    std::abort();
}

// The program may have put a handler of its own in front since the last time.
void watch_for_terminate() noexcept {
    const std::lock_guard guard(handler_lock);
    if (std::get_terminate() != on_terminate) next_handler = std::set_terminate(on_terminate);
}

}  // namespace

void at_fork::lock_thread_end() noexcept {
    handler_lock.lock();
}

void at_fork::unlock_thread_end() noexcept {
    handler_lock.unlock();
}

void ThreadAccess::cut_off(Thread& self) {
    if (self.start_) longjmp(self.start_->base, 1);
    exit_from_empty_stack();
}

void ThreadAccess::free_exit_stack() noexcept {
    if (exit_stack) munmap(exit_stack, kExitStack);
    exit_stack = nullptr;
}

void ThreadAccess::end_current(Thread& self, DWORD code) {
    self.code_ = code;
    self.ending_ = true;
    watch_for_terminate();
    self.unwinding_ = true;
    if (self.start_) {
        unwind(*self.start_);
    } else if (stack_is_free()) {
        pthread_exit(nullptr);
    }
    cut_off(self);
}

}  // namespace zr::platform

using namespace zr::platform;

void ExitThread(DWORD exit_code) {
    ThreadAccess::end_current(ThreadAccess::current(), exit_code);
}

BOOL TerminateThread(HANDLE handle, DWORD exit_code) {
    cancellation_point();
    Thread& self = ThreadAccess::current();
    {
        const Pinned<Thread> thread = lookup<Thread>(handle);
        if (!thread) return FALSE;
        if (thread.get() != &self) {
            ThreadAccess::request_end(*thread, exit_code);
            return TRUE;
        }
    }
    ThreadAccess::end_current(self, exit_code);
}
