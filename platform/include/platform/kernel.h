#pragma once

// Handles, events, mutexes, semaphores, timers, critical sections, threads, processes and waits.
//
// Handles. A function that takes a handle fails with ERROR_INVALID_HANDLE when the value is not an open handle of the
// right kind: closed, of another kind, or never a handle. A handle is closed with CloseHandle; the object lives until
// its last handle is closed and nothing uses it any more. Closing a handle while a thread waits on it leaves that wait
// as it is. All functions may be called from any thread, also from threads that CreateThread did not make.
//
// Names. Events, mutexes, semaphores, timers and file mappings (platform/mapping.h) may have a name, by which every
// process of the user reaches the same object. A name is any text of any length, told apart by every unit of it; NULL
// and the empty text are no name. All kinds share one set of names. Who creates an object under a name that is taken
// gets a handle to the object that is there, and ERROR_ALREADY_EXISTS as the last error; a name of another kind is
// ERROR_INVALID_HANDLE. A creation that succeeds otherwise leaves ERROR_SUCCESS. An object has its name as long as some
// process has a handle to it, however that process ends; then the next creator finds it fresh. Named objects need the
// runtime directory: where it cannot be used their creation fails with the host's error (ERROR_DISK_FULL,
// ERROR_ACCESS_DENIED, ...), where too many processes or objects are there already with ERROR_NOT_ENOUGH_MEMORY.
// Handles to named objects do not pass to a forked child.
//
// Ended threads. TerminateThread ends its target at the target's next call of the platform; a wait ends at once. Every
// function here is such a point except those that give something back (ReleaseMutex, ReleaseSemaphore,
// LeaveCriticalSection, DeleteCriticalSection, CloseHandle, TlsFree) and those that only report (GetLastError, the
// clock, identifiers).

#include "platform/base.h"
#include "platform/errors.h"
#include "platform/export.h"
#include "platform/mapping.h"
#include "platform/memory.h"
#include "platform/types.h"

inline constexpr DWORD MAXIMUM_WAIT_OBJECTS = 64;
inline constexpr DWORD STILL_ACTIVE = 259;

inline constexpr DWORD CREATE_SUSPENDED = 0x4;
inline constexpr DWORD STACK_SIZE_PARAM_IS_A_RESERVATION = 0x10000;

inline constexpr DWORD DUPLICATE_CLOSE_SOURCE = 0x1;
inline constexpr DWORD DUPLICATE_SAME_ACCESS = 0x2;

inline constexpr DWORD EVENT_PULSE = 1;
inline constexpr DWORD EVENT_RESET = 2;
inline constexpr DWORD EVENT_SET = 3;

// Rights that opening a named object asks for. Every handle has all of them.
inline constexpr DWORD SYNCHRONIZE = 0x00100000;
inline constexpr DWORD EVENT_MODIFY_STATE = 0x0002;
inline constexpr DWORD EVENT_ALL_ACCESS = 0x001F0003;
inline constexpr DWORD MUTEX_MODIFY_STATE = 0x0001;
inline constexpr DWORD MUTEX_ALL_ACCESS = 0x001F0001;
inline constexpr DWORD SEMAPHORE_MODIFY_STATE = 0x0002;
inline constexpr DWORD SEMAPHORE_ALL_ACCESS = 0x001F0003;
inline constexpr DWORD TIMER_QUERY_STATE = 0x0001;
inline constexpr DWORD TIMER_MODIFY_STATE = 0x0002;
inline constexpr DWORD TIMER_ALL_ACCESS = 0x001F0003;

inline constexpr DWORD TLS_OUT_OF_INDEXES = 0xFFFFFFFF;
inline constexpr DWORD TLS_MINIMUM_AVAILABLE = 64;

using LPTHREAD_START_ROUTINE = DWORD (*)(LPVOID parameter);

// --- Handles ---------------------------------------------------------------------------------------------------------

// Closes a handle. FALSE with ERROR_INVALID_HANDLE when it is not open. The pseudo handles need no closing: TRUE.
ZRPLATFORM_API BOOL CloseHandle(HANDLE object);

