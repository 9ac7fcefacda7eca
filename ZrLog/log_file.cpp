#include "ZrLog/log_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "ZrLog/descriptor.h"

namespace zr::log {
namespace {

std::atomic<std::uint32_t> process_id{0};
std::atomic<std::uint32_t> fork_count{0};

struct ThreadIds {
    std::uint32_t fork_count;
    std::uint32_t thread;
};
constinit thread_local ThreadIds thread_ids{0, 0};

std::uint64_t now() {
    timespec time;
    clock_gettime(CLOCK_REALTIME, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1000000000u + static_cast<std::uint64_t>(time.tv_nsec);
}

std::uint32_t current_process() {
    std::uint32_t id = process_id.load(std::memory_order_relaxed);
    if (id == 0) {
        id = static_cast<std::uint32_t>(getpid());
        process_id.store(id, std::memory_order_relaxed);
    }
    return id;
}

std::uint32_t current_thread() {
    const std::uint32_t forks = fork_count.load(std::memory_order_relaxed);
    if (thread_ids.thread == 0 || thread_ids.fork_count != forks) {
        thread_ids = {forks, static_cast<std::uint32_t>(syscall(SYS_gettid))};
    }
    return thread_ids.thread;
}

std::uint64_t hash_of(const char* text, std::size_t length) {
    constexpr std::uint64_t kMultiplier = 0x9E3779B97F4A7C15;
    std::uint64_t hash = length;
    for (; length >= 8; text += 8, length -= 8) {
        std::uint64_t word;
        std::memcpy(&word, text, sizeof word);
        hash = (hash ^ word) * kMultiplier;
        hash ^= hash >> 32;
    }
    std::uint64_t rest = 0;
    std::memcpy(&rest, text, length);
    hash = (hash ^ rest) * kMultiplier;
    return hash ^ (hash >> 32);
}

// Growing a file past the limit would end the process with a signal instead of failing.
bool within_size_limit(std::uint64_t size) {
    rlimit limit;
    return getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY || size <= limit.rlim_cur;
}

// Where the file system cannot set room aside, zeros are appended: an append never lands on what another process has
// written, so no lock is needed.
bool append_zeros(int fd, std::uint64_t size) {
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    const int appender = above_standard(::open(self.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    if (appender < 0) return false;
    static constexpr char kZeros[65536] = {};
    bool good = true;
    for (;;) {
        struct stat state;
        good = fstat(appender, &state) == 0;
        const auto have = static_cast<std::uint64_t>(state.st_size);
        if (!good || have >= size) break;
        const ssize_t done = ::write(appender, kZeros, std::min<std::uint64_t>(sizeof kZeros, size - have));
        good = done > 0 || (done < 0 && errno == EINTR);
        if (!good) break;
    }
    close(appender);
    return good;
}

std::string failure(const char* path, const char* what) {
    return std::string(path) + ": " + what;
}

}  // namespace

struct LogFile::Tag {
    Tag* next;
    std::uint64_t hash;
    std::uint32_t place;
    std::size_t length;

    // The text follows the object.
    char* text() { return reinterpret_cast<char*>(this + 1); }
    const char* text() const { return reinterpret_cast<const char*>(this + 1); }

    bool is(std::uint64_t other_hash, const char* other, std::size_t other_length) const {
        return hash == other_hash && length == other_length && std::memcmp(text(), other, length) == 0;
    }
};

void forget_ids() {
    process_id.store(0, std::memory_order_relaxed);
    fork_count.fetch_add(1, std::memory_order_relaxed);
}

LogFile* LogFile::open(const char* path, std::string& error) {
    const int fd = above_standard(::open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600));
    if (fd < 0) {
        error = failure(path, strerror(errno));
        return nullptr;
    }
    LogFile* file = new (std::nothrow) LogFile(fd);
    if (!file) {
        error = failure(path, "out of memory");
    } else if (file->prepare(error)) {
        return file;
    } else {
        error = failure(path, error.c_str());
        delete file;
    }
    close(fd);
    return nullptr;
}

bool LogFile::prepare(std::string& error) {
    // Only the making of a file is done under a lock, so that two processes do not both find it empty.
    while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
    }
    const bool good = make_or_check(error);
    flock(fd_, LOCK_UN);
    if (!good) return false;
    void* header = mmap(nullptr, kHeaderSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    void* table = mmap(nullptr, kMaxBlocks * sizeof *blocks_, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (header == MAP_FAILED || table == MAP_FAILED) {
        error = strerror(errno);
        if (header != MAP_FAILED) munmap(header, kHeaderSize);
        return false;
    }
    header_ = static_cast<Header*>(header);
    blocks_ = static_cast<std::atomic<char*>*>(table);
    return true;
}

bool LogFile::make_or_check(std::string& error) {
    struct stat state;
    if (fstat(fd_, &state) != 0 || !S_ISREG(state.st_mode)) {
        error = "not a regular file";
        return false;
    }
    return state.st_size == 0 ? make_header(error) : check_header(static_cast<std::uint64_t>(state.st_size), error);
}

bool LogFile::make_header(std::string& error) {
    alignas(Header) char bytes[kHeaderSize] = {};
    const Header fresh{kMagic, kVersion, kSlotSize, now(), kFirstSlot, kFirstSlot, 0};
    std::memcpy(bytes, static_cast<const void*>(&fresh), sizeof fresh);
    if (within_size_limit(kHeaderSize) && pwrite(fd_, bytes, sizeof bytes, 0) == sizeof bytes) return true;
    error = "no room for a log";
    [[maybe_unused]] const int ignored = ftruncate(fd_, 0);  // it was empty before
    return false;
}

bool LogFile::check_header(std::uint64_t file_size, std::string& error) const {
    alignas(Header) char bytes[sizeof(Header)];
    if (pread(fd_, bytes, sizeof bytes, 0) != sizeof bytes || file_size < kHeaderSize) {
        error = "not a log file";
        return false;
    }
    const auto& header = *reinterpret_cast<const Header*>(bytes);
    if (header.magic != kMagic) {
        error = "not a log file";
        return false;
    }
    if (header.version != kVersion || header.slot_size != kSlotSize) {
        error = "a log file of another version";
        return false;
    }
    if (header.tail < kFirstSlot || header.tail > header.capacity || header.capacity > kMaxSlots ||
        header.capacity * kSlotSize > file_size) {
        error = "a damaged log file";
        return false;
    }
    return true;
}

void LogFile::write(const ZrLogRecord& record, bool is_buffer) {
    const int saved_errno = errno;
    Slot slot;
    slot.source = record.source ? tag_of(record.source) : 0;
    slot.head.process = current_process();
    slot.head.thread = current_thread();
    slot.head.category = record.category;
    slot.head.line = record.line;
    slot.head.time = now();
    bool written = false;
    if (is_buffer) {
        written = write_run(slot, kBuffer, record.data, record.size, nullptr);
    } else {
        for (int i = 0; i < 4; ++i) {
            slot.head.arguments[i] = record.arguments[i];
        }
        const std::uint64_t place = reserve(1);
        written = place != 0;
        if (written) commit(place, slot, static_cast<std::uint8_t>(kArguments + record.argumentCount));
    }
    if (!written) header_->lost.fetch_add(1, std::memory_order_relaxed);
    errno = saved_errno;
}

bool LogFile::write_run(Slot& head, std::uint8_t kind, const void* data, std::size_t size, std::uint64_t* place) {
    const std::size_t kept = data ? std::min(size, kind == kTag ? kTagLimit : kBufferLimit) : 0;
    const std::uint64_t slots = slots_for(kept);
    const std::uint64_t first = reserve(slots);
    if (first == 0) return false;
    head.head.run.size = data ? size : 0;
    std::memset(head.head.run.bytes, 0, kHeadBytes);
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    const std::size_t inlined = std::min(kept, kHeadBytes);
    if (inlined) std::memcpy(head.head.run.bytes, bytes, inlined);
    for (std::uint64_t i = 1; i < slots; ++i) {
        const std::size_t from = kHeadBytes + (i - 1) * kMoreBytes;
        Slot more{};
        more.source = static_cast<std::uint32_t>(first);
        std::memcpy(more.more, bytes + from, std::min(kept - from, kMoreBytes));
        commit(first + i, more, kContinuation);
    }
    commit(first, head, kind);
    if (place) *place = first;
    return true;
}

// The mark is the last thing a slot gets, so a reader that sees it sees the rest.
void LogFile::commit(std::uint64_t place, Slot& slot, std::uint8_t kind) {
    slot.mark = mark_of(slot, kind, place);
    Slot* target = slot_at(place);
    std::memcpy(reinterpret_cast<char*>(target) + sizeof slot.mark,
                reinterpret_cast<const char*>(&slot) + sizeof slot.mark, sizeof slot - sizeof slot.mark);
    std::atomic_ref<std::uint32_t>(target->mark).store(slot.mark, std::memory_order_release);
}

std::uint64_t LogFile::reserve(std::uint64_t slots) {
    std::uint64_t tail = header_->tail.load(std::memory_order_relaxed);
    for (;;) {
        const std::uint64_t end = tail + slots;
        if (end > kMaxSlots) return 0;
        if (end > header_->capacity.load(std::memory_order_acquire) && !grow(end)) return 0;
        // Mapped before they are reserved: a reserved slot must be one that can be written.
        if (!map_blocks(tail / kSlotsPerBlock, (end - 1) / kSlotsPerBlock - tail / kSlotsPerBlock + 1)) return 0;
        if (header_->tail.compare_exchange_weak(tail, end, std::memory_order_acq_rel, std::memory_order_relaxed)) {
            return tail;
        }
    }
}

bool LogFile::grow(std::uint64_t slots) {
    const std::uint64_t wanted = (slots + kSlotsPerBlock - 1) / kSlotsPerBlock * kSlotsPerBlock;
    std::uint64_t capacity = header_->capacity.load(std::memory_order_acquire);
    if (capacity >= wanted) return true;
    if (!allocate(capacity * kSlotSize, wanted * kSlotSize)) return false;
    while (capacity < wanted && !header_->capacity.compare_exchange_weak(capacity, wanted, std::memory_order_acq_rel)) {
    }
    return true;
}

bool LogFile::allocate(std::uint64_t from, std::uint64_t to) {
    if (!within_size_limit(to)) return false;
    int result;
    do {
        result = fallocate(fd_, 0, static_cast<off_t>(from), static_cast<off_t>(to - from));
    } while (result != 0 && errno == EINTR);
    return result == 0 || ((errno == EOPNOTSUPP || errno == ENOSYS) && append_zeros(fd_, to));
}

Slot* LogFile::slot_at(std::uint64_t place) {
    char* block = blocks_[place / kSlotsPerBlock].load(std::memory_order_acquire);
    return reinterpret_cast<Slot*>(block + place % kSlotsPerBlock * kSlotSize);
}

bool LogFile::map_blocks(std::uint64_t first, std::uint64_t count) {
    for (std::uint64_t block = first; block < first + count; ++block) {
        if (!blocks_[block].load(std::memory_order_acquire) && !map_block(block)) return false;
    }
    return true;
}

char* LogFile::map_block(std::uint64_t block) {
    struct stat state;
    if (fstat(fd_, &state) != 0 || static_cast<std::uint64_t>(state.st_size) < (block + 1) * kBlockSize) return nullptr;
    void* mapped =
        mmap(nullptr, kBlockSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, static_cast<off_t>(block * kBlockSize));
    if (mapped == MAP_FAILED) return nullptr;
    char* expected = nullptr;
    if (!blocks_[block].compare_exchange_strong(expected, static_cast<char*>(mapped), std::memory_order_acq_rel)) {
        munmap(mapped, kBlockSize);
        return expected;
    }
    // What is written is in the page cache; a block far behind need not count as this process's memory.
    if (block >= 4) {
        if (char* old = blocks_[block - 4].load(std::memory_order_acquire)) madvise(old, kBlockSize, MADV_DONTNEED);
    }
    return static_cast<char*>(mapped);
}

std::uint32_t LogFile::tag_of(const char* source) {
    const std::size_t length = std::min(strlen(source), kTagLimit);
    const std::uint64_t hash = hash_of(source, length);
    std::atomic<Tag*>& bucket = tags_[hash % kTagBuckets];
    for (const Tag* tag = bucket.load(std::memory_order_acquire); tag; tag = tag->next) {
        if (tag->is(hash, source, length)) return tag->place;
    }
    const std::uint32_t place = write_tag(source, length);
    if (place == 0 || tag_count_.fetch_add(1, std::memory_order_relaxed) >= kMaxTags) return place;
    void* memory = ::operator new(sizeof(Tag) + length, std::nothrow);
    if (!memory) return place;
    Tag* tag = new (memory) Tag{nullptr, hash, place, length};
    std::memcpy(tag->text(), source, length);
    tag->next = bucket.load(std::memory_order_relaxed);
    while (!bucket.compare_exchange_weak(tag->next, tag, std::memory_order_release, std::memory_order_relaxed)) {
    }
    return place;
}

std::uint32_t LogFile::write_tag(const char* source, std::size_t length) {
    Slot slot{};
    slot.head.process = current_process();
    slot.head.thread = current_thread();
    slot.head.time = now();
    std::uint64_t place = 0;
    write_run(slot, kTag, source, length, &place);
    return static_cast<std::uint32_t>(place);
}

}  // namespace zr::log
