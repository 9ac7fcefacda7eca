#include "base/shared_memory.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>

namespace zr::platform {

std::atomic<int> unmarked_segment_seconds{10};

namespace {

constexpr std::uint64_t kMagic = 0x79726F6D656D727Au;
constexpr int kMode = 0600;
constexpr int kAttempts = 100;

// A segment has a key only from when it is made until it is marked for removal: one of these says whose it was if its
// maker is killed in between.
constexpr key_t kKeys = 0x5A720000;
constexpr key_t kKeyMask = static_cast<key_t>(0xFFFF0000);

// Whose memory it is: the folder that the path lies in, and the name there.
struct Identity {
    std::uint64_t device;
    std::uint64_t inode;
    std::uint64_t born;  // nanoseconds: numbers of folders are used again. 0 where the file system does not tell.
    std::uint64_t name;  // hashed

    friend bool operator==(const Identity&, const Identity&) = default;
};

struct Mark {
    std::atomic<std::uint64_t> magic;  // written last; 0: not to be found any more
    Identity identity;
    std::uint64_t number;
};

// FNV-1a.
std::uint64_t hash_of(const char* text) noexcept {
    std::uint64_t hash = 0xCBF29CE484222325u;
    for (; *text != '\0'; ++text) {
        hash = (hash ^ static_cast<unsigned char>(*text)) * 0x100000001B3u;
    }
    return hash;
}

int identify(const char* path, Identity& identity) noexcept {
    const char* const slash = std::strrchr(path, '/');
    char folder[PATH_MAX] = ".";
    if (slash != nullptr) {
        const auto length = static_cast<std::size_t>(slash - path);
        if (length >= sizeof folder) return ENAMETOOLONG;
        std::memcpy(folder, path, length);
        std::strcpy(folder + length, length == 0 ? "/" : "");
    }
    struct statx facts {};
    if (statx(AT_FDCWD, folder, 0, STATX_INO | STATX_BTIME, &facts) != 0) return errno;
    identity.device = std::uint64_t{facts.stx_dev_major} << 32 | facts.stx_dev_minor;
    identity.inode = facts.stx_ino;
    identity.born = (facts.stx_mask & STATX_BTIME) == 0
                        ? 0
                        : static_cast<std::uint64_t>(facts.stx_btime.tv_sec) * 1'000'000'000u + facts.stx_btime.tv_nsec;
    identity.name = hash_of(slash != nullptr ? slash + 1 : path);
    return 0;
}

bool is_ours(const shmid_ds& facts, std::size_t size) noexcept {
    const ipc_perm& owner = facts.shm_perm;
    return facts.shm_segsz == size && owner.uid == geteuid() && owner.cuid == geteuid() && (owner.mode & 0777) == kMode;
}

// A maker was killed before it could mark the segment for removal.
bool is_left_behind(const shmid_ds& facts) noexcept {
    const ipc_perm& owner = facts.shm_perm;
    return (owner.__key & kKeyMask) == kKeys && owner.uid == geteuid() && facts.shm_nattch == 0 &&
           (owner.mode & SHM_DEST) == 0 &&
           time(nullptr) - facts.shm_ctime > unmarked_segment_seconds.load(std::memory_order_relaxed);
}

void* attach(int id) noexcept {
    void* const base = shmat(id, nullptr, 0);
    return base == reinterpret_cast<void*>(-1) ? nullptr : base;
}

// The memory of that identity, attached; NULL with 0 when there is none, or an error number.
void* look_for(const Identity& identity, std::size_t size, int& error) noexcept {
    shm_info room{};
    const int last = shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&room));
    error = last < 0 ? errno : 0;
    for (int index = 0; index <= last; ++index) {
        shmid_ds facts{};
        const int id = shmctl(index, SHM_STAT, &facts);
        if (id < 0) continue;
        if (is_left_behind(facts)) shmctl(id, IPC_RMID, nullptr);
        if (!is_ours(facts, size)) continue;
        void* const base = facts.shm_nattch > 0 ? attach(id) : nullptr;
        if (base == nullptr) continue;
        const Mark& mark = *static_cast<const Mark*>(base);
        if (mark.magic.load(std::memory_order_acquire) == kMagic && mark.identity == identity) return base;
        shmdt(base);
    }
    return nullptr;
}

std::uint64_t chance() noexcept {
    std::uint64_t number = 0;
    if (getrandom(&number, sizeof number, 0) == sizeof number && number != 0) return number;
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return (static_cast<std::uint64_t>(now.tv_sec) << 32 ^ static_cast<std::uint64_t>(now.tv_nsec)) << 16 |
           static_cast<std::uint64_t>(getpid());
}