// A second handle to the same object; both processes must be this one (GetCurrentProcess()), else ERROR_NOT_SUPPORTED.
// Turns the pseudo handle of a thread into a real one. Access rights are not kept. With DUPLICATE_CLOSE_SOURCE the
// source is closed in any case. `target` may be NULL: then the source is only closed, or, where it is not to be, the
// second handle stays open, unknown to all, until the process ends.
ZRPLATFORM_API BOOL DuplicateHandle(HANDLE source_process, HANDLE source, HANDLE target_process, HANDLE* target,
                                    DWORD access, BOOL inherit, DWORD options);

// --- Events ----------------------------------------------------------------------------------------------------------

// A new event, signalled at first if `initial_state` is set. A manual-reset event stays signalled until it is reset and
// lets every waiter go; an auto-reset event lets one waiter go and is reset by that. NULL on failure:
// ERROR_NOT_ENOUGH_MEMORY, and what is said above of names. Of an event that was there already, kind and state stay as
// they are. `attributes` is not used.
ZRPLATFORM_API HANDLE CreateEventW(LPSECURITY_ATTRIBUTES attributes, BOOL manual_reset, BOOL initial_state,
                                   LPCWSTR name);
// A handle to the event of that name. NULL with ERROR_FILE_NOT_FOUND when there is none, ERROR_INVALID_HANDLE when the
// name is another kind's, ERROR_INVALID_PARAMETER without a name.
ZRPLATFORM_API HANDLE OpenEventW(DWORD access, BOOL inherit, LPCWSTR name);
ZRPLATFORM_API BOOL SetEvent(HANDLE event);
ZRPLATFORM_API BOOL ResetEvent(HANDLE event);
// Lets go those who wait at this instant (one of them for an auto-reset event), and leaves the event reset.
ZRPLATFORM_API BOOL PulseEvent(HANDLE event);
// SetEvent, ResetEvent or PulseEvent by number; another number fails with ERROR_INVALID_PARAMETER.
ZRPLATFORM_API BOOL EventModify(HANDLE event, DWORD action);

// --- Mutexes ---------------------------------------------------------------------------------------------------------

// A new mutex, owned by the caller if `initial_owner` is set. Waiting takes ownership; its owner may take it again and
// releases it as often. When the owning thread ends without releasing it, the next owner's wait says WAIT_ABANDONED.
// A named mutex that was there already is not taken, whatever `initial_owner` says; the end of the owner's whole
// process, by a kill too, counts as the end of the owner.
ZRPLATFORM_API HANDLE CreateMutexW(LPSECURITY_ATTRIBUTES attributes, BOOL initial_owner, LPCWSTR name);
// A handle to the mutex of that name; fails as OpenEventW does.
ZRPLATFORM_API HANDLE OpenMutexW(DWORD access, BOOL inherit, LPCWSTR name);
// Gives up one hold. FALSE with ERROR_NOT_OWNER when the calling thread is not the owner.
ZRPLATFORM_API BOOL ReleaseMutex(HANDLE mutex);

// --- Semaphores ------------------------------------------------------------------------------------------------------

// A new semaphore. It is signalled while it counts more than 0; a wait takes one. NULL on failure as for events, and
// ERROR_INVALID_PARAMETER unless 0 <= initial_count <= maximum_count and maximum_count > 0. A semaphore that was there
// already keeps its counts. What a process has taken when it ends is not given back.
ZRPLATFORM_API HANDLE CreateSemaphoreW(LPSECURITY_ATTRIBUTES attributes, LONG initial_count, LONG maximum_count,
                                       LPCWSTR name);
// A handle to the semaphore of that name; fails as OpenEventW does.
ZRPLATFORM_API HANDLE OpenSemaphoreW(DWORD access, BOOL inherit, LPCWSTR name);
// Adds `count`, and tells in `*before`, where that is not NULL, what it counted before. FALSE, and nothing has changed:
// ERROR_INVALID_PARAMETER (nothing to add), ERROR_TOO_MANY_POSTS (more than the maximum).
ZRPLATFORM_API BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, LONG* before);

// --- Timers ----------------------------------------------------------------------------------------------------------

// Would be called when a timer is due, by a thread that waits so that it may be; there are no such waits here.
using PTIMERAPCROUTINE = void (*)(LPVOID argument, DWORD low, DWORD high);

