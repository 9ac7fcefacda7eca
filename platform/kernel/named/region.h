#pragma once

// The memory of named objects, its tables and its lock.

#include <string>

#include "base/shared_memory.h"
#include "futex.h"
#include "named/layout.h"

namespace zr::platform::named {

template <class Entry>
struct TableOf;
template <>
struct TableOf<Object> {
    static constexpr Table kTable = Table::Objects;
};
template <>
struct TableOf<NameCell> {
    static constexpr Table kTable = Table::Cells;
};
template <>
struct TableOf<Sleeper> {
    static constexpr Table kTable = Table::Sleepers;
};

class Region {
public:
    Region() noexcept = default;
    Region(const Region&) = delete;
    Region& operator=(const Region&) = delete;

    // Finds the memory, whose file the caller has locked, in the runtime directory; makes it anew where there is none,
    // or no process of those that have a place in it lives. Without `make`: ENOENT then. 0 or an error number, and then
    // nothing is left.
    int attach(const FileLock& lock, const std::string& folder, bool make) noexcept;
    void detach() noexcept;

    // Tells this memory from every other one.
    std::uint64_t number() const noexcept { return memory_.number(); }

    Header& header() const noexcept { return *reinterpret_cast<Header*>(base_); }
    Process& process(std::uint32_t place) const noexcept { return reinterpret_cast<Process*>(base_ + kSegment)[place]; }
    const std::string& folder() const noexcept { return folder_; }

    // Entries by number.
    template <class Entry>
    static constexpr std::uint32_t kPerChunk = kSegment / sizeof(Entry);
    template <class Entry>
    Entry& at(std::uint32_t index) const noexcept {
        const auto table = static_cast<std::uint32_t>(TableOf<Entry>::kTable);
        const std::uint32_t segment = header().chunks[table][index / kPerChunk<Entry>].load(std::memory_order_acquire);
        return reinterpret_cast<Entry*>(base_ + std::size_t{segment} * kSegment)[index % kPerChunk<Entry>];
    }
    template <class Entry>
    std::uint32_t count() const noexcept {
        const auto table = static_cast<std::uint32_t>(TableOf<Entry>::kTable);
        std::uint32_t chunks = 0;
        while (chunks < kChunks && header().chunks[table][chunks].load(std::memory_order_relaxed) != 0) {
            ++chunks;
        }
        return chunks * kPerChunk<Entry>;
    }

    // The number of an entry that `is_vacant` says is, with the lock held; kNone and an error number when there is no
    // room. The entry stays vacant until the caller says otherwise.
    template <class Entry, class IsVacant>
    std::uint32_t find_vacant(IsVacant is_vacant, int& error) noexcept {
        std::uint32_t& hint = header().hints[static_cast<std::uint32_t>(TableOf<Entry>::kTable)];
        const std::uint32_t count = this->count<Entry>();
        for (; hint < count; ++hint) {
            if (is_vacant(at<Entry>(hint))) return hint;
        }
        error = grow(TableOf<Entry>::kTable);
        return error == 0 ? hint : kNone;
    }
    template <class Entry>
    void now_vacant(std::uint32_t index) noexcept {
        std::uint32_t& hint = header().hints[static_cast<std::uint32_t>(TableOf<Entry>::kTable)];
        if (index < hint) hint = index;
    }

    // Whether the process at that place, of that generation, still lives.
    bool lives(std::uint32_t place, std::uint32_t generation) const noexcept;
    bool lives(std::uint32_t place) const noexcept;
    // Whether the process of that birth does.
    bool lives_by_birth(std::uint64_t birth) const noexcept;

    // Who watches that process looks again what to do, whether it is about to sleep or sleeps: it does so while the
    // mark of waiters is in the word.
    void wake_watch_of(std::uint32_t place) const noexcept {
        std::atomic<std::uint32_t>& word = process(place).life;
        word.fetch_and(~std::uint32_t{FUTEX_WAITERS}, std::memory_order_acq_rel);
        futex_wake(&word, kEverybody, FutexScope::Shared);
    }

    // A word to wake a sleeper on once the lock has been given back, so that the sleeper does not run into it. With the
    // lock held.
    void wake_later(const std::atomic<std::uint32_t>& word) noexcept {
        if (to_wake_count_ < kMostToWake) {
            to_wake_[to_wake_count_++] = &word;
        } else {
            futex_wake(&word, kEverybody, FutexScope::Shared);
        }
    }

    std::string contents_path(std::uint64_t number) const;

private:
    void initialise() noexcept;
    int grow(Table table) noexcept;
    bool anybody_lives() const noexcept;

    friend class Hold;
    static constexpr std::uint32_t kMostToWake = 16;

    SharedMemory memory_;
    char* base_ = nullptr;
    const void* to_wake_[kMostToWake];  // guarded by the lock
    std::uint32_t to_wake_count_ = 0;
    std::string folder_;
};

// Holds the region's lock. Who finds it left by a thread that was killed repairs the region first.
class Hold {
public:
    explicit Hold(Region& region) noexcept;
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

private:
    Region& region_;
};

}  // namespace zr::platform::named
