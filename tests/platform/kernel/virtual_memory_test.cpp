#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/base.h"
#include "platform/memory.h"

namespace {

constexpr SIZE_T kPage = 4096;
constexpr SIZE_T kUnit = 0x10000;

char* at(void* base, SIZE_T offset) {
    return static_cast<char*>(base) + offset;
}

// A region that is given back with the object.
class Region {
public:
    explicit Region(SIZE_T size, DWORD type = MEM_RESERVE, DWORD protection = PAGE_READWRITE)
        : base_(VirtualAlloc(nullptr, size, type, protection)) {
        EXPECT_NE(base_, nullptr);
    }
    ~Region() {
        if (base_) VirtualFree(base_, 0, MEM_RELEASE);
    }
    Region(const Region&) = delete;
    Region& operator=(const Region&) = delete;
    char* at(SIZE_T offset) const { return static_cast<char*>(base_) + offset; }
    void* base() const { return base_; }
    void forget() { base_ = nullptr; }

private:
    void* base_;
};

// What the host allows on the page at `address`, as its table of mappings says ("rw-p"), empty when nothing is mapped.
std::string host_access(const void* address) {
    const auto wanted = reinterpret_cast<std::uintptr_t>(address);
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        std::size_t used = 0;
        const std::uintptr_t begin = std::stoul(line, &used, 16);
        const std::uintptr_t end = std::stoul(line.substr(used + 1), nullptr, 16);
        if (begin <= wanted && wanted < end) return line.substr(line.find(' ') + 1, 4);
    }
    return {};
}

void expect_failure(void* result, DWORD error) {
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(GetLastError(), error);
}
void expect_failure(BOOL result, DWORD error) {
    EXPECT_FALSE(result);
    EXPECT_EQ(GetLastError(), error);
}

}  // namespace

TEST(VirtualMemory, ReservedPagesHaveAddressesAndNothingElse) {
    const Region region(0x200000);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(region.base()) % kUnit, 0u);
    EXPECT_EQ(host_access(region.at(0)), "---p");
    EXPECT_EQ(host_access(region.at(0x1FFFFF)), "---p");
}

TEST(VirtualMemory, CommittedPagesAreZeroedAndKeepWhatIsWritten) {
    const Region region(0x200000);
    EXPECT_EQ(VirtualAlloc(region.at(0x8000), 0x8000, MEM_COMMIT, PAGE_READWRITE), region.at(0x8000));
    for (SIZE_T i = 0; i < 0x8000; ++i) {
        ASSERT_EQ(*region.at(0x8000 + i), 0) << i;
    }
    std::memset(region.at(0x8000), 7, 0x8000);
    EXPECT_EQ(*region.at(0xFFFF), 7);
    EXPECT_EQ(host_access(region.at(0x7FFF)), "---p");
    EXPECT_EQ(host_access(region.at(0x10000)), "---p");
}

TEST(VirtualMemory, CommittingRoundsToThePagesThatHoldTheBytes) {
    const Region region(0x10000);
    EXPECT_EQ(VirtualAlloc(region.at(kPage + 4000), 200, MEM_COMMIT, PAGE_READWRITE), region.at(kPage));
    EXPECT_EQ(host_access(region.at(kPage - 1)), "---p");
    EXPECT_EQ(host_access(region.at(kPage)), "rw-p");
    EXPECT_EQ(host_access(region.at(3 * kPage - 1)), "rw-p");
    EXPECT_EQ(host_access(region.at(3 * kPage)), "---p");
}

TEST(VirtualMemory, CommittingAgainKeepsTheContentsAndSetsTheProtection) {
    const Region region(0x10000, MEM_RESERVE | MEM_COMMIT);
    std::strcpy(region.at(0), "kept");
    EXPECT_EQ(VirtualAlloc(region.at(0), kPage, MEM_COMMIT, PAGE_READONLY), region.at(0));
    EXPECT_STREQ(region.at(0), "kept");
    EXPECT_EQ(host_access(region.at(0)), "r--p");
    EXPECT_EQ(host_access(region.at(kPage)), "rw-p");
}

TEST(VirtualMemory, ProtectionsAreTheHosts) {
    const Region region(0x10000);
    const std::pair<DWORD, const char*> all[] = {
        {PAGE_NOACCESS, "---p"},
        {PAGE_READONLY, "r--p"},
        {PAGE_READWRITE, "rw-p"},
        {PAGE_EXECUTE, "--xp"},
        {PAGE_EXECUTE_READ, "r-xp"},
        {PAGE_EXECUTE_READWRITE, "rwxp"},
        {PAGE_READWRITE | PAGE_NOCACHE, "rw-p"},
        {PAGE_READONLY | PAGE_WRITECOMBINE, "r--p"},
    };
    for (const auto& [protection, host] : all) {
        EXPECT_EQ(VirtualAlloc(region.base(), kPage, MEM_COMMIT, protection), region.base()) << protection;
        EXPECT_EQ(host_access(region.base()), host) << protection;
    }
}

