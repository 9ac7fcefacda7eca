#include "regions.h"

#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <new>

#include "at_fork.h"

namespace zr::platform {
namespace {

constexpr std::uintptr_t kRegionGranularity = 0x10000;

const auto host_page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));

// Never destroyed: objects that live as long as the process give their memory back at its very end.
alignas(Regions) unsigned char regions_storage[sizeof(Regions)];
Regions& all_regions = *new (regions_storage) Regions;

}  // namespace

std::uintptr_t page_size() noexcept {
    return host_page;
}

std::uintptr_t region_granularity() noexcept {
    return std::max(kRegionGranularity, page_size());
}

bool pages_of(std::uintptr_t address, std::size_t size, std::uintptr_t unit, Range& out) noexcept {
    const std::uintptr_t last = UINTPTR_MAX - (page_size() - 1);
    if (address > last || size > last - address) return false;
    out = {round_down(address, unit), round_down(address + size + page_size() - 1, page_size())};
    return true;
}

Region::Region(Range range, DWORD protection, DWORD committed) : range_(range), protection_(protection) {
    runs_.emplace(range.begin, committed);
}

Region::Run Region::run_at(std::uintptr_t address) const noexcept {
    const auto next = runs_.upper_bound(address);
    const auto run = std::prev(next);
    return {{run->first, next == runs_.end() ? range_.end : next->first}, run->second};
}

bool Region::is_committed(const Range& pages) const noexcept {
    for (std::uintptr_t at = pages.begin; at < pages.end;) {
        const Run run = run_at(at);
        if (run.protection == kReserved) return false;
        at = run.range.end;
    }
    return true;
}

void Region::split(const Range& pages) {
    for (const std::uintptr_t at : {pages.begin, pages.end}) {
        if (at < range_.end) runs_.emplace(at, run_at(at).protection);
    }
}

Region::Runs::iterator Region::join_with_previous(Runs::iterator run) noexcept {
    if (run == runs_.begin() || run == runs_.end()) return run;
    const auto previous = std::prev(run);
    if (previous->second != run->second) return run;
    runs_.erase(run);
    return previous;
}

void Region::set(const Range& pages, DWORD protection) noexcept {
    const auto first = runs_.find(pages.begin);
    const auto behind = runs_.lower_bound(pages.end);
    runs_.erase(std::next(first), behind);
    first->second = protection;
    join_with_previous(first);
    join_with_previous(behind);
}

Regions& Regions::get() noexcept {
    return all_regions;
}

bool Regions::add(Range range, DWORD protection, DWORD committed) noexcept {
    try {
        regions_.try_emplace(range.begin, range, protection, committed);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

Region* Regions::find(std::uintptr_t address, Range* gap) noexcept {
    const auto after = regions_.upper_bound(address);
    if (gap) *gap = {0, after == regions_.end() ? UINTPTR_MAX : after->first};
    if (after == regions_.begin()) return nullptr;
    Region& region = std::prev(after)->second;
    if (address < region.range().end) return &region;
    if (gap) gap->begin = region.range().end;
    return nullptr;
}

void at_fork::lock_pages() noexcept {
    Regions::get().lock.lock();
}

void at_fork::unlock_pages() noexcept {
    Regions::get().lock.unlock();
}

}  // namespace zr::platform
