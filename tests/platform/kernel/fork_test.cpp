// What a fork leaves of the family's objects: in the child, and in the parent.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "platform/kernel/named/support.h"
#include "support/forked.h"
#include "support/instrumented.h"

using namespace zr::test;

namespace {

#define CHECK(condition) \
    if (!(condition)) return __LINE__ % 200 + 1

DWORD enter_and_leave(CRITICAL_SECTION& section) {
    EnterCriticalSection(&section);
    LeaveCriticalSection(&section);
    return 0;
}

TEST(KernelFork, AThreadOfTheChildHasTheChildsIdentifier) {
    const DWORD parents = GetCurrentThreadId();
    EXPECT_EQ(in_fork([parents] {
                  CHECK(GetCurrentThreadId() == static_cast<DWORD>(gettid()));
                  CHECK(GetCurrentThreadId() != parents);
                  CHECK(GetCurrentProcessId() == static_cast<DWORD>(getpid()));
                  return 0;
              }),
              0);
    EXPECT_EQ(GetCurrentThreadId(), parents);
}

TEST(KernelFork, ThreadsThatStayedBehindHaveEnded) {
    const Handle go = manual_event();
    Worker worker([&] {
        WaitForSingleObject(go, INFINITE);
        return DWORD{7};
    });
    worker.until_asleep();
    EXPECT_EQ(in_fork([&] {
                  CHECK(WaitForSingleObject(worker.handle(), 0) == WAIT_OBJECT_0);
                  DWORD code = 0;
                  CHECK(GetExitCodeThread(worker.handle(), &code) && code == ERROR_PROCESS_ABORTED);
                  CHECK(TerminateThread(worker.handle(), 1));
                  return 0;
              }),
              0);
    EXPECT_EQ(WaitForSingleObject(worker.handle(), 0), WAIT_TIMEOUT);
    SetEvent(go);
    EXPECT_EQ(worker.join(), 7u);
}

// A thread of the parent waits; the child's signal must not go to it.
TEST(KernelFork, WaitersThatStayedBehindTakeNothing) {
    const Handle event = auto_event();
    Worker worker([&] { return WaitForSingleObject(event, INFINITE); });
    worker.until_asleep();
    EXPECT_EQ(in_fork([&] {
                  CHECK(SetEvent(event));
                  CHECK(WaitForSingleObject(event, 0) == WAIT_OBJECT_0);
                  CHECK(WaitForSingleObject(event, 0) == WAIT_TIMEOUT);
                  Worker setter([&] { return DWORD(SetEvent(event) ? 0 : 1); });
                  CHECK(WaitForSingleObject(event, INFINITE) == WAIT_OBJECT_0);
                  return 0;
              }),
              0);
    SetEvent(event);
    EXPECT_EQ(worker.join(), WAIT_OBJECT_0);
}

TEST(KernelFork, AMutexOfTheThreadThatForksIsItsOnBothSides) {
    const Handle lock = mutex(true);
    EXPECT_EQ(in_fork([&] {
                  Worker other([&] { return WaitForSingleObject(lock, 0); });
                  CHECK(other.join() == WAIT_TIMEOUT);
                  CHECK(WaitForSingleObject(lock, 0) == WAIT_OBJECT_0);
                  CHECK(ReleaseMutex(lock));
                  CHECK(ReleaseMutex(lock));
                  CHECK(!ReleaseMutex(lock));
                  Worker next([&] { return WaitForSingleObject(lock, INFINITE); });
                  CHECK(next.join() == WAIT_OBJECT_0);
                  return 0;
              }),
              0);
    EXPECT_TRUE(ReleaseMutex(lock));
}

TEST(KernelFork, AMutexOfAThreadThatStayedBehindIsAbandoned) {
    const Handle lock = mutex();
    const Handle go = manual_event();
    const Handle taken = manual_event();
    Worker owner([&] {
        WaitForSingleObject(lock, INFINITE);
        WaitForSingleObject(lock, INFINITE);
        SetEvent(taken);
        WaitForSingleObject(go, INFINITE);
        return DWORD(ReleaseMutex(lock) && ReleaseMutex(lock) ? 0 : 1);
    });
    WaitForSingleObject(taken, INFINITE);
    EXPECT_EQ(in_fork([&] {
                  CHECK(WaitForSingleObject(lock, 5000) == WAIT_ABANDONED);
                  CHECK(ReleaseMutex(lock));
                  CHECK(WaitForSingleObject(lock, 0) == WAIT_OBJECT_0);
                  CHECK(ReleaseMutex(lock));
                  CHECK(!ReleaseMutex(lock));
                  return 0;
              }),
              0);
    SetEvent(go);
    EXPECT_EQ(owner.join(), 0u);
    EXPECT_EQ(WaitForSingleObject(lock, 0), WAIT_OBJECT_0);
    ReleaseMutex(lock);
}

TEST(KernelFork, ASectionOfTheThreadThatForksIsItsOnBothSides) {
    CRITICAL_SECTION section;
    InitializeCriticalSection(&section);
    EnterCriticalSection(&section);
    EXPECT_EQ(in_fork([&] {
                  EnterCriticalSection(&section);
                  LeaveCriticalSection(&section);
                  Worker other([&] { return DWORD(TryEnterCriticalSection(&section) ? 1 : 0); });
                  CHECK(other.join() == 0);
                  LeaveCriticalSection(&section);
                  Worker next([&] { return enter_and_leave(section); });
                  CHECK(next.join() == 0);
                  return 0;
              }),
              0);
    LeaveCriticalSection(&section);
    Worker other([&] { return DWORD(TryEnterCriticalSection(&section) ? 1 : 0); });
    EXPECT_EQ(other.join(), 1u);
}

// Whom a section's waiters queue behind stays behind.
TEST(KernelFork, ASectionsQueueStaysBehind) {
    CRITICAL_SECTION section;
    InitializeCriticalSection(&section);
    EnterCriticalSection(&section);
    Worker waiter([&] { return enter_and_leave(section); });
    waiter.until_asleep();
    EXPECT_EQ(in_fork([&] {
                  LeaveCriticalSection(&section);
                  Worker next([&] { return enter_and_leave(section); });
                  CHECK(next.join() == 0);
                  return 0;
              }),
              0);
    LeaveCriticalSection(&section);
    EXPECT_EQ(waiter.join(), 0u);
}

TEST(KernelFork, AGrandchildWorksToo) {
    const Handle lock = mutex(true);
    EXPECT_EQ(in_fork([&] {
                  return in_fork([&] {
                      CHECK(ReleaseMutex(lock));
                      Worker next([&] {
                          const DWORD got = WaitForSingleObject(lock, INFINITE);
                          return got == WAIT_OBJECT_0 && ReleaseMutex(lock) ? 0 : 1;
                      });
                      CHECK(next.join() == 0);
                      CHECK(GetCurrentThreadId() == static_cast<DWORD>(gettid()));
                      return 0;
                  });
              }),
              0);
    EXPECT_TRUE(ReleaseMutex(lock));
}

// --- With all of it in use by other threads --------------------------------------------------------------------------

void use_memory() {
    void* const pages = VirtualAlloc(nullptr, 0x20000, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    ASSERT_NE(pages, nullptr);
    VirtualFree(pages, 0, MEM_RELEASE);
}

void use_heap() {
    const HANDLE heap = HeapCreate(0, 0, 0);
    void* const block = HeapAlloc(heap, 0, 100);
    HeapFree(heap, 0, block);
    HeapDestroy(heap);
    LocalFree(LocalAlloc(0, 10));
}

void use_objects() {
    const Handle event = auto_event(true);
    const Handle lock = mutex();
    const HANDLE both[] = {event, lock};
    ASSERT_EQ(WaitForMultipleObjects(2, both, TRUE, INFINITE), WAIT_OBJECT_0);
    ReleaseMutex(lock);
}

void use_mapping() {
    const Handle mapping(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 100, nullptr));
    void* const view = MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 0);
    ASSERT_NE(view, nullptr);
    UnmapViewOfFile(view);
}