TEST(VirtualMemory, RefusedProtectionsAndTypes) {
    const Region region(0x10000);
    for (const DWORD protection :
         {0u, 3u, PAGE_WRITECOPY, PAGE_EXECUTE_WRITECOPY, PAGE_NOACCESS | PAGE_NOCACHE, PAGE_NOACCESS | PAGE_GUARD,
          PAGE_READWRITE | PAGE_NOCACHE | PAGE_WRITECOMBINE, PAGE_READWRITE | 0x800u, PAGE_GUARD}) {
        expect_failure(VirtualAlloc(nullptr, kPage, MEM_RESERVE, protection), ERROR_INVALID_PARAMETER);
        expect_failure(VirtualAlloc(region.base(), kPage, MEM_COMMIT, protection), ERROR_INVALID_PARAMETER);
    }
    expect_failure(VirtualAlloc(nullptr, kPage, MEM_RESERVE, PAGE_READWRITE | PAGE_GUARD), ERROR_NOT_SUPPORTED);
    for (const DWORD type :
         {DWORD{0}, MEM_TOP_DOWN, MEM_DECOMMIT, MEM_RELEASE, MEM_COMMIT | MEM_DECOMMIT, MEM_RESERVE | 0x80000u}) {
        expect_failure(VirtualAlloc(nullptr, kPage, type, PAGE_READWRITE), ERROR_INVALID_PARAMETER);
    }
    EXPECT_EQ(host_access(region.base()), "---p");
}

TEST(VirtualMemory, SizesThatCannotBe) {
    const Region region(0x10000);
    expect_failure(VirtualAlloc(nullptr, 0, MEM_RESERVE, PAGE_READWRITE), ERROR_INVALID_PARAMETER);
    expect_failure(VirtualAlloc(region.base(), 0, MEM_COMMIT, PAGE_READWRITE), ERROR_INVALID_PARAMETER);
    expect_failure(VirtualAlloc(nullptr, SIZE_MAX, MEM_RESERVE, PAGE_READWRITE), ERROR_INVALID_PARAMETER);
    expect_failure(VirtualAlloc(nullptr, SIZE_MAX - 0x20000, MEM_RESERVE, PAGE_READWRITE), ERROR_NOT_ENOUGH_MEMORY);
    expect_failure(VirtualAlloc(region.at(1), SIZE_MAX, MEM_COMMIT, PAGE_READWRITE), ERROR_INVALID_PARAMETER);
    void* const last = reinterpret_cast<void*>(UINTPTR_MAX - 1);
    expect_failure(VirtualAlloc(last, 1, MEM_COMMIT, PAGE_READWRITE), ERROR_INVALID_PARAMETER);
    expect_failure(VirtualAlloc(last, 1, MEM_RESERVE, PAGE_READWRITE), ERROR_INVALID_PARAMETER);
    expect_failure(VirtualFree(last, 1, MEM_DECOMMIT), ERROR_INVALID_ADDRESS);
    expect_failure(VirtualFree(region.at(1), SIZE_MAX, MEM_DECOMMIT), ERROR_INVALID_PARAMETER);
}

TEST(VirtualMemory, CommitNeedsOneRegionAroundAllOfIt) {
    const Region region(0x10000);
    expect_failure(VirtualAlloc(region.at(0xF000), 0x1001, MEM_COMMIT, PAGE_READWRITE), ERROR_INVALID_ADDRESS);
    EXPECT_EQ(host_access(region.at(0xF000)), "---p");
    int on_the_stack = 0;
    expect_failure(VirtualAlloc(&on_the_stack, 1, MEM_COMMIT, PAGE_READONLY), ERROR_INVALID_ADDRESS);
    on_the_stack = 1;
    EXPECT_EQ(on_the_stack, 1);
    // Two regions side by side are two.
    Region both(0x20000);
    void* const base = both.base();
    both.forget();
    ASSERT_TRUE(VirtualFree(base, 0, MEM_RELEASE));
    ASSERT_EQ(VirtualAlloc(base, 0x10000, MEM_RESERVE, PAGE_READWRITE), base);
    ASSERT_EQ(VirtualAlloc(at(base, 0x10000), 0x10000, MEM_RESERVE, PAGE_READWRITE), at(base, 0x10000));
    expect_failure(VirtualAlloc(at(base, 0xF000), 0x2000, MEM_COMMIT, PAGE_READWRITE), ERROR_INVALID_ADDRESS);
    expect_failure(VirtualFree(at(base, 0xF000), 0x2000, MEM_DECOMMIT), ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(VirtualFree(base, 0, MEM_RELEASE));
    EXPECT_TRUE(VirtualFree(at(base, 0x10000), 0, MEM_RELEASE));
}

TEST(VirtualMemory, CommitWithoutAnAddressReservesToo) {
    const Region region(100, MEM_COMMIT);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(region.base()) % kUnit, 0u);
    EXPECT_EQ(host_access(region.base()), "rw-p");
    std::memset(region.base(), 1, kPage);
}

