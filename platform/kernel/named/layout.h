#pragma once

// The memory that holds the user's named objects, as every process of theirs has it (base/shared_memory.h).
//
// Any process may be killed between any two instructions. So each fact is one field, and each change of a fact is one
// store: `state` of an entry says whether the rest of it counts. Everything else here (the links of queues and of hash
// chains, hints, the mark of waiters) is derived from the facts and made anew by whoever finds the lock left by a dead
// owner. Fields are guarded by the header's lock; those that are also touched without it are atomic.
//
// Processes with addresses of 32 and of 64 bits share it, so nothing here has another size or place in one of them: no
// pointers, no size_t, nothing of the C library's, and fields of 8 bytes where no padding is needed before them (x86
// aligns them by 4 within structures, ARM by 8). The assertions below say so.

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "named/robust_lock.h"

namespace zr::platform::named {

// The memory is used by segments; a table is a list of segments, each full of its entries.
inline constexpr std::uint32_t kSegment = 64 * 1024;
inline constexpr std::uint32_t kChunks = 256;  // segments that a table can have
inline constexpr std::uint32_t kProcesses = 512;
inline constexpr std::uint32_t kBuckets = 4096;
inline constexpr std::uint32_t kNone = 0xFFFFFFFF;

inline constexpr std::uint64_t kMagic = 0x31626F2D6D616E7A;
inline constexpr const char* kFileName = "objects-5";

// Another process would know nothing of a lock that stood beside an atomic.
static_assert(std::atomic<std::uint64_t>::is_always_lock_free && std::atomic<std::uint32_t>::is_always_lock_free);
static_assert(alignof(std::atomic<std::uint64_t>) == 8);

// --- The state word of an object -------------------------------------------------------------------------------------
//
// Changed by compare-and-swap without the lock while kWaiters is not set, else by a holder of the lock only. It carries
// the entry's generation: a thread of a process that was declared dead, in its last instructions, cannot change an
// object that has taken the entry since.

inline constexpr std::uint64_t kWaiters = std::uint64_t{1} << 63;
inline constexpr int kGenerationShift = 45;
inline constexpr std::uint32_t kGenerationMask = (1u << 18) - 1;
inline constexpr std::uint64_t kAbandoned = std::uint64_t{1} << 44;  // a free mutex whose owner ended
inline constexpr std::uint64_t kOwner = kAbandoned - 1;              // a mutex's owner, 0 when it is free
inline constexpr std::uint64_t kSignalled = 1;                       // an event's, a timer's
inline constexpr std::uint64_t kCount = 0x7FFFFFFF;                  // a semaphore's

// An owner: the process's place, the place's generation, and the thread's identifier.
inline constexpr int kTidBits = 22;  // the most that the kernel hands out
inline constexpr int kProcessGenerationBits = 12;
inline constexpr std::uint32_t kTidMask = (1u << kTidBits) - 1;
inline constexpr std::uint32_t kProcessGenerationMask = (1u << kProcessGenerationBits) - 1;

constexpr std::uint64_t make_owner(std::uint32_t place, std::uint32_t generation, std::uint32_t tid) noexcept {
    return (std::uint64_t{place} << (kTidBits + kProcessGenerationBits)) | (std::uint64_t{generation} << kTidBits) |
           (tid & kTidMask);
}
constexpr std::uint32_t owner_place(std::uint64_t word) noexcept {
    return static_cast<std::uint32_t>((word & kOwner) >> (kTidBits + kProcessGenerationBits));
}
constexpr std::uint32_t owner_generation(std::uint64_t word) noexcept {
    return static_cast<std::uint32_t>(word >> kTidBits) & kProcessGenerationMask;
}
constexpr std::uint32_t owner_tid(std::uint64_t word) noexcept {
    return static_cast<std::uint32_t>(word) & kTidMask;
}

// --- Processes -------------------------------------------------------------------------------------------------------

// A place that a process takes at its first use of named objects. `life` is the word of a robust lock that a thread of
// the process holds for as long as the process lives (named/robust_lock.h): the kernel marks it when the process ends,
// and wakes who sleeps on it.
struct alignas(64) Process {
    enum State : std::uint32_t { Vacant, Taken };

    std::atomic<std::uint32_t> life;
    std::atomic<std::uint32_t> state;
    std::atomic<std::uint32_t> generation;  // counts up when the place is given back
    std::atomic<std::uint32_t> id;
    std::atomic<std::uint64_t> birth;  // no two processes have the same; modulo kProcesses it is the place
};
static_assert(sizeof(Process) == 64 && offsetof(Process, birth) == 16);

// --- Objects ---------------------------------------------------------------------------------------------------------

enum class Kind : std::uint32_t { Event, Mutex, FileMapping, Semaphore, Timer };

// Which processes ...
struct ProcessSet {
    alignas(8) std::uint64_t bits[kProcesses / 64];

