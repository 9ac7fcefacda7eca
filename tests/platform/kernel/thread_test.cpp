#include <pthread.h>

#include <atomic>
#include <thread>
#include <vector>

#include "kernel/thread.h"
#include "platform/kernel/kernel_support.h"

using namespace zr::test;

TEST(Thread, RunsWithItsParameterAndGivesItsExitCode) {
    int parameter = 0;
    const Handle thread(CreateThread(
        nullptr, 0,
        [](LPVOID p) -> DWORD {
            *static_cast<int*>(p) = 7;
            return 42;
        },
        &parameter, 0, nullptr));
    ASSERT_NE(static_cast<HANDLE>(thread), nullptr);
    EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, 42u);
    EXPECT_EQ(parameter, 7);
    EXPECT_FALSE(GetExitCodeThread(thread, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(Thread, StillActiveWhileItRuns) {
    const Handle end = manual_event();
    Worker worker([&] { return WaitForSingleObject(end, INFINITE); });
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(worker.handle(), &code));
    EXPECT_EQ(code, STILL_ACTIVE);
    EXPECT_EQ(WaitForSingleObject(worker.handle(), 0), WAIT_TIMEOUT);
    SetEvent(end);
    EXPECT_EQ(worker.join(), WAIT_OBJECT_0);
}

TEST(Thread, IdentifiersAreThoseTheThreadsSee) {
    DWORD seen = 0;
    Worker worker([&] {
        seen = GetCurrentThreadId();
        return DWORD{0};
    });
    worker.join();
    EXPECT_EQ(worker.id(), seen);
    EXPECT_NE(seen, 0u);
    EXPECT_NE(seen, GetCurrentThreadId());
    DWORD foreign = 0;
    std::thread([&] { foreign = GetCurrentThreadId(); }).join();
    EXPECT_NE(foreign, GetCurrentThreadId());
    EXPECT_EQ(GetCurrentProcessId(), static_cast<DWORD>(getpid()));
}

TEST(Thread, BadArguments) {
    EXPECT_EQ(CreateThread(nullptr, 0, nullptr, nullptr, 0, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    const LPTHREAD_START_ROUTINE routine = [](LPVOID) -> DWORD { return 0; };
    EXPECT_EQ(CreateThread(nullptr, 0, routine, nullptr, 0x80000000, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    EXPECT_EQ(CreateThread(nullptr, SIZE_MAX / 8 * 7, routine, nullptr, 0, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(CreateThread(nullptr, SIZE_MAX, routine, nullptr, 0, nullptr), nullptr);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
}

TEST(Thread, StackIsAsLargeAsAskedFor) {
    const LPTHREAD_START_ROUTINE deep = [](LPVOID) -> DWORD {
        volatile char room[3 * 1024 * 1024];
        room[0] = 1;
        room[sizeof room - 1] = 2;
        return static_cast<DWORD>(room[0] + room[sizeof room - 1]);
    };
    const Handle thread(
        CreateThread(nullptr, 16 * 1024 * 1024, deep, nullptr, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr));
    WaitForSingleObject(thread, INFINITE);
    DWORD code = 0;
    GetExitCodeThread(thread, &code);
    EXPECT_EQ(code, 3u);
}

TEST(Thread, SmallStacksAreRaised) {
    const Handle thread(CreateThread(
        nullptr, 1,
        [](LPVOID) -> DWORD {
            volatile char room[32 * 1024];
            room[0] = 5;
            return static_cast<DWORD>(room[0]);
        },
        nullptr, 0, nullptr));
    WaitForSingleObject(thread, INFINITE);
    DWORD code = 0;
    GetExitCodeThread(thread, &code);
    EXPECT_EQ(code, 5u);
}

TEST(Thread, CreatedSuspendedRunsOnlyWhenResumed) {
    std::atomic<bool> ran = false;
    Worker worker(
        [&] {
            ran = true;
            return DWORD{9};
        },
        CREATE_SUSPENDED);
    worker.until_asleep();
    EXPECT_FALSE(ran);
    EXPECT_EQ(ResumeThread(worker.handle()), 1u);
    EXPECT_EQ(ResumeThread(worker.handle()), 0u);
    EXPECT_EQ(worker.join(), 9u);
    EXPECT_TRUE(ran);
    EXPECT_EQ(ResumeThread(worker.handle()), 0u);
}

TEST(Thread, ExitThreadUnwindsTheStack) {
    std::atomic<int> destroyed = 0;
    Worker worker([&]() -> DWORD {
        const Mark outer(destroyed);
        [&] {
            const Mark inner(destroyed);
            ExitThread(77);
        }();
        return 1;
    });
    EXPECT_EQ(worker.join(), 77u);
    EXPECT_EQ(destroyed, 2);
}

TEST(Thread, ExitThreadIsNotSwallowedByCatchAll) {
    std::atomic<int> destroyed = 0;
    std::atomic<bool> caught = false;
    Worker worker([&]() -> DWORD {
        try {
            const Mark inner(destroyed);
            ExitThread(5);
        } catch (...) {
            caught = true;
        }
        return 1;
    });
    EXPECT_EQ(worker.join(), 5u);
    EXPECT_FALSE(caught);
}

TEST(Thread, ExitThreadFromAFunctionThatMayNotThrow) {
    std::atomic<int> destroyed = 0;
    const auto no_throw = [&]() noexcept {
        const auto inner = [&] {
            const Mark mark(destroyed);
            ExitThread(6);
        };
        inner();
    };
    Worker worker([&]() -> DWORD {
        no_throw();
        return 1;
    });
    EXPECT_EQ(worker.join(), 6u);
    EXPECT_EQ(destroyed, 1);
}

TEST(Thread, ExitThreadUnderSeveralFunctionsThatMayNotThrow) {
    std::atomic<int> destroyed = 0;
    struct Ends {
        std::atomic<int>& count;
        ~Ends() {
            const Mark mark(count);
            ExitThread(16);
        }
    };
    Worker worker([&]() -> DWORD {
        const auto no_throw = [&]() noexcept {
            const Mark outer(destroyed);
            const Ends ends{destroyed};
        };
        no_throw();
        return 1;
    });
    EXPECT_EQ(worker.join(), 16u);
}

TEST(Thread, ExitThreadInAThreadThatOthersMadeUnderNoexcept) {
#if defined(ZR_SANITIZE_THREAD)
    GTEST_SKIP() << "the thread sanitizer does not see a thread end this way";
#endif
    HANDLE real = nullptr;
    const auto routine = [](void* out) noexcept -> void* {
        DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), static_cast<HANDLE*>(out), 0,
                        FALSE, DUPLICATE_SAME_ACCESS);
        std::atomic<int> destroyed = 0;
        const Mark mark(destroyed);
        ExitThread(13);
    };
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, routine, &real), 0);
    EXPECT_EQ(pthread_join(thread, nullptr), 0);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(real, &code));
    EXPECT_EQ(code, 13u);
    CloseHandle(real);
}

TEST(Thread, ExitThreadInAThreadThatOthersMade) {
    std::atomic<int> destroyed = 0;
    HANDLE real = nullptr;
    std::thread thread([&] {
        DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &real, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
        const Mark mark(destroyed);
        ExitThread(12);
    });
    thread.join();
    EXPECT_EQ(WaitForSingleObject(real, INFINITE), WAIT_OBJECT_0);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(real, &code));
    EXPECT_EQ(code, 12u);
    EXPECT_EQ(destroyed, 1);
    CloseHandle(real);
}

TEST(Thread, AThreadThatOthersMadeIsSignalledWhenItEnds) {
    const Handle known = manual_event();
    const Handle end = manual_event();
    HANDLE real = nullptr;
    std::thread thread([&] {
        DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &real, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
        SetEvent(known);
        WaitForSingleObject(end, INFINITE);
    });
    WaitForSingleObject(known, INFINITE);
    EXPECT_EQ(WaitForSingleObject(real, 0), WAIT_TIMEOUT);
    SetEvent(end);
    EXPECT_EQ(WaitForSingleObject(real, INFINITE), WAIT_OBJECT_0);
    thread.join();
    CloseHandle(real);
}

namespace {

std::atomic<int> hook_runs = 0;
std::atomic<DWORD> hook_thread = 0;
std::vector<int> hook_order;

}  // namespace

TEST(Thread, ExitHooksRunOnEveryEndingThreadLastAddedFirst) {
    zr::platform::add_thread_exit_hook([](zr::platform::Thread& self) {
        ++hook_runs;
        hook_thread = self.id();
        hook_order.push_back(1);
        int* kept = static_cast<int*>(self.slot(zr::platform::ThreadSlot::Shell).exchange(nullptr));
        delete kept;
    });
    zr::platform::add_thread_exit_hook([](zr::platform::Thread&) { hook_order.push_back(2); });
    Worker worker([] {
        zr::platform::Thread::current().slot(zr::platform::ThreadSlot::Shell) = new int(3);
        return DWORD{0};
    });
    worker.join();
    EXPECT_EQ(hook_runs, 1);
    EXPECT_EQ(hook_thread, worker.id());
    EXPECT_EQ(hook_order, (std::vector<int>{2, 1}));
    std::thread([] { GetCurrentThreadId(); }).join();
    EXPECT_EQ(hook_runs, 2);
    Worker([]() -> DWORD { ExitThread(1); }).join();
    EXPECT_EQ(hook_runs, 3);
}

TEST(Thread, AHookStillOwnsTheThreadsMutexesAndMayEndItAgain) {
    static const HANDLE lock = CreateMutexW(nullptr, FALSE, nullptr);
    static std::atomic<bool> end_again = false;
    static std::atomic<bool> released = false;
    zr::platform::add_thread_exit_hook([](zr::platform::Thread&) { released = ReleaseMutex(lock) != FALSE; });
    Worker([] { return WaitForSingleObject(lock, INFINITE); }).join();
    EXPECT_TRUE(released);
    EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_OBJECT_0);
    ReleaseMutex(lock);
    zr::platform::add_thread_exit_hook([](zr::platform::Thread&) {
        if (end_again) ExitThread(99);
    });
    end_again = true;
    EXPECT_EQ(Worker([] { return DWORD{1}; }).join(), 99u);
    end_again = false;
    CloseHandle(lock);
}