// A new timer, that is not set. Like an event, of either kind; being due sets it. Fails as CreateEventW does.
ZRPLATFORM_API HANDLE CreateWaitableTimerW(LPSECURITY_ATTRIBUTES attributes, BOOL manual_reset, LPCWSTR name);
ZRPLATFORM_API HANDLE OpenWaitableTimerW(DWORD access, BOOL inherit, LPCWSTR name);
// Makes the timer not signalled, and signalled when it is due: at a time of the day (a FILETIME's value, which follows
// the clock when that is set), or for a negative value after so many 100 nanoseconds of a clock that nobody sets. With
// a `period` in milliseconds it is due again and again after that; one that comes late keeps its beat. A time that has
// passed is due at once. A named timer is due whichever of the processes that have it lives then.
// `resume` wakes no machine: TRUE all the same, with ERROR_NOT_SUPPORTED as last error. FALSE: ERROR_INVALID_PARAMETER
// (no due time, a negative period), ERROR_NOT_SUPPORTED (a routine to call), ERROR_NOT_ENOUGH_MEMORY.
ZRPLATFORM_API BOOL SetWaitableTimer(HANDLE timer, const LARGE_INTEGER* due, LONG period, PTIMERAPCROUTINE routine,
                                     LPVOID argument, BOOL resume);
// The timer is not set any more; whether it is signalled stays as it is.
ZRPLATFORM_API BOOL CancelWaitableTimer(HANDLE timer);

// --- Waits -----------------------------------------------------------------------------------------------------------

// Waits until the object is signalled: an event set, a mutex free or the caller's own, a semaphore that counts more
// than 0, a timer that was due, a thread or a process ended.
// WAIT_OBJECT_0, WAIT_ABANDONED, WAIT_TIMEOUT; WAIT_FAILED with ERROR_INVALID_HANDLE. The timeout is in milliseconds of
// a clock that nobody sets; 0 only looks, INFINITE waits for ever.
ZRPLATFORM_API DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds);

// Waits for one (the result names the lowest signalled index) or for all of 1 to MAXIMUM_WAIT_OBJECTS objects. A wait
// for all takes them at one instant, and nothing before; the same object twice in it fails. WAIT_OBJECT_0 + index,
// WAIT_ABANDONED_0 + index (index 0 in a wait for all: some mutex was abandoned), WAIT_TIMEOUT; WAIT_FAILED with
// ERROR_INVALID_HANDLE or ERROR_INVALID_PARAMETER.
ZRPLATFORM_API DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL wait_all, DWORD milliseconds);

// Sleep(0) gives the processor to another thread that can run; Sleep(INFINITE) never returns.
ZRPLATFORM_API void Sleep(DWORD milliseconds);

// --- Critical sections -----------------------------------------------------------------------------------------------

// A lock for the threads of one process; its owner may enter it again. Takes no system call unless threads meet. Plain
// data: it lives where the caller puts it, must not move while it is in use, and holds nothing that needs freeing.
// A thread that ends inside leaves it locked.
struct CRITICAL_SECTION {
    DWORD LockWord;        // the owning thread, 0 when free; the top bit: others may be waiting
    DWORD RecursionCount;  // written by the owner only
};
using PCRITICAL_SECTION = CRITICAL_SECTION*;
using LPCRITICAL_SECTION = CRITICAL_SECTION*;

ZRPLATFORM_API void InitializeCriticalSection(CRITICAL_SECTION* section);
ZRPLATFORM_API void EnterCriticalSection(CRITICAL_SECTION* section);
ZRPLATFORM_API BOOL TryEnterCriticalSection(CRITICAL_SECTION* section);
// Does nothing, on this and every later count, when the caller is not the owner.
ZRPLATFORM_API void LeaveCriticalSection(CRITICAL_SECTION* section);
ZRPLATFORM_API void DeleteCriticalSection(CRITICAL_SECTION* section);

// --- Once ------------------------------------------------------------------------------------------------------------

// Something that is done once, by the first thread that comes. Plain data of one process, that holds nothing that needs
// freeing; all zero at first.
struct INIT_ONCE {
    PVOID Ptr;
    CRITICAL_SECTION Lock;
};
using PINIT_ONCE = INIT_ONCE*;
using LPINIT_ONCE = INIT_ONCE*;
inline constexpr INIT_ONCE INIT_ONCE_STATIC_INIT = {};
inline constexpr DWORD INIT_ONCE_CTX_RESERVED_BITS = 2;