TEST(VirtualMemory, ReservingAtAPlaceRoundsDownToWhereRegionsBegin) {
    Region probe(0x40000);
    void* const place = probe.base();
    probe.forget();
    ASSERT_TRUE(VirtualFree(place, 0, MEM_RELEASE));
    ASSERT_EQ(VirtualAlloc(at(place, 0x1234), 0x10000, MEM_RESERVE | MEM_TOP_DOWN, PAGE_READWRITE), place);
    // It reaches over the start of the second unit, as the bytes asked for do.
    EXPECT_EQ(host_access(at(place, 0x11FFF)), "---p");
    EXPECT_TRUE(VirtualAlloc(at(place, 0x11000), 0x1000, MEM_COMMIT, PAGE_READWRITE));
    expect_failure(VirtualAlloc(at(place, 0x12000), 1, MEM_COMMIT, PAGE_READWRITE), ERROR_INVALID_ADDRESS);
    expect_failure(VirtualAlloc(place, 0x1000, MEM_RESERVE, PAGE_READWRITE), ERROR_INVALID_ADDRESS);
    expect_failure(VirtualAlloc(at(place, 0x11000), 0x1000, MEM_RESERVE, PAGE_READWRITE), ERROR_INVALID_ADDRESS);
    EXPECT_TRUE(VirtualFree(place, 0, MEM_RELEASE));
}

TEST(VirtualMemory, AddressesOfOthersAreNotTaken) {
    static char ours[3 * kUnit];
    ours[kUnit] = 5;
    expect_failure(VirtualAlloc(&ours[kUnit], kUnit, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE), ERROR_INVALID_ADDRESS);
    EXPECT_EQ(ours[kUnit], 5);
    expect_failure(VirtualAlloc(reinterpret_cast<void*>(1), 1, MEM_RESERVE, PAGE_READWRITE), ERROR_INVALID_ADDRESS);
    expect_failure(VirtualFree(&ours[kUnit], 0, MEM_RELEASE), ERROR_INVALID_ADDRESS);
    expect_failure(VirtualFree(&ours[kUnit], 1, MEM_DECOMMIT), ERROR_INVALID_ADDRESS);
    EXPECT_EQ(ours[kUnit], 5);
}

TEST(VirtualMemory, DecommittedPagesLoseTheirContents) {
    const Region region(0x10000, MEM_RESERVE | MEM_COMMIT);
    std::memset(region.base(), 9, 0x10000);
    EXPECT_TRUE(VirtualFree(region.at(kPage + 1), kPage, MEM_DECOMMIT));
    EXPECT_EQ(host_access(region.at(0)), "rw-p");
    EXPECT_EQ(host_access(region.at(kPage)), "---p");
    EXPECT_EQ(host_access(region.at(2 * kPage)), "---p");
    EXPECT_EQ(host_access(region.at(3 * kPage)), "rw-p");
    EXPECT_TRUE(VirtualFree(region.at(kPage), kPage, MEM_DECOMMIT));  // again: no error
    ASSERT_TRUE(VirtualAlloc(region.at(kPage), 2 * kPage, MEM_COMMIT, PAGE_READWRITE));
    EXPECT_EQ(*region.at(kPage - 1), 9);
    EXPECT_EQ(*region.at(kPage), 0);
    EXPECT_EQ(*region.at(3 * kPage - 1), 0);
    EXPECT_EQ(*region.at(3 * kPage), 9);
}

