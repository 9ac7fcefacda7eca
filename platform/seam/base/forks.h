#pragma once

// What becomes of the platform when the process forks. The one place that asks to be called at a fork.
//
// A fork copies the memory of all threads and only one of the threads. So before it, every family brings what it shares
// between threads to rest, and after it makes the child whole, in which the other threads, and what belongs to the
// process itself (its place among processes, its watches of the host), are not. A family that has threads, locks,
// descriptors or connections keeps one object of this:
//
//     const AtFork at_fork{ForkRank::Files, {before_fork, after_fork_in_parent, after_fork_in_child, resume}};
//
// prepare  Takes all locks of the family's that another thread could hold, and ends what must not be carried into
//          another process. Runs on the thread that forks. May allocate and wait; must not wait for anything but locks
//          that are given back by themselves. Higher families first: a lock may be held while those of lower families
//          are taken, never the other way round.
// parent   Gives the locks back. Lower families first.
// child    The same in the child; and forgets what was the parent's: threads, descriptors (closed, never used: they are
//          shared with the parent), places of other processes. Lower families first. Allocates and frees nothing,
//          starts no thread: the child may be about to start another program, and the memory of other threads may be
//          torn. What they had stays allocated. A lock is given back or made anew in its place.
// resume   May be NULL. Makes the child work on by itself: starts threads and watches again that what was inherited
//          depends on. Runs in the child, once for each fork, when a thread first waits or looks into its message queue
//          (resume_after_fork); with no lock held. May allocate, start threads and take locks. It must do nothing
//          twice: a fork may come while it runs, and then it runs again in that child.
//
// Not called: by vfork, posix_spawn and _Fork. A handler of the program's own that is registered with pthread_atfork
// runs while the platform is at rest if it was registered before the platform was loaded, and must not call it then.

#include <atomic>
#include <cstdint>

#include "platform/export.h"

namespace zr::platform {

// The families in their order, lower ones first.
enum class ForkRank {
    Base,
    Kernel,
    Windowing,
    Files,
    Store,
    Registry,
    Time,
    Com,
    Pim,
    Shell,
    Modules,
    IpHelper,
    Bus,
    Connection,
    Tapi,
    Mapi,
    Gdi,
    Html,
    Count,
};

struct ForkHandlers {
    void (*prepare)() noexcept;
    void (*parent)() noexcept;
    void (*child)() noexcept;
    void (*resume)() noexcept = nullptr;
};

// A static object of its family, one for each rank. It is never taken back.
struct ZRPLATFORM_API AtFork {
    AtFork(ForkRank rank, const ForkHandlers& handlers) noexcept;
};

// How many forks lie between this process and the first one of its line. What carries another number was made by an
// ancestor: a thread of that number is not in this process.
ZRPLATFORM_API extern std::atomic<std::uint32_t> forks_behind;
inline std::uint32_t fork_generation() noexcept {
    return forks_behind.load(std::memory_order_relaxed);
}

// Called where a thread begins to depend on what other threads of the platform do. A load in a process that was not
// forked. Other threads may go on before what the first one resumes works.
ZRPLATFORM_API extern std::atomic<bool> resume_wanted;
ZRPLATFORM_API void resume_families() noexcept;
inline void resume_after_fork() noexcept {
    if (resume_wanted.load(std::memory_order_relaxed)) [[unlikely]]
        resume_families();
}

}  // namespace zr::platform
