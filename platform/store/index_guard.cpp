#include "store/index_guard.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/host_fd.h"
#include "store/journal_index.h"

namespace zr::platform {
namespace {

constexpr std::chrono::seconds kGuardPatience{5};
constexpr int kGuardLock = 0;

// https://sqlite.org/walformat.html, in the host's byte order.
struct IndexHeader {
    std::uint32_t version;
    std::uint32_t unused;
    std::uint32_t changes;
    std::uint8_t made;
    std::uint8_t big_endian_sums;
    std::uint16_t page_size;
    std::array<std::uint32_t, 6> rest;  // of a journal without frames
    std::array<std::uint32_t, 2> sum;   // of all before it
};
static_assert(sizeof(IndexHeader) == 48 && offsetof(IndexHeader, sum) == 40);

using Guard = std::array<IndexHeader, 2>;

Guard make_guard() noexcept {
    constexpr std::uint32_t kNobodysVersion = 3007001;
    constexpr std::uint16_t kPageSize = 4096;
    IndexHeader header = {};
    header.version = kNobodysVersion;
    header.made = 1;
    header.page_size = kPageSize;
    std::array<std::uint32_t, offsetof(IndexHeader, sum) / sizeof(std::uint32_t)> words = {};
    std::memcpy(words.data(), &header, sizeof words);
    for (std::size_t i = 0; i < words.size(); i += 2) {
        header.sum[0] += words[i] + header.sum[1];
        header.sum[1] += words[i + 1] + header.sum[0];
    }
    return {header, header};
}

// By the host, from a pipe: to touch memory of a file that somebody has cut off would end the process.
void copy_to(volatile void* region, const Guard& guard) noexcept {
    std::array<int, 2> ends = {-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return;
    const HostFd from(above_standard(ends[0]));
    const HostFd to(above_standard(ends[1]));
    if (!from || !to || ::write(to.get(), guard.data(), sizeof guard) != sizeof guard) return;
    static_cast<void>(!::read(from.get(), const_cast<void*>(region), sizeof guard));
}

bool take_write_lock(sqlite3_file* file) noexcept {
    const auto until = std::chrono::steady_clock::now() + kGuardPatience;
    while (file->pMethods->xShmLock(file, kGuardLock, 1, SQLITE_SHM_LOCK | SQLITE_SHM_EXCLUSIVE) != SQLITE_OK) {
        if (std::chrono::steady_clock::now() >= until) return false;
        poll(nullptr, 0, 1);
    }
    return true;
}

}  // namespace

bool guard_index(sqlite3_file* file, bool first) noexcept {
    if (first && !take_write_lock(file)) return false;
    volatile void* region = nullptr;
    const int size = static_cast<int>(JournalIndex::kRegionSize);
    if (file->pMethods->xShmMap(file, 0, size, 1, &region) == SQLITE_OK && region != nullptr)
        copy_to(region, make_guard());
    if (first) file->pMethods->xShmLock(file, kGuardLock, 1, SQLITE_SHM_UNLOCK | SQLITE_SHM_EXCLUSIVE);
    return true;
}

}  // namespace zr::platform
