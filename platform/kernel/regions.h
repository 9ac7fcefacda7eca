#pragma once

// The regions of addresses that VirtualAlloc has reserved, and which of their pages are committed to what.

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>

#include "platform/types.h"

namespace zr::platform {

// The bytes from `begin` up to `end`.
struct Range {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;

    std::size_t size() const noexcept { return end - begin; }
    void* data() const noexcept { return reinterpret_cast<void*>(begin); }
    bool holds(const Range& other) const noexcept { return begin <= other.begin && other.end <= end; }
};

std::uintptr_t page_size() noexcept;
// What regions begin at multiples of.
std::uintptr_t region_granularity() noexcept;
inline std::uintptr_t round_down(std::uintptr_t value, std::uintptr_t unit) noexcept {
    return value & ~(unit - 1);
}
// The whole pages that hold the bytes, with the start rounded down to `unit`. False when they run past the last
// address.
bool pages_of(std::uintptr_t address, std::size_t size, std::uintptr_t unit, Range& out) noexcept;

// One region. Its pages are runs of the same protection, one behind the other without gaps.
class Region {
public:
    static constexpr DWORD kReserved = 0;  // a run without memory

    // May throw std::bad_alloc, as split() may.
    Region(Range range, DWORD protection, DWORD committed);

    const Range& range() const noexcept { return range_; }
    DWORD allocation_protection() const noexcept { return protection_; }

    struct Run {
        Range range;
        DWORD protection;  // or kReserved
    };
    Run run_at(std::uintptr_t address) const noexcept;
    bool is_committed(const Range& pages) const noexcept;

    // Makes sure that runs begin and end where the pages do, so that set() cannot fail. Nothing else changes by it.
    void split(const Range& pages);
    void set(const Range& pages, DWORD protection) noexcept;

private:
    using Runs = std::map<std::uintptr_t, DWORD>;  // by where they begin

    Runs::iterator after(std::uintptr_t address) noexcept { return runs_.upper_bound(address); }
    Runs::iterator join_with_previous(Runs::iterator run) noexcept;

    Range range_;
    DWORD protection_;
    Runs runs_;
};

// All of them. The lock is held while the host changes pages, so that no call touches addresses that another one is
// giving back.
class Regions {
public:
    static Regions& get() noexcept;

    std::mutex lock;

    // False without memory.
    bool add(Range range, DWORD protection, DWORD committed) noexcept;
    void remove(std::uintptr_t begin) noexcept { regions_.erase(begin); }
    // The region that holds the address; NULL when none does. Then `gap` is what lies between the next ones.
    Region* find(std::uintptr_t address, Range* gap = nullptr) noexcept;

private:
    std::map<std::uintptr_t, Region> regions_;
};

}  // namespace zr::platform