TEST(VirtualMemory, DecommitOfAWholeRegion) {
    const Region region(0x10000, MEM_RESERVE | MEM_COMMIT);
    expect_failure(VirtualFree(region.at(kPage), 0, MEM_DECOMMIT), ERROR_INVALID_ADDRESS);
    EXPECT_EQ(host_access(region.at(0)), "rw-p");
    EXPECT_TRUE(VirtualFree(region.base(), 0, MEM_DECOMMIT));
    EXPECT_EQ(host_access(region.at(0)), "---p");
    EXPECT_EQ(host_access(region.at(0xFFFF)), "---p");
    expect_failure(VirtualFree(region.base(), 0x10001, MEM_DECOMMIT), ERROR_INVALID_PARAMETER);
}

TEST(VirtualMemory, RefusedFrees) {
    Region region(0x10000);
    for (const DWORD type : {DWORD{0}, MEM_COMMIT, MEM_DECOMMIT | MEM_RELEASE, MEM_RELEASE | 1u}) {
        expect_failure(VirtualFree(region.base(), 0, type), ERROR_INVALID_PARAMETER);
    }
    expect_failure(VirtualFree(region.base(), 0x10000, MEM_RELEASE), ERROR_INVALID_PARAMETER);
    expect_failure(VirtualFree(region.at(kPage), 0, MEM_RELEASE), ERROR_INVALID_ADDRESS);
    expect_failure(VirtualFree(nullptr, 0, MEM_RELEASE), ERROR_INVALID_ADDRESS);
    expect_failure(VirtualFree(nullptr, 1, MEM_DECOMMIT), ERROR_INVALID_ADDRESS);
    void* const base = region.base();
    region.forget();
    EXPECT_TRUE(VirtualFree(base, 0, MEM_RELEASE));
    expect_failure(VirtualFree(base, 0, MEM_RELEASE), ERROR_INVALID_ADDRESS);
    expect_failure(VirtualFree(base, kPage, MEM_DECOMMIT), ERROR_INVALID_ADDRESS);
    expect_failure(VirtualAlloc(base, kPage, MEM_COMMIT, PAGE_READWRITE), ERROR_INVALID_ADDRESS);
}

TEST(VirtualMemory, SuccessLeavesTheLastErrorAlone) {
    SetLastError(1234);
    void* const base = VirtualAlloc(nullptr, 0x10000, MEM_RESERVE, PAGE_NOACCESS);
    EXPECT_TRUE(VirtualAlloc(base, kPage, MEM_COMMIT, PAGE_READWRITE));
    EXPECT_TRUE(VirtualFree(base, kPage, MEM_DECOMMIT));
    EXPECT_TRUE(VirtualFree(base, 0, MEM_RELEASE));
    EXPECT_EQ(GetLastError(), 1234u);
}

#if !defined(ZR_SANITIZE_ADDRESS) && !defined(ZR_SANITIZE_THREAD)
TEST(VirtualMemoryDeathTest, TouchingPagesWithoutMemoryEndsTheProgram) {
    const Region region(0x10000, MEM_RESERVE | MEM_COMMIT);
    *region.at(0) = 1;
    ASSERT_TRUE(VirtualFree(region.base(), kPage, MEM_DECOMMIT));
    EXPECT_EXIT(*static_cast<volatile char*>(region.at(0)) = 1, testing::KilledBySignal(SIGSEGV), "");
    ASSERT_TRUE(VirtualAlloc(region.base(), kPage, MEM_COMMIT, PAGE_READONLY));
    EXPECT_EQ(*region.at(0), 0);
    EXPECT_EXIT(*static_cast<volatile char*>(region.at(0)) = 1, testing::KilledBySignal(SIGSEGV), "");
}