TEST(Thread, AreFoundByTheirIdentifierWhileTheyRun) {
    const Handle end = manual_event();
    Worker worker([&] { return WaitForSingleObject(end, INFINITE); });
    const auto found = zr::platform::Thread::find(worker.id());
    ASSERT_TRUE(found);
    EXPECT_EQ(found->id(), worker.id());
    SetEvent(end);
    worker.join();
    EXPECT_FALSE(zr::platform::Thread::find(worker.id()));
    EXPECT_FALSE(zr::platform::Thread::find(0));
    EXPECT_TRUE(zr::platform::Thread::find(GetCurrentThreadId()));
}

TEST(Tls, ValuesArePerThread) {
    const DWORD index = TlsAlloc();
    ASSERT_NE(index, TLS_OUT_OF_INDEXES);
    int here = 0;
    EXPECT_EQ(TlsGetValue(index), nullptr);
    EXPECT_TRUE(TlsSetValue(index, &here));
    Worker([&] {
        EXPECT_EQ(TlsGetValue(index), nullptr);
        int there = 0;
        EXPECT_TRUE(TlsSetValue(index, &there));
        EXPECT_EQ(TlsGetValue(index), &there);
        return DWORD{0};
    }).join();
    SetLastError(ERROR_BUSY);
    EXPECT_EQ(TlsGetValue(index), &here);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_TRUE(TlsFree(index));
    EXPECT_FALSE(TlsFree(index));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(TlsSetValue(index, &here));
    EXPECT_EQ(TlsAlloc(), index);
    EXPECT_EQ(TlsGetValue(index), nullptr);  // nothing is left of the earlier use
    EXPECT_TRUE(TlsFree(index));
}