    void add(std::uint32_t place) noexcept { bits[place / 64] |= std::uint64_t{1} << place % 64; }
    void remove(std::uint32_t place) noexcept { bits[place / 64] &= ~(std::uint64_t{1} << place % 64); }
    bool has(std::uint32_t place) const noexcept { return (bits[place / 64] >> place % 64 & 1) != 0; }
    bool empty() const noexcept {
        std::uint64_t any = 0;
        for (const std::uint64_t part : bits) {
            any |= part;
        }
        return any == 0;
    }
};

inline constexpr std::uint32_t kInlineName = 20;
inline constexpr std::uint32_t kNotSet = kNone;

struct alignas(64) Object {
    // Nameless: no process has a handle to it any more, but some thread still waits for it or owns it.
    enum State : std::uint32_t { Vacant, Named, Nameless };

    std::atomic<std::uint64_t> word;
    std::atomic<std::uint32_t> state;
    Kind kind;
    std::uint32_t generation;
    std::uint32_t manual_reset;  // of an event or a timer
    std::uint32_t hash;
    std::uint32_t next_in_bucket;  // derived
    std::uint32_t first_waiter;    // derived: blocks, by the age of their waits
    std::uint32_t last_waiter;
    std::uint32_t name_length;
    std::uint32_t name_rest;   // the first cell of what does not fit here
    std::uint64_t size;        // of a mapping, in bytes; the most that a semaphore counts; a timer's period
    std::uint64_t contents;    // the number of the memory with its contents, or in the name of the link to its file;
                               // when a timer is due
    std::uint64_t device;      // which file that is
    std::uint64_t inode;       // 0: memory
    std::uint32_t protection;  // of a mapping; by which clock a timer is set, or kNotSet: says whether the others count
    ProcessSet open;           // ... have a handle
    ProcessSet used;           // ... have a handle, wait for it or own it
    char16_t name[kInlineName];
};
static_assert(sizeof(Object) == 256 && offsetof(Object, size) == 48 && offsetof(Object, protection) == 80 &&
              offsetof(Object, open) == 88 && offsetof(Object, used) == 152 && offsetof(Object, name) == 216);

// A piece of a long name.
struct NameCell {
    std::atomic<std::uint32_t> object;  // whose name, counted from 1; 0: vacant
    std::uint32_t next;
    char16_t text[60];
};
static_assert(sizeof(NameCell) == 128 && offsetof(NameCell, text) == 8);

// --- Sleepers --------------------------------------------------------------------------------------------------------

inline constexpr std::uint32_t kBlocks = 64;

// One object of one sleeper's wait. Its number is the sleeper's times kBlocks, plus its place among the sleeper's.
struct Block {
    std::uint32_t object;
    std::uint32_t place;     // in the caller's list
    std::uint32_t before;    // what a semaphore counted when it was about to be taken
    std::uint32_t previous;  // derived
    std::uint32_t next;      // derived
};

// A thread that waits for named objects. What a wait takes is taken for it by the process that changed the object: the
// state goes to Granting, everything is taken, the state goes to Granted. Taking it once more changes nothing, so who
// finds Granting after a kill goes on with it.
struct alignas(64) Sleeper {
    enum State : std::uint32_t { Vacant, Idle, Waiting, Granting, Granted };
    static constexpr std::uint32_t kAllBlocks = kNone;

    std::atomic<std::uint32_t> parking;  // the word that the thread sleeps on
    std::atomic<std::uint32_t> state;
    std::uint32_t process;
    std::uint32_t process_generation;
    std::uint32_t thread;
    std::uint32_t wait_all;
    std::uint32_t mixed;    // waits for objects of its own process too, which others cannot see
    std::uint32_t count;    // of blocks
    std::uint32_t granted;  // the block that ended the wait, or kAllBlocks
    std::uint32_t abandoned;
    std::uint64_t ticket;  // who began to wait earlier has a lower one
    Block blocks[kBlocks];
};
static_assert(sizeof(Block) == 20);
static_assert(sizeof(Sleeper) == 1344 && offsetof(Sleeper, ticket) == 40 && offsetof(Sleeper, blocks) == 48);

// --- The header ------------------------------------------------------------------------------------------------------

enum class Table : std::uint32_t { Objects, Cells, Sleepers };
inline constexpr std::uint32_t kTables = 3;

struct Header {
    std::atomic<std::uint64_t> magic;  // written last
    RobustLock lock;
    std::uint32_t unused;
    std::uint64_t tickets;
    std::uint64_t births;                                 // how many took a place
    std::uint64_t contents;                               // the last number given to a link to a file
    std::atomic<std::uint32_t> timers;                    // changes when those who signal timers are to look again
    std::atomic<std::uint32_t> segments;                  // derived: how many are in use
    std::uint32_t hints[kTables];                         // derived: no vacant entry below
    std::atomic<std::uint32_t> chunks[kTables][kChunks];  // the segments of each table, 0: none
    std::uint32_t buckets[kBuckets];                      // derived
};

inline constexpr std::uint32_t kFirstSegment = 2;  // behind the header and the processes
inline constexpr std::size_t kWholeSize = std::size_t{kSegment} * (kFirstSegment + kTables * kChunks);
static_assert(sizeof(Header) <= kSegment && sizeof(Process) * kProcesses <= kSegment);
static_assert(offsetof(Header, lock) == 8 && offsetof(Header, tickets) == 16 && offsetof(Header, timers) == 40 &&
              offsetof(Header, chunks) == 60 && offsetof(Header, buckets) == 3132 && sizeof(Header) == 19520);

}  // namespace zr::platform::named