void use_threads() {
    Worker worker([] { return DWORD{0}; });
    worker.join();
}

void use_names() {
    const Handle event = named_event(u"fork event", true);
    ASSERT_NE(event, nullptr);
    SetEvent(event);
    ASSERT_EQ(WaitForSingleObject(event, INFINITE), WAIT_OBJECT_0);
    const Handle lock = named_mutex(u"fork lock");
    ASSERT_NE(WaitForSingleObject(lock, INFINITE), WAIT_FAILED);
    ReleaseMutex(lock);
    const Handle memory = named_mapping(u"fork memory", 10);
    ASSERT_NE(memory, nullptr);
}

void use_section() {
    static CRITICAL_SECTION section;
    EnterCriticalSection(&section);
    LeaveCriticalSection(&section);
}

int use_all() {
    use_memory();
    use_heap();
    use_objects();
    use_mapping();
    use_threads();
    use_names();
    TlsFree(TlsAlloc());
    return testing::Test::HasFailure() ? 1 : 0;
}

TEST(KernelFork, ThreeHundredForksUnderLoad) {
    const auto use_pages = [] {
        use_memory();
        use_mapping();
    };
    const auto use_handles = [] {
        use_objects();
        use_heap();
        use_threads();
        use_section();
    };
    const Load load({use_pages, use_handles, use_names});
    for (int i = 0; i < 300 / zr::test::kStride; ++i) {
        ASSERT_EQ(in_fork(use_all), 0) << "fork " << i;
        use_all();
    }
}

}  // namespace
