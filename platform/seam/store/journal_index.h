#pragma once

// The index of a journal: what SQLite keeps in memory that all processes share which have a store open.
//
// SQLite would map a file of its own (`NAME-shm`) for it. Whoever makes that shorter ends the programs that touch it,
// and whoever writes into it has them read wrong pages. So it lies in memory that is no file (shared_memory.h), found
// by the name and number of the store's file; of NAME-shm only the locks are used. It ends with the last process that
// has it: who comes next finds zeros, which SQLite makes an index of from the journal, under its own lock.
//
// A child made by fork does not have it: the stores close their connections before a fork, and one that a change keeps
// open is never used in the child.

#include <cstddef>
#include <functional>
#include <string>

#include "base/shared_memory.h"

namespace zr::platform {

class JournalIndex {
public:
    // As large as SQLite asks for it, and as many as 16 GiB of journal need; memory is spent on what is touched.
    static constexpr std::size_t kRegionSize = 32768;
    static constexpr std::size_t kRegions = 1024;

    // Of the file of that number, which `path` names. Where no process has it yet it is made, once nobody has the locks
    // of NAME-shm: who has them without this memory (another layer's connection, another IPC namespace's) would keep an
    // index of its own; ETIMEDOUT after five seconds. `lock` is called before it is there for others, with whether
    // it is made now: takes the shared lock that says that somebody has the store open, keeps others from making an
    // index in the file (index_guard.h), and returns whether it could. 0 or an error number.
    int attach(const char* path, unsigned long long number, const std::function<bool(bool)>& lock) noexcept;

    unsigned char* region(std::size_t n) const noexcept {
        return static_cast<unsigned char*>(memory_.data()) + n * kRegionSize;
    }

    // What is in it is not to be believed: the next one to read makes it anew.
    void clear() const noexcept;

    // Changes the header that others compare before each call, where some process has the index.
    static void disturb(const std::string& path, unsigned long long number) noexcept;

private:
    SharedMemory memory_;
};

}  // namespace zr::platform
