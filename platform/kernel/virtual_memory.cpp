#include <errno.h>
#include <sys/mman.h>

#include <mutex>
#include <new>

#include "base/fail.h"
#include "kernel/thread.h"
#include "page_protection.h"
#include "platform/base.h"
#include "platform/memory.h"
#include "regions.h"

namespace zr::platform {
namespace {

void* map(std::uintptr_t address, std::size_t size, int protection, int flags) noexcept {
    return mmap(reinterpret_cast<void*>(address), size, protection, MAP_PRIVATE | MAP_ANONYMOUS | flags, -1, 0);
}

// New addresses for a region, anywhere. The host aligns to pages only: what is too much at both ends goes back.
bool map_anywhere(std::size_t size, int protection, Range& out) noexcept {
    const std::size_t spare = region_granularity() - page_size();
    if (size > SIZE_MAX - spare) return false;
    void* const found = map(0, size + spare, protection, 0);
    if (found == MAP_FAILED) return false;
    const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(found);
    out.begin = round_down(first + region_granularity() - 1, region_granularity());
    out.end = out.begin + size;
    if (out.begin != first) munmap(found, out.begin - first);
    if (out.end != first + size + spare) munmap(reinterpret_cast<void*>(out.end), first + size + spare - out.end);
    return true;
}

// New addresses for a region at a given place. Kernels that do not know the flag take the place as a wish. Nothing lies
// at NULL, though the host would let a privileged process have that.
DWORD map_at(Range place, int protection) noexcept {
    if (place.begin == 0) return ERROR_INVALID_ADDRESS;
    void* const found = map(place.begin, place.size(), protection, MAP_FIXED_NOREPLACE);
    if (found == place.data()) return ERROR_SUCCESS;
    if (found == MAP_FAILED) return errno == ENOMEM ? ERROR_NOT_ENOUGH_MEMORY : ERROR_INVALID_ADDRESS;
    munmap(found, place.size());
    return ERROR_INVALID_ADDRESS;
}

// `committed` is what the pages may be used for at once, or Region::kReserved.
void* reserve(std::uintptr_t address, std::size_t size, DWORD protection, DWORD committed, int host) noexcept {
    Range region;
    if (!pages_of(address, size, region_granularity(), region)) return fail(ERROR_INVALID_PARAMETER, nullptr);
    Regions& regions = Regions::get();
    const std::lock_guard guard(regions.lock);
    if (address != 0) {
        const DWORD error = map_at(region, host);
        if (error != ERROR_SUCCESS) return fail(error, nullptr);
    } else if (!map_anywhere(region.size(), host, region)) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
    if (!regions.add(region, protection, committed)) {
        munmap(region.data(), region.size());
        return fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
    return region.data();
}

// Makes sure that what the table has to note down about the pages it can.
bool prepare(Region& region, const Range& pages) noexcept {
    try {
        region.split(pages);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void* commit(std::uintptr_t address, std::size_t size, DWORD protection, int host) noexcept {
    Range pages;
    if (!pages_of(address, size, page_size(), pages)) return fail(ERROR_INVALID_PARAMETER, nullptr);
    Regions& regions = Regions::get();
    const std::lock_guard guard(regions.lock);
    Region* const region = regions.find(pages.begin);
    if (!region || !region->range().holds(pages)) return fail(ERROR_INVALID_ADDRESS, nullptr);
    if (!prepare(*region, pages) || mprotect(pages.data(), pages.size(), host) != 0) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
    region->set(pages, protection);
    return pages.data();
}

DWORD release(std::uintptr_t address, std::size_t size) noexcept {
    if (size != 0) return ERROR_INVALID_PARAMETER;
    Regions& regions = Regions::get();
    const std::lock_guard guard(regions.lock);
    const Region* const region = regions.find(address);
    if (!region || region->range().begin != address) return ERROR_INVALID_ADDRESS;
    if (munmap(region->range().data(), region->range().size()) != 0) return ERROR_NOT_ENOUGH_MEMORY;
    regions.remove(address);
    return ERROR_SUCCESS;
}

// Which pages VirtualFree means in this region; an error code.
DWORD pages_to_decommit(const Range& region, std::uintptr_t address, std::size_t size, Range& out) noexcept {
    if (size == 0) {
        out = region;
        return address == region.begin ? ERROR_SUCCESS : ERROR_INVALID_ADDRESS;
    }
    const bool within = pages_of(address, size, page_size(), out) && out.end <= region.end;
    return within ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER;
}

DWORD decommit(std::uintptr_t address, std::size_t size) noexcept {
    Regions& regions = Regions::get();
    const std::lock_guard guard(regions.lock);
    Region* const region = regions.find(address);
    if (!region) return ERROR_INVALID_ADDRESS;
    Range pages;
    if (const DWORD error = pages_to_decommit(region->range(), address, size, pages)) return error;
    if (!prepare(*region, pages)) return ERROR_NOT_ENOUGH_MEMORY;
    // Fresh pages in the place of the old ones: gives the memory back, and the host's account of it too.
    if (map(pages.begin, pages.size(), PROT_NONE, MAP_FIXED) == MAP_FAILED) return ERROR_NOT_ENOUGH_MEMORY;
    region->set(pages, Region::kReserved);
    return ERROR_SUCCESS;
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

LPVOID VirtualAlloc(LPVOID address, SIZE_T size, DWORD type, DWORD protection) {
    cancellation_point();
    const bool reserves = (type & MEM_RESERVE) != 0 || address == nullptr;
    const bool commits = (type & MEM_COMMIT) != 0;
    constexpr DWORD known = MEM_COMMIT | MEM_RESERVE | MEM_TOP_DOWN;
    if (size == 0 || (type & (MEM_COMMIT | MEM_RESERVE)) == 0 || (type & ~known) != 0) {
        return fail(ERROR_INVALID_PARAMETER, nullptr);
    }
    int host = PROT_NONE;
    if (const DWORD error = host_protection(protection, host)) return fail(error, nullptr);
    const std::uintptr_t where = reinterpret_cast<std::uintptr_t>(address);
    if (!reserves) return commit(where, size, protection, host);
    return reserve(where, size, protection, commits ? protection : Region::kReserved, commits ? host : PROT_NONE);
}

BOOL VirtualFree(LPVOID address, SIZE_T size, DWORD type) {
    const std::uintptr_t where = reinterpret_cast<std::uintptr_t>(address);
    DWORD error = ERROR_INVALID_PARAMETER;
    if (type == MEM_DECOMMIT) error = decommit(where, size);
    if (type == MEM_RELEASE) error = release(where, size);
    if (error == ERROR_SUCCESS) return TRUE;
    return fail(error, FALSE);
}
