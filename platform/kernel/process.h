#pragma once

#include <sys/types.h>

#include "base/host_fd.h"
#include "kernel/waitable.h"

namespace zr::platform {

// The object behind GetCurrentProcess: a wait for it lasts as long as the process, which is for ever.
Waitable& this_process() noexcept;

// The main thread of a process that this one has started: signalled when that process has ended.
class MainThread final : public Event {
public:
    static constexpr ObjectKind kKind = ObjectKind::MainThread;

    explicit MainThread(DWORD id) noexcept : Event(true, false, kKind), id_(id) {}

    Event* event() noexcept override { return nullptr; }
    DWORD id() const noexcept { return id_; }
    DWORD exit_code() const noexcept { return exit_code_.load(std::memory_order_acquire); }
    void end(DWORD code) noexcept {
        exit_code_.store(code, std::memory_order_release);
        set();
    }

protected:
    ~MainThread() override = default;

private:
    const DWORD id_;
    std::atomic<DWORD> exit_code_{259};  // STILL_ACTIVE
};

// Another process: signalled when it has ended, which the host's thread is told (kernel/host_events.h).
class OtherProcess final : public Event {
public:
    static constexpr ObjectKind kKind = ObjectKind::Process;

    Event* event() noexcept override { return nullptr; }

    DWORD id() const noexcept { return static_cast<DWORD>(id_); }
    // STILL_ACTIVE until it has ended. False when nobody can know: it was no child of this process.
    bool exit_code(DWORD& code) const noexcept;
    // Ends it; an error code.
    DWORD terminate(DWORD code) noexcept;

protected:
    ~OtherProcess() override;
    Attempt try_acquire(Thread& self) noexcept override;

private:
    friend class ProcessWatch;

    OtherProcess(pid_t id, HostFd host, bool is_child) noexcept;
    bool is_over() const noexcept;
    void end() noexcept;

    static constexpr std::uint64_t kRequested = std::uint64_t{1} << 32;

    const pid_t id_;
    const HostFd host_;  // the host's handle to the process
    const bool is_child_;
    const std::uint32_t generation_;  // of the process whose child it is
    Ref<MainThread> thread_;
    std::atomic<std::uint64_t> requested_{0};  // the exit code of who ends it
    std::atomic<DWORD> exit_code_{259};
    std::atomic<bool> is_known_{true};  // the exit code

    // Among all there are. Guarded by the processes' lock.
    bool is_watched_ = false;  // until it has ended, and has a reference to itself meanwhile
    OtherProcess* previous_ = nullptr;
    OtherProcess* next_ = nullptr;
};

// At a fork.
void lock_processes() noexcept;
void unlock_processes() noexcept;
void forget_process_watch() noexcept;
void resume_process_watch() noexcept;

}  // namespace zr::platform
