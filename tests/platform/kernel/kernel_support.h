#pragma once

#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <functional>
#include <string>
#include <utility>

#include "platform/diagnostics.h"
#include "platform/kernel.h"
#include "support/own_process.h"

namespace zr::test {

// A handle that is closed with the object.
class Handle {
public:
    Handle() = default;
    explicit Handle(HANDLE handle) : handle_(handle) {}
    Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~Handle() {
        if (handle_) CloseHandle(handle_);
    }
    operator HANDLE() const { return handle_; }
    HANDLE detach() { return std::exchange(handle_, nullptr); }

private:
    HANDLE handle_ = nullptr;
};

// Counts that it was destroyed.
class Mark {
public:
    explicit Mark(std::atomic<int>& count) : count_(count) {}
    ~Mark() { ++count_; }
    Mark(const Mark&) = delete;
    Mark& operator=(const Mark&) = delete;

private:
    std::atomic<int>& count_;
};

inline Handle auto_event(bool signalled = false) {
    return Handle(CreateEventW(nullptr, FALSE, signalled ? TRUE : FALSE, nullptr));
}
inline Handle manual_event(bool signalled = false) {
    return Handle(CreateEventW(nullptr, TRUE, signalled ? TRUE : FALSE, nullptr));
}
inline Handle mutex(bool owned = false) {
    return Handle(CreateMutexW(nullptr, owned ? TRUE : FALSE, nullptr));
}

inline bool is_signalled(HANDLE manual) {
    return WaitForSingleObject(manual, 0) == WAIT_OBJECT_0;
}

// A thread of CreateThread's that runs a function; joined with the object.
class Worker {
public:
    explicit Worker(std::function<DWORD()> body, DWORD flags = 0) : body_(std::move(body)) {
        handle_ = CreateThread(nullptr, 0, &Worker::main, this, flags, &id_);
        EXPECT_NE(handle_, nullptr);
    }
    ~Worker() {
        if (handle_) {
            WaitForSingleObject(handle_, INFINITE);
            CloseHandle(handle_);
        }
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    HANDLE handle() const { return handle_; }
    DWORD id() const { return id_; }
    DWORD join() {
        EXPECT_EQ(WaitForSingleObject(handle_, INFINITE), WAIT_OBJECT_0);
        DWORD code = 0;
        EXPECT_TRUE(GetExitCodeThread(handle_, &code));
        return code;
    }
    void join_and_close() {
        join();
        CloseHandle(std::exchange(handle_, nullptr));
    }

    // Returns once the thread sleeps in the system: after it said that it is about to wait, it waits then.
    void until_asleep() const {
        const std::string path = "/proc/self/task/" + std::to_string(id_);
        while (!sleeps(path)) {
            sched_yield();
        }
    }

private:
    static DWORD main(LPVOID self) { return static_cast<Worker*>(self)->body_(); }

    std::function<DWORD()> body_;
    HANDLE handle_ = nullptr;
    DWORD id_ = 0;
};

}  // namespace zr::test
