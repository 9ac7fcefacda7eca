// Events, mutexes and critical sections beside what else a program on Linux would use for the same work.

#include <benchmark/benchmark.h>
#include <linux/futex.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "platform/kernel.h"
#include "support/winpr_peer.h"

namespace {

// Each subject is an auto-reset event: set() lets one wait() through.
class Ours {
public:
    ~Ours() { CloseHandle(event_); }
    void set() { SetEvent(event_); }
    void wait() { WaitForSingleObject(event_, INFINITE); }

private:
    HANDLE event_ = CreateEventW(nullptr, FALSE, FALSE, nullptr);
};

// WinPR's events are all manual-reset, so who waited resets them.
class WinPR {
public:
    ~WinPR() { winpr::close(event_); }
    void set() { winpr::set(event_); }
    void wait() {
        winpr::wait(event_);
        winpr::reset(event_);
    }

private:
    void* event_ = winpr::create_event();
};

class EventFd {
public:
    ~EventFd() { close(fd_); }
    void set() { eventfd_write(fd_, 1); }
    void wait() {
        eventfd_t value = 0;
        eventfd_read(fd_, &value);
    }

private:
    int fd_ = eventfd(0, EFD_CLOEXEC);
};

class Futex {
public:
    void set() {
        word_.store(1, std::memory_order_release);
        syscall(SYS_futex, &word_, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1, nullptr, nullptr, 0);
    }
    void wait() {
        while (word_.exchange(0, std::memory_order_acquire) == 0) {
            syscall(SYS_futex, &word_, FUTEX_WAIT | FUTEX_PRIVATE_FLAG, 0, nullptr, nullptr, 0);
        }
    }

private:
    std::atomic<int> word_{0};
};

// One iteration is a round trip: set here, wait there, set there, wait here.
template <class Event>
void ping_pong(benchmark::State& state) {
    Event there;
    Event back;
    std::atomic<bool> stop = false;
    std::thread other([&] {
        for (;;) {
            there.wait();
            if (stop) return;
            back.set();
        }
    });
    for (auto _ : state) {
        there.set();
        back.wait();
    }
    stop = true;
    there.set();
    other.join();
}
BENCHMARK(ping_pong<Ours>)->Name("event_ping_pong/ours")->UseRealTime();
BENCHMARK(ping_pong<WinPR>)->Name("event_ping_pong/winpr")->UseRealTime();
BENCHMARK(ping_pong<EventFd>)->Name("event_ping_pong/eventfd")->UseRealTime();
BENCHMARK(ping_pong<Futex>)->Name("event_ping_pong/futex")->UseRealTime();

template <class Event>
void set_and_wait(benchmark::State& state) {
    Event event;
    for (auto _ : state) {
        event.set();
        event.wait();
    }
}
BENCHMARK(set_and_wait<Ours>)->Name("event_set_and_wait/ours");
BENCHMARK(set_and_wait<WinPR>)->Name("event_set_and_wait/winpr");
BENCHMARK(set_and_wait<EventFd>)->Name("event_set_and_wait/eventfd");

class OurSection {
public:
    OurSection() { InitializeCriticalSection(&section_); }
    ~OurSection() { DeleteCriticalSection(&section_); }
    void lock() { EnterCriticalSection(&section_); }
    void unlock() { LeaveCriticalSection(&section_); }

private:
    CRITICAL_SECTION section_;
};

class WinPRSection {
public:
    ~WinPRSection() { winpr::destroy_section(section_); }
    void lock() { winpr::enter(section_); }
    void unlock() { winpr::leave(section_); }

private:
    void* section_ = winpr::create_section();
};

class OurMutex {
public:
    ~OurMutex() { CloseHandle(mutex_); }
    void lock() { WaitForSingleObject(mutex_, INFINITE); }
    void unlock() { ReleaseMutex(mutex_); }

private:
    HANDLE mutex_ = CreateMutexW(nullptr, FALSE, nullptr);
};

class WinPRMutex {
public:
    ~WinPRMutex() { winpr::close(mutex_); }
    void lock() { winpr::wait(mutex_); }
    void unlock() { winpr::release(mutex_); }

private:
    void* mutex_ = winpr::create_mutex();
};

template <class Lock>
void uncontended(benchmark::State& state) {
    Lock lock;
    for (auto _ : state) {
        const std::lock_guard guard(lock);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(uncontended<OurSection>)->Name("critical_section/ours");
BENCHMARK(uncontended<WinPRSection>)->Name("critical_section/winpr");
BENCHMARK(uncontended<std::recursive_mutex>)->Name("critical_section/std_recursive_mutex");
BENCHMARK(uncontended<OurMutex>)->Name("mutex/ours");
BENCHMARK(uncontended<WinPRMutex>)->Name("mutex/winpr");

// Two threads that take the lock in turn as fast as they can, with a little work inside and outside.
template <class Lock>
void contended(benchmark::State& state) {
    static Lock lock;
    static long shared = 0;
    for (auto _ : state) {
        {
            const std::lock_guard guard(lock);
            benchmark::DoNotOptimize(++shared);
        }
        for (int i = 0; i < 20; ++i) {
            benchmark::DoNotOptimize(i);
        }
    }
}
BENCHMARK(contended<OurSection>)->Name("critical_section_2_threads/ours")->Threads(2)->UseRealTime();
BENCHMARK(contended<WinPRSection>)->Name("critical_section_2_threads/winpr")->Threads(2)->UseRealTime();
BENCHMARK(contended<std::recursive_mutex>)
    ->Name("critical_section_2_threads/std_recursive_mutex")
    ->Threads(2)
    ->UseRealTime();

}  // namespace
