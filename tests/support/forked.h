#pragma once

// Forked children for tests of what a fork leaves behind: the child has this process's memory and one thread.

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#if defined(ZR_SANITIZE_ADDRESS) || defined(ZR_SANITIZE_THREAD)
#include "support/own_process.h"
#endif

namespace zr::test {

inline constexpr int kHung = -1000;
inline constexpr int kForkLimitSeconds = 60;

// Waits for a child: its exit code, minus the signal that ended it, or kHung (and then it is killed).
inline int await_child(pid_t child, int seconds = kForkLimitSeconds) {
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    pollfd ended{handle, POLLIN, 0};
    const bool hung = handle >= 0 && poll(&ended, 1, seconds * 1000) == 0;
    if (hung) kill(child, SIGKILL);
    if (handle >= 0) close(handle);
    int status = 0;
    waitpid(child, &status, 0);
    if (hung) return kHung;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// Threads that do something over and over for as long as this lives. Each has done it once when the object is there.
class Load {
public:
    explicit Load(const std::vector<std::function<void()>>& bodies) {
        std::atomic<std::size_t> begun{0};
        for (const auto& body : bodies) {
            threads_.emplace_back([this, &begun, body] {
                body();
                begun.fetch_add(1);
                begun.notify_all();
                while (!stop_.load(std::memory_order_relaxed)) {
                    {
                        const std::lock_guard queue(gate());
                        busy().fetch_add(1);
                    }
                    body();
                    busy().fetch_sub(1);
                }
            });
        }
        for (std::size_t now = begun.load(); now < bodies.size(); now = begun.load()) {
            begun.wait(now);
        }
    }
    ~Load() {
        stop_.store(true, std::memory_order_relaxed);
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

private:
    friend pid_t fork_beside_threads();

    static std::mutex& gate() {
        static std::mutex lock;
        return lock;
    }
    static std::atomic<int>& busy() {
        static std::atomic<int> count{0};
        return count;
    }

    std::atomic<bool> stop_{false};
    std::vector<std::thread> threads_;
};

// Forks. A sanitizer's allocator does not survive a fork beside threads that use it, or that are beginning or ending,
// nor does the thread sanitizer's lock one beside a thread that loads a library: the child waits for it for ever. Under
// one, and only there, all others sleep meanwhile, and loads are between two turns.
inline pid_t fork_beside_threads() {
#if defined(ZR_SANITIZE_ADDRESS) || defined(ZR_SANITIZE_THREAD)
    const std::lock_guard closed(Load::gate());
    while (Load::busy().load() != 0) {
        std::this_thread::yield();
    }
    static_cast<void>(others_sleep(2000));
#endif
    return fork();
}

// A forked child that runs `body`; its exit code is the body's result.
class Forked {
public:
    explicit Forked(const std::function<int()>& body) : pid_(fork_beside_threads()) {
        if (pid_ != 0) return;
        int result = 99;
        try {
            result = body();
        } catch (const std::exception&) {
        }
        _exit(result);
    }
    int wait(int seconds = kForkLimitSeconds) const { return await_child(pid_, seconds); }

private:
    const pid_t pid_;
};

inline int in_fork(const std::function<int()>& body, int seconds = kForkLimitSeconds) {
    return Forked(body).wait(seconds);
}

}  // namespace zr::test