// Does it: TRUE when it is done, and `*context` says what came of it: a value with the lowest
// INIT_ONCE_CTX_RESERVED_BITS bits 0.
using PINIT_ONCE_FN = BOOL (*)(PINIT_ONCE once, PVOID parameter, PVOID* context);

ZRPLATFORM_API void InitOnceInitialize(PINIT_ONCE once);
// Calls `initialise` if it has not been done yet; others wait meanwhile. TRUE when it is done, with what came of it in
// `*context` where that is not NULL. FALSE: this thread's `initialise` returned FALSE (the next caller tries again; the
// last error is left to it), or ERROR_POSSIBLE_DEADLOCK when `initialise` itself asks for it to be done, or
// ERROR_INVALID_PARAMETER for a value whose lowest bits are not 0. `initialise` and `context` may be NULL, once it is
// done.
ZRPLATFORM_API BOOL InitOnceExecuteOnce(PINIT_ONCE once, PINIT_ONCE_FN initialise, PVOID parameter, PVOID* context);

// --- Threads ---------------------------------------------------------------------------------------------------------

// Starts a thread. `stack_size` 0 takes the usual size, others are raised to a safe least one. CREATE_SUSPENDED makes
// it wait for ResumeThread. `id`, where not NULL, receives its identifier, which is known to the platform from then on.
// The thread runs on when its handle is closed. NULL on failure: ERROR_INVALID_PARAMETER without a start routine or for
// an unknown flag, ERROR_NOT_ENOUGH_MEMORY.
ZRPLATFORM_API HANDLE CreateThread(LPSECURITY_ATTRIBUTES attributes, SIZE_T stack_size, LPTHREAD_START_ROUTINE start,
                                   LPVOID parameter, DWORD flags, DWORD* id);
// Lets a thread go that was created suspended. Returns how often it was suspended before (1 or 0), 0xFFFFFFFF with
// ERROR_INVALID_HANDLE on failure. There is no SuspendThread: a thread stopped at an arbitrary place could hold a lock
// of the platform's or of the C library's, for which every other thread would wait.
ZRPLATFORM_API DWORD ResumeThread(HANDLE thread);
// Ends the calling thread. The stack is unwound as far as the code on it allows, then the thread's windows, owned
// mutexes and the like are given up and its handle is signalled.
[[noreturn]] ZRPLATFORM_API void ExitThread(DWORD exit_code);
// STILL_ACTIVE until the thread has ended.
ZRPLATFORM_API BOOL GetExitCodeThread(HANDLE thread, DWORD* exit_code);
// Makes another thread end, with this exit code, at its next call of the platform; a wait is interrupted at once. The
// thread ends as by ExitThread, so that no lock of the platform's own stays locked. Returns at once: the handle is
// signalled when the thread has ended. A thread that never calls the platform is not ended. A thread that had ended
// already keeps its exit code: TRUE. The calling thread itself: like ExitThread.
ZRPLATFORM_API BOOL TerminateThread(HANDLE thread, DWORD exit_code);

inline constexpr int THREAD_PRIORITY_TIME_CRITICAL = 0;
inline constexpr int THREAD_PRIORITY_HIGHEST = 1;
inline constexpr int THREAD_PRIORITY_ABOVE_NORMAL = 2;
inline constexpr int THREAD_PRIORITY_NORMAL = 3;
inline constexpr int THREAD_PRIORITY_BELOW_NORMAL = 4;
inline constexpr int THREAD_PRIORITY_LOWEST = 5;
inline constexpr int THREAD_PRIORITY_ABOVE_IDLE = 6;
inline constexpr int THREAD_PRIORITY_IDLE = 7;
inline constexpr int THREAD_PRIORITY_ERROR_RETURN = 0x7FFFFFFF;

