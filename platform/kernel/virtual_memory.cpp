#include <errno.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <new>

#include "at_fork.h"
#include "base/fail.h"
#include "kernel/thread.h"
#include "platform/base.h"
#include "platform/memory.h"

namespace zr::platform {
namespace {

constexpr std::uintptr_t kGranularity = 0x10000;

const auto host_page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));

std::uintptr_t page_size() noexcept {
    return host_page;
}

std::uintptr_t granularity() noexcept {
    return std::max(kGranularity, page_size());
}

std::uintptr_t round_down(std::uintptr_t value, std::uintptr_t unit) noexcept {
    return value & ~(unit - 1);
}

// The bytes from `begin` up to `end`.
struct Range {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;

    std::size_t size() const noexcept { return end - begin; }
    void* data() const noexcept { return reinterpret_cast<void*>(begin); }
};

// The whole pages that hold the bytes, with the start rounded down to `unit`. False when they run past the last
// address.
bool pages_of(std::uintptr_t address, std::size_t size, std::uintptr_t unit, Range& out) noexcept {
    const std::uintptr_t last = UINTPTR_MAX - (page_size() - 1);
    if (address > last || size > last - address) return false;
    out = {round_down(address, unit), round_down(address + size + page_size() - 1, page_size())};
    return true;
}

// Which regions are reserved. Its lock is held while the host changes their pages, so that no call touches addresses
// that another one is giving back.
class Regions {
public:
    std::mutex lock;

