#include "named/region.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "named/directory.h"

namespace zr::platform::named {
namespace {

// Files of mappings that nobody can have open any more.
void remove_contents(const std::string& folder) noexcept {
    remove_files(folder, [](const char* name) { return is_contents(name) || is_unfinished(name); });
}

}  // namespace

int Region::attach(const FileLock& lock, const std::string& folder, bool make) noexcept {
    try {
        folder_ = folder;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    int error = memory_.find(lock, kWholeSize);
    if (error == 0) {
        base_ = static_cast<char*>(memory_.data());
        if (header().magic.load(std::memory_order_acquire) == kMagic && anybody_lives()) return 0;
        detach();
        error = ENOENT;
    }
    if (error != ENOENT || !make) return error;
    error = memory_.make(lock, kWholeSize);
    if (error != 0) return error;
    base_ = static_cast<char*>(memory_.data());
    initialise();
    return 0;
}

void Region::detach() noexcept {
    memory_.detach();
    base_ = nullptr;
}

bool Region::anybody_lives() const noexcept {
    for (std::uint32_t place = 0; place < kProcesses; ++place) {
        if (lives(place)) return true;
    }
    return false;
}

void Region::initialise() noexcept {
    remove_contents(folder_);
    header().segments.store(kFirstSegment, std::memory_order_relaxed);
    std::memset(header().buckets, 0xFF, sizeof header().buckets);
    header().magic.store(kMagic, std::memory_order_release);
}

// One more segment for a table.
int Region::grow(Table table) noexcept {
    auto& chunks = header().chunks[static_cast<std::uint32_t>(table)];
    std::uint32_t chunk = 0;
    while (chunk < kChunks && chunks[chunk].load(std::memory_order_relaxed) != 0) {
        ++chunk;
    }
    if (chunk == kChunks) return ENOMEM;
    const std::uint32_t segment = header().segments.load(std::memory_order_relaxed);
    chunks[chunk].store(segment, std::memory_order_release);
    header().segments.store(segment + 1, std::memory_order_relaxed);
    return 0;
}

bool Region::lives(std::uint32_t place) const noexcept {
    if (process(place).state.load(std::memory_order_acquire) != Process::Taken) return false;
    const std::uint32_t word = process(place).life.load(std::memory_order_acquire);
    return (word & FUTEX_TID_MASK) != 0 && (word & FUTEX_OWNER_DIED) == 0;
}

bool Region::lives(std::uint32_t place, std::uint32_t generation) const noexcept {
    if (place >= kProcesses) return false;
    return process(place).generation.load(std::memory_order_acquire) == generation && lives(place);
}

bool Region::lives_by_birth(std::uint64_t birth) const noexcept {
    const auto place = static_cast<std::uint32_t>(birth % kProcesses);
    return lives(place) && process(place).birth.load(std::memory_order_acquire) == birth;
}

std::string Region::contents_path(std::uint64_t number) const {
    return folder_ + "/" + kContentsPrefix + std::to_string(number);
}

Hold::Hold(Region& region) noexcept : region_(region) {
    if (region.header().lock.take() == RobustLock::Found::Left) repair(region);
}

// Should this thread be killed before it has woken everybody, who clears up after it does.
Hold::~Hold() {
    const void* words[Region::kMostToWake];
    const std::uint32_t count = std::exchange(region_.to_wake_count_, 0);
    std::copy_n(region_.to_wake_, count, words);
    region_.header().lock.give_back();
    for (std::uint32_t i = 0; i < count; ++i) {
        futex_wake(words[i], kEverybody, FutexScope::Shared);
    }
}

}  // namespace zr::platform::named