TEST(Tls, IndexesRunOut) {
    std::vector<DWORD> indexes;
    for (DWORD index = TlsAlloc(); index != TLS_OUT_OF_INDEXES; index = TlsAlloc()) {
        indexes.push_back(index);
    }
    EXPECT_EQ(GetLastError(), ERROR_NO_MORE_ITEMS);
    EXPECT_EQ(indexes.size(), TLS_MINIMUM_AVAILABLE);
    EXPECT_EQ(TlsGetValue(TLS_MINIMUM_AVAILABLE), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    for (const DWORD index : indexes) {
        EXPECT_TRUE(TlsFree(index));
    }
}

TEST(Clock, CountersAgreeWithEachOther) {
    LARGE_INTEGER frequency{};
    LARGE_INTEGER before{};
    LARGE_INTEGER after{};
    ASSERT_TRUE(QueryPerformanceFrequency(&frequency));
    ASSERT_TRUE(QueryPerformanceCounter(&before));
    const DWORD tick = GetTickCount();
    Sleep(20);
    EXPECT_GE(GetTickCount() - tick, 19u);
    ASSERT_TRUE(QueryPerformanceCounter(&after));
    EXPECT_GE(after.QuadPart - before.QuadPart, frequency.QuadPart / 50);
    EXPECT_FALSE(QueryPerformanceCounter(nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(Module, TheProgramItself) {
    const HMODULE program = GetModuleHandleW(nullptr);
    EXPECT_NE(program, nullptr);
    EXPECT_EQ(program, GetModuleHandleW(nullptr));
    EXPECT_EQ(reinterpret_cast<const char*>(program)[1], 'E');  // the program's image begins there
    EXPECT_EQ(GetModuleHandleW(u"no such module"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_MOD_NOT_FOUND);
}
