// What is at an address, and changing what may be done there.

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <new>

#include "base/fail.h"
#include "host_maps.h"
#include "kernel/thread.h"
#include "page_protection.h"
#include "platform/base.h"
#include "platform/memory.h"
#include "regions.h"
#include "views.h"

namespace zr::platform {
namespace {

// The page protection that lets the host's do.
DWORD page_protection(int host, bool copies) noexcept {
    const bool executes = (host & PROT_EXEC) != 0;
    if ((host & PROT_WRITE) != 0) {
        if (copies) return executes ? PAGE_EXECUTE_WRITECOPY : PAGE_WRITECOPY;
        return executes ? PAGE_EXECUTE_READWRITE : PAGE_READWRITE;
    }
    if ((host & PROT_READ) != 0) return executes ? PAGE_EXECUTE_READ : PAGE_READONLY;
    return executes ? PAGE_EXECUTE : PAGE_NOACCESS;
}

MEMORY_BASIC_INFORMATION in_region(const Region& region, std::uintptr_t page) noexcept {
    const Region::Run run = region.run_at(page);
    MEMORY_BASIC_INFORMATION out{};
    out.BaseAddress = reinterpret_cast<PVOID>(page);
    out.AllocationBase = region.range().data();
    out.AllocationProtect = region.allocation_protection();
    out.RegionSize = run.range.end - page;
    out.State = run.protection == Region::kReserved ? MEM_RESERVE : MEM_COMMIT;
    out.Protect = run.protection;
    out.Type = MEM_PRIVATE;
    return out;
}

// What the host has at an address that is in no region; `gap` is what lies between the regions around it.
DWORD elsewhere(std::uintptr_t page, const Range& gap, MEMORY_BASIC_INFORMATION& out) noexcept {
    HostMapping mapping{};
    DWORD error = ERROR_SUCCESS;
    const bool mapped = find_host_mapping(page, mapping, error);
    if (error != ERROR_SUCCESS) return error;
    out = {};
    out.BaseAddress = reinterpret_cast<PVOID>(page);
    std::uintptr_t end = std::min(mapping.pages.end, gap.end);
    if (!mapped) {
        out.State = MEM_FREE;
        out.Protect = PAGE_NOACCESS;
    } else {
        ViewRecord view{};
        const bool is_view = find_view(page, view);
        out.State = MEM_COMMIT;
        out.Type = is_view ? MEM_MAPPED : mapping.is_module ? MEM_IMAGE : MEM_PRIVATE;
        out.Protect = page_protection(mapping.protection, is_view && view.copies);
        if (is_view) {
            out.AllocationBase = view.pages.data();
            out.AllocationProtect = page_protection(view.host_protection, view.copies);
            end = std::min(end, view.pages.end);
        } else {
            out.AllocationBase = reinterpret_cast<PVOID>(std::max(mapping.allocation, gap.begin));
            out.AllocationProtect = page_protection(mapping.first_protection, false);
        }
    }
    out.RegionSize = end - page;
    return ERROR_SUCCESS;
}

// With the regions' lock held.
DWORD query(std::uintptr_t page, MEMORY_BASIC_INFORMATION& out) noexcept {
    Range gap;
    if (const Region* const region = Regions::get().find(page, &gap)) {
        out = in_region(*region, page);
        return ERROR_SUCCESS;
    }
    return elsewhere(page, gap, out);
}

// Of pages that are in no region: what the first one allows. ERROR_INVALID_ADDRESS when not all are there in one piece.
DWORD check_elsewhere(const Range& pages, MEMORY_BASIC_INFORMATION& first) noexcept {
    if (const DWORD error = query(pages.begin, first)) return error;
    MEMORY_BASIC_INFORMATION at = first;
    std::uintptr_t end = pages.begin;
    for (;;) {
        if (at.State != MEM_COMMIT || at.AllocationBase != first.AllocationBase) return ERROR_INVALID_ADDRESS;
        end += at.RegionSize;
        if (end >= pages.end) return ERROR_SUCCESS;
        if (const DWORD error = query(end, at)) return error;
    }
}

DWORD protect_elsewhere(const Range& pages, DWORD protection, DWORD& before) noexcept {
    MEMORY_BASIC_INFORMATION first{};
    if (const DWORD error = check_elsewhere(pages, first)) return error;
    const bool copies = (protection & (PAGE_WRITECOPY | PAGE_EXECUTE_WRITECOPY)) != 0;
    if (copies && first.Type != MEM_MAPPED) return ERROR_INVALID_PARAMETER;
    ViewRecord view{};
    // A view of the file itself has no pages of its own to write to.
    if (copies && (!find_view(pages.begin, view) || !view.copies)) return ERROR_INVALID_PARAMETER;
    int host = PROT_READ | PROT_WRITE | (protection == PAGE_EXECUTE_WRITECOPY ? PROT_EXEC : 0);
    if (!copies) {
        if (const DWORD error = host_protection(protection, host)) return error;
    }
    if (mprotect(pages.data(), pages.size(), host) != 0) {
        return errno == EACCES ? ERROR_ACCESS_DENIED : ERROR_NOT_ENOUGH_MEMORY;
    }
    before = first.Protect;
    return ERROR_SUCCESS;
}

DWORD protect_in_region(Region& region, const Range& pages, DWORD protection, DWORD& before) noexcept {
    int host = PROT_NONE;
    if (const DWORD error = host_protection(protection, host)) return error;
    if (!region.range().holds(pages) || !region.is_committed(pages)) return ERROR_INVALID_ADDRESS;
    try {
        region.split(pages);
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    if (mprotect(pages.data(), pages.size(), host) != 0) return ERROR_NOT_ENOUGH_MEMORY;
    before = region.run_at(pages.begin).protection;
    region.set(pages, protection);
    return ERROR_SUCCESS;
}

DWORD protect(std::uintptr_t address, std::size_t size, DWORD protection, DWORD& before) noexcept {
    Range pages;
    if (size == 0 || !pages_of(address, size, page_size(), pages)) return ERROR_INVALID_PARAMETER;
    Regions& regions = Regions::get();
    const std::lock_guard guard(regions.lock);
    Region* const region = regions.find(pages.begin);
    return region ? protect_in_region(*region, pages, protection, before)
                  : protect_elsewhere(pages, protection, before);
}

// Where programs have no addresses any more.
std::uintptr_t last_address() noexcept {
    static const std::uintptr_t last = [] {
        SYSTEM_INFO information{};
        GetSystemInfo(&information);
        return reinterpret_cast<std::uintptr_t>(information.lpMaximumApplicationAddress);
    }();
    return last;
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

BOOL VirtualProtect(LPVOID address, SIZE_T size, DWORD protection, PDWORD before) {
    cancellation_point();
    DWORD was = 0;
    const DWORD error =
        before ? protect(reinterpret_cast<std::uintptr_t>(address), size, protection, was) : ERROR_NOACCESS;
    if (error == ERROR_SUCCESS) {
        *before = was;
        return TRUE;
    }
    return fail(error, FALSE);
}

SIZE_T VirtualQuery(LPCVOID address, PMEMORY_BASIC_INFORMATION information, SIZE_T size) {
    const auto at = reinterpret_cast<std::uintptr_t>(address);
    DWORD error = ERROR_SUCCESS;
    if (size < sizeof *information) {
        error = ERROR_BAD_LENGTH;
    } else if (!information) {
        error = ERROR_NOACCESS;
    } else if (at > last_address()) {
        error = ERROR_INVALID_PARAMETER;
    } else {
        const std::lock_guard guard(Regions::get().lock);
        error = query(round_down(at, page_size()), *information);
    }
    if (error == ERROR_SUCCESS) {
        // Behind the last mapping lie the host's own addresses.
        const auto base = reinterpret_cast<std::uintptr_t>(information->BaseAddress);
        information->RegionSize = std::min<SIZE_T>(information->RegionSize, last_address() - base + 1);
        return sizeof *information;
    }
    return fail(error, SIZE_T{0});
}