// Attached, and gone with the last process that is.
void* new_segment(std::size_t size, int flags, int& id, int& error) noexcept {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        id = shmget(kKeys | static_cast<key_t>(chance() & 0xFFFF), size, IPC_CREAT | IPC_EXCL | flags | kMode);
        if (id < 0 && errno == EEXIST) continue;
        if (id < 0) break;
        void* const base = attach(id);
        error = errno;
        shmctl(id, IPC_RMID, nullptr);
        if (base != nullptr) return base;
        // Taken for one that was left behind, where the clock was set just now.
        if (error != EIDRM && error != EINVAL) return nullptr;
    }
    error = errno;
    return nullptr;
}

std::size_t page_size() noexcept {
    return static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// Of an attached segment only a part. What is left counts as attached until it is unmapped.
char* keep_part(void* base, std::size_t size, std::size_t offset, std::size_t length) noexcept {
    char* const bytes = static_cast<char*>(base);
    if (offset > 0) munmap(bytes, offset);
    if (offset + length < size) munmap(bytes + offset + length, size - offset - length);
    return bytes + offset;
}

}  // namespace

int SharedMemory::find(const FileLock& path, std::size_t size) noexcept {
    detach();
    Identity identity{};
    int error = identify(path.path(), identity);
    if (error != 0) return error;
    base_ = look_for(identity, kHeader + size, error);
    if (base_ != nullptr) return 0;
    return error != 0 ? error : ENOENT;
}

int SharedMemory::make(const FileLock& path, std::size_t size) noexcept {
    detach();
    Identity identity{};
    int error = identify(path.path(), identity);
    if (error != 0) return error;
    while (void* const old = look_for(identity, kHeader + size, error)) {
        static_cast<Mark*>(old)->magic.store(0, std::memory_order_release);
        shmdt(old);
    }
    int id = 0;
    base_ = new_segment(kHeader + size, SHM_NORESERVE, id, error);
    if (base_ == nullptr) return error;
    static_assert(sizeof(Mark) <= kHeader);
    Mark& mark = *static_cast<Mark*>(base_);
    mark.identity = identity;
    mark.number = chance();
    mark.magic.store(kMagic, std::memory_order_release);
    return 0;
}

void SharedMemory::detach() noexcept {
    if (base_ != nullptr) shmdt(base_);
    base_ = nullptr;
}

int SharedMemory::keep_from_children(std::size_t size) noexcept {
    return madvise(base_, kHeader + size, MADV_DONTFORK) == 0 ? 0 : errno;
}

std::uint64_t SharedMemory::number() const noexcept {
    return static_cast<const Mark*>(base_)->number;
}

SharedSegment::~SharedSegment() {
    if (held_ != nullptr) munmap(held_, page_size());
}

int SharedSegment::make(std::size_t size) noexcept {
    *this = SharedSegment();
    struct sysinfo machine {};
    // Setting it aside would take it from all other programs.
    if (sysinfo(&machine) == 0 && size / machine.mem_unit > machine.totalram / 2) return ENOMEM;
    int id = 0;
    int error = 0;
    void* const base = new_segment(size, 0, id, error);
    // There may be only so many, and only so large ones.
    if (base == nullptr) return error == ENOSPC || error == EINVAL ? ENOMEM : error;
    if (madvise(base, size, MADV_POPULATE_WRITE) != 0 && errno != EINVAL)
        error = ENOMEM;
    else
        error = 0;
    keep_part(base, size, 0, page_size());
    held_ = base;
    number_ = id;
    size_ = size;
    if (error != 0) *this = SharedSegment();
    return error;
}

int SharedSegment::open(int number, std::size_t size) noexcept {
    *this = SharedSegment();
    shmid_ds facts{};
    if (shmctl(number, IPC_STAT, &facts) != 0) return errno == EINVAL || errno == EIDRM ? ENOENT : errno;
    if (!is_ours(facts, size) || (facts.shm_perm.mode & SHM_DEST) == 0) return EACCES;
    void* const base = attach(number);
    if (base == nullptr) return errno == EINVAL || errno == EIDRM ? ENOENT : errno;
    keep_part(base, size, 0, page_size());
    held_ = base;
    number_ = number;
    size_ = size;
    return 0;
}

void* SharedSegment::view(std::size_t offset, std::size_t size, int protection, bool copy) const noexcept {
    const bool writes = (protection & PROT_WRITE) != 0 && !copy;
    const int flags = (writes ? 0 : SHM_RDONLY) | ((protection & PROT_EXEC) != 0 ? SHM_EXEC : 0);
    void* const base = shmat(number_, nullptr, flags);
    if (base == reinterpret_cast<void*>(-1)) return MAP_FAILED;
    char* const part = keep_part(base, size_, offset, size);
    if (!copy) return part;
    void* const own = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (own != MAP_FAILED) std::memcpy(own, part, size);
    const int error = errno;
    munmap(part, size);
    errno = error;
    if (own != MAP_FAILED && (protection & PROT_EXEC) != 0) mprotect(own, size, protection);
    return own;
}

}  // namespace zr::platform
