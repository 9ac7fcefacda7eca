// VirtualProtect, VirtualQuery and GetSystemInfo.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstring>

#include "platform/base.h"
#include "platform/kernel.h"
#include "support/forked.h"

namespace {

SYSTEM_INFO system_info() {
    SYSTEM_INFO information;
    std::memset(&information, 0xAB, sizeof information);
    GetSystemInfo(&information);
    return information;
}

const SIZE_T page = system_info().dwPageSize;

MEMORY_BASIC_INFORMATION query(LPCVOID address) {
    MEMORY_BASIC_INFORMATION information{};
    EXPECT_EQ(VirtualQuery(address, &information, sizeof information), sizeof information);
    return information;
}

class Region {
public:
    Region(SIZE_T size, DWORD type, DWORD protection = PAGE_READWRITE)
        : base_(static_cast<char*>(VirtualAlloc(nullptr, size, type, protection))) {
        EXPECT_NE(base_, nullptr);
    }
    ~Region() { VirtualFree(base_, 0, MEM_RELEASE); }
    Region(const Region&) = delete;
    Region& operator=(const Region&) = delete;
    operator char*() const { return base_; }

private:
    char* base_;
};

DWORD protect_error(LPVOID address, SIZE_T size, DWORD protection) {
    DWORD before = 0x5A5A;
    SetLastError(NO_ERROR);
    EXPECT_FALSE(VirtualProtect(address, size, protection, &before));
    EXPECT_EQ(before, 0x5A5Au);
    return GetLastError();
}

TEST(SystemInfo, TellsTheMachine) {
    const SYSTEM_INFO information = system_info();
    EXPECT_EQ(information.dwPageSize, static_cast<DWORD>(sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(information.dwNumberOfProcessors, static_cast<DWORD>(sysconf(_SC_NPROCESSORS_ONLN)));
    EXPECT_EQ(information.dwActiveProcessorMask & 1, 1u);
    EXPECT_EQ(information.dwAllocationGranularity % 0x10000, 0u);
    EXPECT_EQ(information.wReserved, 0);
    const auto on_stack = reinterpret_cast<LPCVOID>(&information);
    EXPECT_LT(information.lpMinimumApplicationAddress, on_stack);
    EXPECT_GT(information.lpMaximumApplicationAddress, on_stack);
#if defined(__x86_64__)
    EXPECT_EQ(information.wProcessorArchitecture, PROCESSOR_ARCHITECTURE_AMD64);
    EXPECT_EQ(information.dwProcessorType, PROCESSOR_AMD_X8664);
    EXPECT_NE(information.wProcessorLevel, 0);
#endif
}

TEST(VirtualQuery, TellsReservedAndCommittedPagesApart) {
    const Region region(16 * page, MEM_RESERVE, PAGE_READONLY);
    ASSERT_NE(VirtualAlloc(region + 4 * page, 3 * page, MEM_COMMIT, PAGE_READWRITE), nullptr);
    MEMORY_BASIC_INFORMATION is = query(region + 5);
    EXPECT_EQ(is.BaseAddress, region);
    EXPECT_EQ(is.AllocationBase, region);
    EXPECT_EQ(is.AllocationProtect, PAGE_READONLY);
    EXPECT_EQ(is.RegionSize, 4 * page);
    EXPECT_EQ(is.State, MEM_RESERVE);
    EXPECT_EQ(is.Protect, 0u);
    EXPECT_EQ(is.Type, MEM_PRIVATE);
    is = query(region + 5 * page + 1);
    EXPECT_EQ(is.BaseAddress, region + 5 * page);
    EXPECT_EQ(is.AllocationBase, region);
    EXPECT_EQ(is.RegionSize, 2 * page);
    EXPECT_EQ(is.State, MEM_COMMIT);
    EXPECT_EQ(is.Protect, PAGE_READWRITE);
    EXPECT_EQ(query(region + 7 * page).RegionSize, 9 * page);
    ASSERT_TRUE(VirtualFree(region + 5 * page, page, MEM_DECOMMIT));
    EXPECT_EQ(query(region + 4 * page).RegionSize, page);
    EXPECT_EQ(query(region + 5 * page).State, MEM_RESERVE);
    ASSERT_TRUE(VirtualFree(region, 0, MEM_DECOMMIT));
    EXPECT_EQ(query(region).RegionSize, 16 * page);
}

TEST(VirtualQuery, PagesWithoutAccessAreCommittedAllTheSame) {
    const Region region(2 * page, MEM_RESERVE | MEM_COMMIT, PAGE_NOACCESS);
    const MEMORY_BASIC_INFORMATION is = query(region);
    EXPECT_EQ(is.State, MEM_COMMIT);
    EXPECT_EQ(is.Protect, PAGE_NOACCESS);
    EXPECT_EQ(is.RegionSize % page, 0u);
}

TEST(VirtualQuery, RunsOfTheSameKindAreOne) {
    const Region region(8 * page, MEM_RESERVE);
    for (const int i : {0, 2, 4, 6, 1, 3, 5}) {
        ASSERT_NE(VirtualAlloc(region + i * page, page, MEM_COMMIT, PAGE_READWRITE), nullptr);
    }
    EXPECT_EQ(query(region).RegionSize, 7 * page);
}

TEST(VirtualQuery, TellsWhatIsNotOfRegions) {
    // A module's code.
    MEMORY_BASIC_INFORMATION is = query(reinterpret_cast<LPCVOID>(&query));
    EXPECT_EQ(is.State, MEM_COMMIT);
    EXPECT_EQ(is.Type, MEM_IMAGE);
    EXPECT_EQ(is.Protect, PAGE_EXECUTE_READ);
    EXPECT_EQ(is.AllocationBase, reinterpret_cast<PVOID>(GetModuleHandleW(nullptr)));
    // The stack.
    int local = 0;
    is = query(&local);
    EXPECT_EQ(is.State, MEM_COMMIT);
    EXPECT_EQ(is.Type, MEM_PRIVATE);
    EXPECT_EQ(is.Protect, PAGE_READWRITE);
    // Nothing: where something of the host's was a moment ago, pages around it keep the place.
    char* const three = static_cast<char*>(mmap(nullptr, 3 * page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(three, MAP_FAILED);
    munmap(three + page, page);
    is = query(three + page + 3);
    EXPECT_EQ(is.State, MEM_FREE);
    EXPECT_EQ(is.BaseAddress, three + page);
    EXPECT_EQ(is.RegionSize, page);
    EXPECT_EQ(is.Protect, PAGE_NOACCESS);
    EXPECT_EQ(is.AllocationBase, nullptr);
    EXPECT_EQ(is.Type, 0u);
    munmap(three, page);
    munmap(three + 2 * page, page);
    EXPECT_EQ(query(nullptr).State, MEM_FREE);
}

TEST(VirtualQuery, TellsViews) {
    const HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 100'000, nullptr);
    char* const view = static_cast<char*>(MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0));
    char* const copy = static_cast<char*>(MapViewOfFile(mapping, FILE_MAP_COPY, 0, 0, 0));
    MEMORY_BASIC_INFORMATION is = query(view + page + 1);
    EXPECT_EQ(is.AllocationBase, view);
    EXPECT_EQ(is.BaseAddress, view + page);
    EXPECT_EQ(is.RegionSize, (100'000 + page - 1) / page * page - page);
    EXPECT_EQ(is.State, MEM_COMMIT);
    EXPECT_EQ(is.Type, MEM_MAPPED);
    EXPECT_EQ(is.Protect, PAGE_READONLY);
    EXPECT_EQ(query(copy).Protect, PAGE_WRITECOPY);
    DWORD before = 0;
    EXPECT_TRUE(VirtualProtect(copy, page, PAGE_READONLY, &before));
    EXPECT_EQ(before, PAGE_WRITECOPY);
    EXPECT_EQ(query(copy).AllocationProtect, PAGE_WRITECOPY);
    EXPECT_TRUE(VirtualProtect(copy, page, PAGE_WRITECOPY, &before));
    copy[0] = 'x';
    EXPECT_EQ(view[0], 0);
    UnmapViewOfFile(view);
    UnmapViewOfFile(copy);
    CloseHandle(mapping);
    EXPECT_EQ(query(view).Type & MEM_MAPPED, 0u);
}

TEST(VirtualQuery, RefusesWhatItCannotAnswer) {
    MEMORY_BASIC_INFORMATION information{};
    SetLastError(NO_ERROR);
    EXPECT_EQ(VirtualQuery(&information, &information, sizeof information - 1), 0u);
    EXPECT_EQ(GetLastError(), ERROR_BAD_LENGTH);
    EXPECT_EQ(VirtualQuery(&information, nullptr, sizeof information), 0u);
    EXPECT_EQ(GetLastError(), ERROR_NOACCESS);
    const auto beyond = reinterpret_cast<LPCVOID>(UINTPTR_MAX - page);
    EXPECT_EQ(VirtualQuery(beyond, &information, sizeof information), 0u);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(VirtualProtect, ChangesWhatMayBeDoneAndTellsWhatWas) {
    const Region region(4 * page, MEM_RESERVE | MEM_COMMIT);
    region[page] = 'a';
    DWORD before = 0;
    // Every page that holds one of the bytes.
    EXPECT_TRUE(VirtualProtect(region + 2 * page - 1, 2, PAGE_READONLY, &before));
    EXPECT_EQ(before, PAGE_READWRITE);
    EXPECT_EQ(region[page], 'a');
    EXPECT_EQ(query(region).RegionSize, page);
    EXPECT_EQ(query(region + page).RegionSize, 2 * page);
    EXPECT_EQ(query(region + page).Protect, PAGE_READONLY);
    EXPECT_EQ(zr::test::in_fork([&] {
                  signal(SIGSEGV, SIG_DFL);  // not the sanitizer's report
                  region[page] = 'b';
                  return 0;
              }),
              -SIGSEGV);
    EXPECT_TRUE(VirtualProtect(region, 4 * page, PAGE_NOACCESS, &before));
    EXPECT_EQ(before, PAGE_READWRITE);
    EXPECT_EQ(query(region).RegionSize, 4 * page);
    EXPECT_TRUE(VirtualProtect(region, 4 * page, PAGE_READWRITE, &before));
    EXPECT_EQ(before, PAGE_NOACCESS);
    EXPECT_EQ(region[page], 'a');
}

TEST(VirtualProtect, RefusesWithoutAChange) {
    const Region region(4 * page, MEM_RESERVE);
    ASSERT_NE(VirtualAlloc(region, 2 * page, MEM_COMMIT, PAGE_READWRITE), nullptr);
    EXPECT_EQ(protect_error(region + page, 2 * page, PAGE_READONLY), ERROR_INVALID_ADDRESS);
    EXPECT_EQ(protect_error(region + 3 * page, page, PAGE_READONLY), ERROR_INVALID_ADDRESS);
    EXPECT_EQ(protect_error(region, 8 * page, PAGE_READONLY), ERROR_INVALID_ADDRESS);
    EXPECT_EQ(protect_error(region, 0, PAGE_READONLY), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(protect_error(region, page, 0), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(protect_error(region, page, PAGE_READONLY | PAGE_READWRITE), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(protect_error(region, page, PAGE_WRITECOPY), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(protect_error(nullptr, page, PAGE_READONLY), ERROR_INVALID_ADDRESS);
    SetLastError(NO_ERROR);
    EXPECT_FALSE(VirtualProtect(region, page, PAGE_READONLY, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_NOACCESS);
    EXPECT_EQ(query(region).RegionSize, 2 * page);
    region[0] = 'x';
}

TEST(VirtualProtect, OfPagesThatAreNotOfRegions) {
    char* const host =
        static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    DWORD before = 0;
    EXPECT_TRUE(VirtualProtect(host, page, PAGE_READONLY, &before));
    EXPECT_EQ(before, PAGE_READWRITE);
    EXPECT_EQ(query(host).Protect, PAGE_READONLY);
    EXPECT_TRUE(VirtualProtect(host, page, PAGE_READWRITE, &before));
    EXPECT_EQ(before, PAGE_READONLY);
    munmap(host, 2 * page);
}

}  // namespace