    bool add(Range range) noexcept {
        try {
            regions_.emplace(range.begin, range);
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }
    const Range* find(std::uintptr_t address) const noexcept {
        auto after = regions_.upper_bound(address);
        if (after == regions_.begin()) return nullptr;
        const Range& region = (--after)->second;
        return address < region.end ? &region : nullptr;
    }
    void remove(std::uintptr_t begin) noexcept { regions_.erase(begin); }

private:
    std::map<std::uintptr_t, Range> regions_;
};

// Never destroyed: objects that live as long as the process give their memory back at its very end.
alignas(Regions) unsigned char storage[sizeof(Regions)];
Regions& all_regions = *new (storage) Regions;

Regions& regions() noexcept {
    return all_regions;
}

// The host's form of a protection; the last error for one that there is not.
bool host_protection(DWORD protection, int& out) noexcept {
    constexpr DWORD modifiers = PAGE_GUARD | PAGE_NOCACHE | PAGE_WRITECOMBINE;
    const DWORD access = protection & ~modifiers;
    const DWORD caching = protection & (PAGE_NOCACHE | PAGE_WRITECOMBINE);
    switch (access) {
        case PAGE_NOACCESS:
            out = PROT_NONE;
            break;
        case PAGE_READONLY:
            out = PROT_READ;
            break;
        case PAGE_READWRITE:
            out = PROT_READ | PROT_WRITE;
            break;
        case PAGE_EXECUTE:
            out = PROT_EXEC;
            break;
        case PAGE_EXECUTE_READ:
            out = PROT_READ | PROT_EXEC;
            break;
        case PAGE_EXECUTE_READWRITE:
            out = PROT_READ | PROT_WRITE | PROT_EXEC;
            break;
        default:
            fail(ERROR_INVALID_PARAMETER, nullptr);
            return false;
    }
    if (caching == (PAGE_NOCACHE | PAGE_WRITECOMBINE) || (access == PAGE_NOACCESS && protection != access)) {
        fail(ERROR_INVALID_PARAMETER, nullptr);
        return false;
    }
    if ((protection & PAGE_GUARD) != 0) {
        fail(ERROR_NOT_SUPPORTED, nullptr);
        return false;
    }
    return true;
}

void* map(std::uintptr_t address, std::size_t size, int protection, int flags) noexcept {
    return mmap(reinterpret_cast<void*>(address), size, protection, MAP_PRIVATE | MAP_ANONYMOUS | flags, -1, 0);
}

// New addresses for a region, anywhere. The host aligns to pages only: what is too much at both ends goes back.
bool map_anywhere(std::size_t size, int protection, Range& out) noexcept {
    const std::size_t spare = granularity() - page_size();
    if (size > SIZE_MAX - spare) return false;
    void* const found = map(0, size + spare, protection, 0);
    if (found == MAP_FAILED) return false;
    const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(found);
    out.begin = round_down(first + granularity() - 1, granularity());
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

void* reserve(std::uintptr_t address, std::size_t size, int protection) noexcept {
    Range region;
    if (!pages_of(address, size, granularity(), region)) return fail(ERROR_INVALID_PARAMETER, nullptr);
    const std::lock_guard guard(regions().lock);
    if (address != 0) {
        const DWORD error = map_at(region, protection);
        if (error != ERROR_SUCCESS) return fail(error, nullptr);
    } else if (!map_anywhere(region.size(), protection, region)) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
    if (!regions().add(region)) {
        munmap(region.data(), region.size());
        return fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
    return region.data();
}

void* commit(std::uintptr_t address, std::size_t size, int protection) noexcept {
    Range pages;
    if (!pages_of(address, size, page_size(), pages)) return fail(ERROR_INVALID_PARAMETER, nullptr);
    const std::lock_guard guard(regions().lock);
    const Range* region = regions().find(pages.begin);
    if (!region || pages.end > region->end) return fail(ERROR_INVALID_ADDRESS, nullptr);
    if (mprotect(pages.data(), pages.size(), protection) != 0) return fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    return pages.data();
}

DWORD release(std::uintptr_t address, std::size_t size) noexcept {
    if (size != 0) return ERROR_INVALID_PARAMETER;
    const std::lock_guard guard(regions().lock);
    const Range* region = regions().find(address);
    if (!region || region->begin != address) return ERROR_INVALID_ADDRESS;
    if (munmap(region->data(), region->size()) != 0) return ERROR_NOT_ENOUGH_MEMORY;
    regions().remove(address);
    return ERROR_SUCCESS;
}

// Which pages VirtualFree means in this region.
bool pages_to_decommit(const Range& region, std::uintptr_t address, std::size_t size, Range& out) noexcept {
    if (size == 0) {
        out = region;
        return address == region.begin;
    }
    return pages_of(address, size, page_size(), out) && out.end <= region.end;
}

DWORD decommit(std::uintptr_t address, std::size_t size) noexcept {
    const std::lock_guard guard(regions().lock);
    const Range* region = regions().find(address);
    if (!region) return ERROR_INVALID_ADDRESS;
    Range pages;
    if (!pages_to_decommit(*region, address, size, pages)) return ERROR_INVALID_PARAMETER;
    // Fresh pages in the place of the old ones: gives the memory back, and the host's account of it too.
    if (map(pages.begin, pages.size(), PROT_NONE, MAP_FIXED) == MAP_FAILED) return ERROR_NOT_ENOUGH_MEMORY;
    return ERROR_SUCCESS;
}

}  // namespace

void at_fork::lock_pages() noexcept {
    regions().lock.lock();
}

void at_fork::unlock_pages() noexcept {
    regions().lock.unlock();
}

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
    if (!host_protection(protection, host)) return nullptr;
    const std::uintptr_t where = reinterpret_cast<std::uintptr_t>(address);
    return reserves ? reserve(where, size, commits ? host : PROT_NONE) : commit(where, size, host);
}

BOOL VirtualFree(LPVOID address, SIZE_T size, DWORD type) {
    const std::uintptr_t where = reinterpret_cast<std::uintptr_t>(address);
    DWORD error = ERROR_INVALID_PARAMETER;
    if (type == MEM_DECOMMIT) error = decommit(where, size);
    if (type == MEM_RELEASE) error = release(where, size);
    if (error == ERROR_SUCCESS) return TRUE;
    SetLastError(error);
    return FALSE;
}
