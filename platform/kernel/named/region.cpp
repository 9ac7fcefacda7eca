#include "named/region.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "base/host_fd.h"
#include "named/directory.h"

namespace zr::platform::named {
namespace {

int allocate(int file, off_t from, off_t size) noexcept {
    int error = EINTR;
    while (error == EINTR) {
        error = posix_fallocate(file, from, size);
    }
    return error;
}

// Files of mappings that nobody can have open any more.
void remove_contents(const std::string& folder) noexcept {
    remove_files(folder, [](const char* name) { return is_contents(name) || is_unfinished(name); });
}

}  // namespace

int make_shared_lock(pthread_mutex_t& lock) noexcept {
    pthread_mutexattr_t attributes;
    int error = pthread_mutexattr_init(&attributes);
    if (error != 0) return error;
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    error = pthread_mutex_init(&lock, &attributes);
    pthread_mutexattr_destroy(&attributes);
    return error;
}

int Region::attach(int file, const std::string& folder) noexcept {
    struct stat status {};
    if (fstat(file, &status) != 0) return errno;
    device_ = status.st_dev;
    inode_ = status.st_ino;
    try {
        folder_ = folder;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    // Addresses for all that the file can become; those behind its end are not touched before it has grown.
    void* const base = mmap(nullptr, kWholeSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_NORESERVE, file, 0);
    if (base == MAP_FAILED) return errno;
    base_ = static_cast<char*>(base);
    const int error = is_whole(file) && anybody_lives() ? 0 : initialise(file);
    if (error != 0) detach();
    return error;
}

void Region::detach() noexcept {
    if (base_) munmap(base_, kWholeSize);
    base_ = nullptr;
}

bool Region::is_whole(int file) const noexcept {
    struct stat status {};
    if (fstat(file, &status) != 0 || status.st_size < off_t{kFirstSegment} * kSegment) return false;
    if (header().magic.load(std::memory_order_acquire) != kMagic) return false;
    const auto segments = static_cast<std::uint64_t>(status.st_size) / kSegment;
    for (const auto& table : header().chunks) {
        for (const auto& chunk : table) {
            if (chunk.load(std::memory_order_relaxed) >= segments) return false;
        }
    }
    return header().segments.load(std::memory_order_relaxed) <= segments;
}

bool Region::anybody_lives() const noexcept {
    for (std::uint32_t place = 0; place < kProcesses; ++place) {
        if (lives(place)) return true;
    }
    return false;
}

int Region::initialise(int file) noexcept {
    remove_contents(folder_);
    if (ftruncate(file, 0) != 0) return errno;
    int error = allocate(file, 0, off_t{kFirstSegment} * kSegment);
    if (error == 0) {
        header().segments.store(kFirstSegment, std::memory_order_relaxed);
        std::memset(header().buckets, 0xFF, sizeof header().buckets);
        error = make_shared_lock(header().lock);
    }
    if (error == 0) {
        header().magic.store(kMagic, std::memory_order_release);
    } else if (ftruncate(file, 0) == 0) {
        remove_region_file(folder_);
    }
    return error;
}

int Region::open_file(int flags) const noexcept {
    try {
        const int file = above_standard(open((folder_ + "/" + kFileName).c_str(), flags | O_CLOEXEC | O_NOFOLLOW));
        if (file < 0) return -1;
        struct stat status {};
        if (fstat(file, &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) return file;
        close(file);
        errno = ESTALE;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    return -1;
}

// One more segment for a table. The file is opened for that only, so that no descriptor has to be kept.
int Region::grow(Table table) noexcept {
    auto& chunks = header().chunks[static_cast<std::uint32_t>(table)];
    std::uint32_t chunk = 0;
    while (chunk < kChunks && chunks[chunk].load(std::memory_order_relaxed) != 0) {
        ++chunk;
    }
    if (chunk == kChunks) return ENOMEM;
    const int file = open_file(O_RDWR);
    if (file < 0) return errno;
    const std::uint32_t segment = header().segments.load(std::memory_order_relaxed);
    const int error = allocate(file, off_t{segment} * kSegment, kSegment);
    // What could not be had whole is given back.
    if (error != 0 && ftruncate(file, off_t{segment} * kSegment) != 0) errno = error;
    close(file);
    if (error != 0) return error;
    chunks[chunk].store(segment, std::memory_order_release);
    header().segments.store(segment + 1, std::memory_order_relaxed);
    return 0;
}

std::atomic<std::uint32_t>& Region::life(std::uint32_t place) const noexcept {
    // The C library keeps the word that the kernel knows at the lock's beginning.
    return *reinterpret_cast<std::atomic<std::uint32_t>*>(&process(place).life.__data.__lock);
}

bool Region::lives(std::uint32_t place) const noexcept {
    if (process(place).state.load(std::memory_order_acquire) != Process::Taken) return false;
    const std::uint32_t word = life(place).load(std::memory_order_acquire);
    return (word & FUTEX_TID_MASK) != 0 && (word & FUTEX_OWNER_DIED) == 0;
}

bool Region::lives(std::uint32_t place, std::uint32_t generation) const noexcept {
    if (place >= kProcesses) return false;
    return process(place).generation.load(std::memory_order_acquire) == generation && lives(place);
}

std::string Region::contents_path(std::uint64_t number) const {
    return folder_ + "/" + kContentsPrefix + std::to_string(number);
}

Hold::Hold(Region& region) noexcept : region_(region) {
    pthread_mutex_t& lock = region.header().lock;
    int result = EBUSY;
    // Held for a microsecond as a rule: less than falling asleep costs.
    for (int i = 0; i < 100 && result == EBUSY; ++i) {
        if (i > 0) cpu_relax();
        result = pthread_mutex_trylock(&lock);
    }
    if (result == EBUSY) result = pthread_mutex_lock(&lock);
    if (result != EOWNERDEAD) return;
    repair(region);
    pthread_mutex_consistent(&lock);
}

// Should this thread be killed before it has woken everybody, who clears up after it does.
Hold::~Hold() {
    const void* words[Region::kMostToWake];
    const std::uint32_t count = std::exchange(region_.to_wake_count_, 0);
    std::copy_n(region_.to_wake_, count, words);
    pthread_mutex_unlock(&region_.header().lock);
    for (std::uint32_t i = 0; i < count; ++i) {
        futex_wake(words[i], kEverybody, FutexScope::Shared);
    }
}

}  // namespace zr::platform::named