// How much of the processor a thread gets beside others: one of the handheld's eight, whose numbers these are. Each is
// a nice value of the host's for the thread, where the host lets the user raise priorities (RLIMIT_NICE): else it would
// never let a lowered one be raised again, and the priority is kept and told, but nothing else comes of it. FALSE:
// ERROR_INVALID_HANDLE, ERROR_INVALID_PARAMETER (no such priority).
ZRPLATFORM_API BOOL SetThreadPriority(HANDLE thread, int priority);
// THREAD_PRIORITY_NORMAL at first; THREAD_PRIORITY_ERROR_RETURN with ERROR_INVALID_HANDLE.
ZRPLATFORM_API int GetThreadPriority(HANDLE thread);
// The identifier of a thread; 0 with ERROR_INVALID_HANDLE.
ZRPLATFORM_API DWORD GetThreadId(HANDLE thread);

ZRPLATFORM_API DWORD GetCurrentThreadId();
ZRPLATFORM_API DWORD GetCurrentProcessId();
// Pseudo handles, good in the calling thread for what a real handle is good for.
ZRPLATFORM_API HANDLE GetCurrentThread();
ZRPLATFORM_API HANDLE GetCurrentProcess();

// A pointer-wide value per thread. TlsAlloc: TLS_OUT_OF_INDEXES with ERROR_NO_MORE_ITEMS when all TLS_MINIMUM_AVAILABLE
// are taken. A new index reads NULL on every thread. TlsGetValue clears the last error when it succeeds; an index that
// is not allocated gives ERROR_INVALID_PARAMETER.
ZRPLATFORM_API DWORD TlsAlloc();
ZRPLATFORM_API BOOL TlsFree(DWORD index);
ZRPLATFORM_API LPVOID TlsGetValue(DWORD index);
ZRPLATFORM_API BOOL TlsSetValue(DWORD index, LPVOID value);

// --- Processes -------------------------------------------------------------------------------------------------------
//
// A process is started with CreateProcessW (platform/modules.h). A wait for a process lasts until it has ended.

inline constexpr DWORD PROCESS_TERMINATE = 0x0001;
inline constexpr DWORD PROCESS_QUERY_INFORMATION = 0x0400;
inline constexpr DWORD PROCESS_ALL_ACCESS = 0x001F0FFF;

// A handle to the process with that identifier, any user's; to one that has ended as long as somebody here has a handle
// to it. NULL: ERROR_INVALID_PARAMETER (there is no such process), ERROR_ACCESS_DENIED (PROCESS_TERMINATE is asked for
// and the host will not let this user end it), ERROR_TOO_MANY_OPEN_FILES, ERROR_NOT_ENOUGH_MEMORY.
ZRPLATFORM_API HANDLE OpenProcess(DWORD access, BOOL inherit, DWORD id);
// STILL_ACTIVE until the process has ended. Of an exit code the host keeps the lowest 8 bits, but TerminateProcess's is
// whole; ERROR_PROCESS_ABORTED when a signal ended it. FALSE with ERROR_NOT_SUPPORTED when the host tells nobody here:
// of an ended process that CreateProcessW did not start in this process, or that the program has waited for itself.
ZRPLATFORM_API BOOL GetExitCodeProcess(HANDLE process, DWORD* exit_code);
// Ends the process where it is. Returns at once: the handle is signalled when it has ended. FALSE with
// ERROR_ACCESS_DENIED when it has ended already, or may not be ended by this user. This process: does not return.
ZRPLATFORM_API BOOL TerminateProcess(HANDLE process, UINT exit_code);
// Ends this process as a return from main does.
[[noreturn]] ZRPLATFORM_API void ExitProcess(UINT exit_code);
// The identifier of a process; 0 with ERROR_INVALID_HANDLE.
ZRPLATFORM_API DWORD GetProcessId(HANDLE process);

// --- Clocks and the process ------------------------------------------------------------------------------------------

// Milliseconds of the monotonic clock; wraps after 49.7 days.
ZRPLATFORM_API DWORD GetTickCount();
ZRPLATFORM_API BOOL QueryPerformanceCounter(LARGE_INTEGER* count);
ZRPLATFORM_API BOOL QueryPerformanceFrequency(LARGE_INTEGER* frequency);

// The program's own module (name NULL). Other names: NULL with ERROR_MOD_NOT_FOUND.
ZRPLATFORM_API HMODULE GetModuleHandleW(LPCWSTR name);