TEST(VirtualMemory, NoRoomIsSaidSo) {
    const Region small(0x10000);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    const rlimit tight{1 << 20, before.rlim_max};  // less than the process has already
    ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    void* const more = VirtualAlloc(nullptr, 0x100000, MEM_RESERVE, PAGE_READWRITE);
    const DWORD error = GetLastError();
    void* const committed = VirtualAlloc(small.base(), kPage, MEM_COMMIT, PAGE_READWRITE);
    setrlimit(RLIMIT_AS, &before);
    EXPECT_EQ(more, nullptr);
    EXPECT_EQ(error, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(committed, small.base());  // its addresses are there already
}
#endif

// Random calls beside a model that knows, for each page of a few regions, whether it has memory and what was written.
namespace {

class PagesModel {
public:
    explicit PagesModel(unsigned seed) : random_(seed) {}
    ~PagesModel() {
        for (auto& [base, pages] : regions_) {
            EXPECT_TRUE(VirtualFree(base, 0, MEM_RELEASE));
        }
    }

    void step() {
        const unsigned what = below(10);
        if (regions_.empty() || (what == 0 && regions_.size() < 6)) {
            reserve();
        } else if (what == 1 && below(4) == 0) {
            release();
        } else if (what < 5) {
            commit();
        } else if (what < 7) {
            decommit();
        } else {
            write();
        }
    }

    void check() const {
        for (const auto& [base, pages] : regions_) {
            for (SIZE_T i = 0; i < pages.size(); ++i) {
                if (pages[i] < 0) continue;
                ASSERT_EQ(*at(base, i * kPage), pages[i]);
                ASSERT_EQ(*at(base, i * kPage + kPage - 1), pages[i]);
            }
        }
    }
    void check_access() const {
        for (const auto& [base, pages] : regions_) {
            for (SIZE_T i = 0; i < pages.size(); ++i) {
                ASSERT_EQ(host_access(at(base, i * kPage)), pages[i] < 0 ? "---p" : "rw-p");
            }
        }
    }

private:
    using Pages = std::vector<int>;  // what each page holds, -1 without memory

    unsigned below(unsigned limit) { return std::uniform_int_distribution<unsigned>(0, limit - 1)(random_); }
    auto pick() { return std::next(regions_.begin(), below(static_cast<unsigned>(regions_.size()))); }

    void reserve() {
        const SIZE_T count = 1 + below(40);
        const bool commits = below(2) != 0;
        const SIZE_T size = count * kPage - below(kPage);
        void* const base =
            VirtualAlloc(nullptr, size, commits ? MEM_RESERVE | MEM_COMMIT : MEM_RESERVE, PAGE_READWRITE);
        ASSERT_NE(base, nullptr);
        ASSERT_TRUE(regions_.emplace(base, Pages(count, commits ? 0 : -1)).second);
    }
    void release() {
        const auto found = pick();
        ASSERT_TRUE(VirtualFree(found->first, 0, MEM_RELEASE));
        regions_.erase(found);
    }
    // Some bytes at or beyond a region's end now and then, and which pages hold them.
    struct Bytes {
        SIZE_T offset, size, first, last;
    };
    Bytes bytes_of(const Pages& pages) {
        const SIZE_T all = pages.size() * kPage;
        const SIZE_T offset = below(static_cast<unsigned>(all));
        const SIZE_T size = 1 + below(static_cast<unsigned>(below(5) == 0 ? all : all - offset));
        return {offset, size, offset / kPage, (offset + size - 1) / kPage};
    }
    void commit() {
        auto& [base, pages] = *pick();
        const Bytes bytes = bytes_of(pages);
        void* const result = VirtualAlloc(at(base, bytes.offset), bytes.size, MEM_COMMIT, PAGE_READWRITE);
        if (bytes.last >= pages.size()) return expect_failure(result, ERROR_INVALID_ADDRESS);
        ASSERT_EQ(result, at(base, bytes.first * kPage));
        for (SIZE_T i = bytes.first; i <= bytes.last; ++i) {
            pages[i] = std::max(pages[i], 0);
        }
    }
    void decommit() {
        auto& [base, pages] = *pick();
        const Bytes bytes = bytes_of(pages);
        const BOOL result = VirtualFree(at(base, bytes.offset), bytes.size, MEM_DECOMMIT);
        if (bytes.last >= pages.size()) return expect_failure(result, ERROR_INVALID_PARAMETER);
        ASSERT_TRUE(result);
        std::fill(pages.begin() + static_cast<long>(bytes.first), pages.begin() + static_cast<long>(bytes.last) + 1,
                  -1);
    }
    void write() {
        auto& [base, pages] = *pick();
        const SIZE_T page = below(static_cast<unsigned>(pages.size()));
        if (pages[page] < 0) return;
        pages[page] = static_cast<int>(1 + below(100));
        std::memset(at(base, page * kPage), pages[page], kPage);
    }

    std::mt19937 random_;
    std::map<void*, Pages> regions_;
};

}  // namespace

TEST(VirtualMemory, RandomCallsAgreeWithAModel) {
    for (unsigned seed = 0; seed < 20; ++seed) {
        PagesModel model(seed);
        for (int i = 0; i < 300; ++i) {
            model.step();
            model.check();
            if (HasFatalFailure()) FAIL() << "seed " << seed << " step " << i;
        }
        model.check_access();
    }
}

TEST(VirtualMemory, ThreadsWorkInRegionsOfTheirOwn) {
    std::vector<std::thread> threads;
    for (unsigned seed = 100; seed < 108; ++seed) {
        threads.emplace_back([seed] {
            PagesModel model(seed);
            for (int i = 0; i < 300; ++i) {
                model.step();
            }
            model.check();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}
