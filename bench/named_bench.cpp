// Named mutexes and events between two processes, and waits for many objects, beside what the system has for it.

#include <benchmark/benchmark.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "platform/kernel.h"

namespace {

// The objects of a run are its own, whatever other programs do.
const bool in_own_folder = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "zrbench-XXXXXX").string();
    if (!mkdtemp(pattern.data())) return false;
    static const std::string folder = pattern;
    setenv("XDG_RUNTIME_DIR", folder.c_str(), 1);
    static const pid_t owner = getpid();
    atexit([] {
        if (getpid() == owner) std::filesystem::remove_all(folder);
    });
    return true;
}();

// What both processes see besides the objects that are measured.
struct Board {
    std::atomic<bool> stop{false};
    std::atomic<int> ready{0};
    pthread_mutex_t locks[3];
    std::atomic<int> held[3];
};

class SharedBoard {
public:
    SharedBoard() {
        void* room = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        board_ = new (room) Board;
    }
    ~SharedBoard() { munmap(board_, sizeof(Board)); }
    Board* operator->() const { return board_; }

private:
    Board* board_;
};

template <class Body>
class Process {
public:
    explicit Process(Body body) {
        pid_ = fork();
        if (pid_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body();
        _exit(0);
    }
    ~Process() { waitpid(pid_, nullptr, 0); }

private:
    pid_t pid_;
};

// --- Mutexes ---------------------------------------------------------------------------------------------------------

class OurLocks {
public:
    explicit OurLocks(const SharedBoard&) {
        for (int i = 0; i < 3; ++i) {
            const char16_t name[] = {u'l', u'o', u'c', u'k', static_cast<char16_t>(u'0' + i), 0};
            locks_[i] = CreateMutexW(nullptr, FALSE, name);
        }
    }
    ~OurLocks() {
        for (const HANDLE lock : locks_) {
            CloseHandle(lock);
        }
    }
    void lock(int i) { WaitForSingleObject(locks_[i], INFINITE); }
    void unlock(int i) { ReleaseMutex(locks_[i]); }

private:
    HANDLE locks_[3];
};

class RobustLocks {
public:
    explicit RobustLocks(const SharedBoard& board) : locks_(board->locks) {
        if (board->ready.load() != 0) return;
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
        for (int i = 0; i < 3; ++i) {
            pthread_mutex_init(&locks_[i], &attributes);
        }
    }
    void lock(int i) {
        if (pthread_mutex_lock(&locks_[i]) == EOWNERDEAD) pthread_mutex_consistent(&locks_[i]);
    }
    void unlock(int i) { pthread_mutex_unlock(&locks_[i]); }

private:
    pthread_mutex_t* locks_;
};

// A robust mutex that a handle names: it is held by a count while a call uses it.
class HeldLocks {
public:
    explicit HeldLocks(const SharedBoard& board) : locks_(board), held_(board->held) {}
    void lock(int i) {
        held_[i].fetch_add(1, std::memory_order_acquire);
        locks_.lock(i);
        held_[i].fetch_sub(1, std::memory_order_release);
    }
    void unlock(int i) {
        held_[i].fetch_add(1, std::memory_order_acquire);
        locks_.unlock(i);
        held_[i].fetch_sub(1, std::memory_order_release);
    }

private:
    RobustLocks locks_;
    std::atomic<int>* held_;
};

// Two processes go round three locks, each taking the next before it gives up the one behind: so neither can go a round
// without waiting until the other hands it a lock. One iteration is one step.
template <class Locks>
void hand_over(benchmark::State& state) {
    const SharedBoard board;
    Locks locks(board);
    locks.lock(1);
    board->ready = 1;
    const Process other([&] {
        Locks mine(board);
        mine.lock(0);
        board->ready = 2;
        for (int at = 0; !board->stop; at = (at + 1) % 3) {
            mine.lock((at + 1) % 3);
            mine.unlock(at);
        }
        _exit(0);
    });
    while (board->ready != 2) {
        usleep(100);
    }
    int at = 1;
    for (auto _ : state) {
        locks.lock((at + 1) % 3);
        locks.unlock(at);
        at = (at + 1) % 3;
    }
    board->stop = true;
    locks.unlock(at);
}
BENCHMARK(hand_over<OurLocks>)->Name("named_mutex_hand_over/ours")->UseRealTime();
BENCHMARK(hand_over<RobustLocks>)->Name("named_mutex_hand_over/robust_mutex")->UseRealTime();

template <class Locks>
void uncontended(benchmark::State& state) {
    const SharedBoard board;
    Locks locks(board);
    for (auto _ : state) {
        locks.lock(0);
        locks.unlock(0);
    }
}
BENCHMARK(uncontended<OurLocks>)->Name("named_mutex/ours");
BENCHMARK(uncontended<RobustLocks>)->Name("named_mutex/robust_mutex");
BENCHMARK(uncontended<HeldLocks>)->Name("named_mutex/held_robust_mutex");

// --- Events ----------------------------------------------------------------------------------------------------------

class OurEvents {
public:
    static void prepare() {}
    OurEvents()
        : there_(CreateEventW(nullptr, FALSE, FALSE, u"there")), back_(CreateEventW(nullptr, FALSE, FALSE, u"back")) {}
    ~OurEvents() {
        CloseHandle(there_);
        CloseHandle(back_);
    }
    void set_there() { SetEvent(there_); }
    void set_back() { SetEvent(back_); }
    void wait_there() { WaitForSingleObject(there_, INFINITE); }
    void wait_back() { WaitForSingleObject(back_, INFINITE); }

private:
    HANDLE there_;
    HANDLE back_;
};

// The descriptors pass to the forked process.
class EventFds {
public:
    void set_there() { eventfd_write(there(), 1); }
    void set_back() { eventfd_write(back(), 1); }
    void wait_there() { take(there()); }
    void wait_back() { take(back()); }

private:
    static int there() {
        static const int fd = eventfd(0, 0);
        return fd;
    }
    static int back() {
        static const int fd = eventfd(0, 0);
        return fd;
    }
    static void take(int fd) {
        eventfd_t value = 0;
        eventfd_read(fd, &value);
    }
};

template <class Events>
void ping_pong(benchmark::State& state) {
    const SharedBoard board;
    Events events;
    events.set_there();  // both exist before the fork
    events.wait_there();
    events.set_back();
    events.wait_back();
    const Process other([&] {
        Events mine;
        board->ready = 1;
        for (;;) {
            mine.wait_there();
            if (board->stop) _exit(0);
            mine.set_back();
        }
    });
    while (board->ready != 1) {
        usleep(100);
    }
    for (auto _ : state) {
        events.set_there();
        events.wait_back();
    }
    board->stop = true;
    events.set_there();
}
BENCHMARK(ping_pong<OurEvents>)->Name("named_event_ping_pong/ours")->UseRealTime();
BENCHMARK(ping_pong<EventFds>)->Name("named_event_ping_pong/eventfd")->UseRealTime();

template <class Events>
void set_and_wait(benchmark::State& state) {
    Events events;
    for (auto _ : state) {
        events.set_there();
        events.wait_there();
    }
}
BENCHMARK(set_and_wait<OurEvents>)->Name("named_event_set_and_wait/ours");
BENCHMARK(set_and_wait<EventFds>)->Name("named_event_set_and_wait/eventfd");

// --- Waits for many --------------------------------------------------------------------------------------------------

// The last of N is set, and waited for among all.
template <bool kNamed>
void wait_ours(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    std::vector<HANDLE> handles;
    for (std::size_t i = 0; i < count; ++i) {
        const char16_t name[] = {u'e', static_cast<char16_t>(u'0' + i), 0};
        handles.push_back(CreateEventW(nullptr, FALSE, FALSE, kNamed ? name : nullptr));
    }
    for (auto _ : state) {
        SetEvent(handles.back());
        benchmark::DoNotOptimize(WaitForMultipleObjects(static_cast<DWORD>(count), handles.data(), FALSE, INFINITE));
    }
    for (const HANDLE handle : handles) {
        CloseHandle(handle);
    }
}

void wait_poll(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    std::vector<pollfd> fds;
    for (std::size_t i = 0; i < count; ++i) {
        fds.push_back({eventfd(0, EFD_CLOEXEC), POLLIN, 0});
    }
    for (auto _ : state) {
        eventfd_write(fds.back().fd, 1);
        poll(fds.data(), fds.size(), -1);
        for (const pollfd& fd : fds) {
            if (fd.revents == 0) continue;
            eventfd_t value = 0;
            eventfd_read(fd.fd, &value);
            break;
        }
    }
    for (const pollfd& fd : fds) {
        close(fd.fd);
    }
}
BENCHMARK(wait_ours<false>)->Name("wait_for_multiple/ours")->Arg(2)->Arg(64);
BENCHMARK(wait_poll)->Name("wait_for_multiple/poll")->Arg(2)->Arg(64);
BENCHMARK(wait_ours<true>)->Name("wait_for_multiple_named/ours")->Arg(2)->Arg(64);
BENCHMARK(wait_poll)->Name("wait_for_multiple_named/poll")->Arg(2)->Arg(64);

}  // namespace
