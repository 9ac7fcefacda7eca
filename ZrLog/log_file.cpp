#include "ZrLog/log_file.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "host/size_limit.h"

namespace zr::log {
namespace {

// A program that closes all it finds open does not soon give so high a number to a file of its own.
constexpr int kFarUp = 512;

// How long, and how many bytes of its own, a process writes without looking at the file.
constexpr std::uint64_t kLookTime = 100'000'000;
constexpr std::int64_t kLookBytes = 16384;

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

Head head_of(std::uint8_t kind) {
    Head head{};
    head.mark = kMark;
    head.kind = kind;
    head.time = now();
    head.process = current_process();
    head.thread = current_thread();
    return head;
}

// The current folder may be another one when the file is looked for again.
std::string whole_path(const char* path) {
    if (*path == '/') return path;
    const std::unique_ptr<char, void (*)(void*)> here(getcwd(nullptr, 0), free);
    return here ? std::string(here.get()) + "/" + path : std::string(path);
}

}  // namespace

void forget_ids() {
    process_id.store(0, std::memory_order_relaxed);
    fork_count.fetch_add(1, std::memory_order_relaxed);
}

LogFile* LogFile::open(const char* path, std::string& error) {
    LogLimits limits;
    if (!read_limits(limits, error)) return nullptr;
    std::string whole = whole_path(path);
    bool made = false;
    const char* reason = nullptr;
    HostFd file = open_log(whole, limits, made, reason);
    file = HostFd(moved_above(file.detach(), kFarUp));
    if (!file) {
        error = std::string(path) + ": " + (reason ? reason : strerror(errno));
        return nullptr;
    }
    auto* const opened = new LogFile(file.get(), std::move(whole), limits);
    static_cast<void>(file.detach());
    return opened;
}

LogFile::LogFile(int fd, std::string path, const LogLimits& limits) : fd_(fd), path_(std::move(path)), limits_(limits) {
    static constexpr const char* kTexts[kTroubles] = {
        "", "the disk is full; records are dropped", "longer than the process may make a file; records are dropped",
        "cannot be written; records are dropped", "was removed and cannot be made again; records are dropped"};
    for (int i = kNone + 1; i < kTroubles; ++i) {
        troubles_[i] = path_ + ": " + kTexts[i];
    }
    fstat(fd_, &file_);
    notice_length(file_);
    notice_limit();
}

void LogFile::notice_limit() {
    rlimit limit;
    process_limit_ = getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY;
}

const char* LogFile::trouble() const {
    const int trouble = trouble_.load(std::memory_order_relaxed);
    return trouble == kNone ? nullptr : troubles_[trouble].c_str();
}

void LogFile::before_fork() {
    looking_.lock();
}

void LogFile::after_fork(bool in_child) {
    if (in_child) lost_ = 0;  // its parent tells of them
    looking_.unlock();
}

void LogFile::write(const ZrLogRecord& record, bool is_buffer) {
    const int saved_errno = errno;
    const int kind = is_buffer ? int{kBuffer} : kArguments + record.argumentCount;
    Pieces pieces{head_of(static_cast<std::uint8_t>(kind)), nullptr, 0, record.source};
    Head& head = pieces.head;
    head.category = record.category;
    head.line = record.line;
    head.source_length = static_cast<std::uint16_t>(record.source ? strnlen(record.source, kTagLimit) : 0);
    std::uint64_t arguments[4];
    if (is_buffer) {
        head.number = record.data ? record.size : 0;
        pieces.body = record.data;
        pieces.body_size = static_cast<std::size_t>(std::min<std::uint64_t>(head.number, kBufferLimit));
    } else {
        std::copy_n(record.arguments, 4, arguments);
        pieces.body = arguments;
        pieces.body_size = static_cast<std::size_t>(record.argumentCount) * sizeof *arguments;
    }
    if (is_look_due(head.time, sizeof head + pieces.body_size)) look(head.time);
    if (lost_.load(std::memory_order_relaxed) != 0) tell_lost();
    bool kept = put(pieces);
    if (!kept && errno == EBADF) {
        look(head.time);
        kept = put(pieces);
    }
    if (!kept) lost_.fetch_add(1, std::memory_order_relaxed);
    errno = saved_errno;
}

bool LogFile::put(Pieces& pieces) {
    if (gone_.load(std::memory_order_relaxed)) {
        errno = ENOENT;
        return false;
    }
    Head& head = pieces.head;
    const std::size_t length = sizeof head + pieces.body_size + head.source_length;
    head.length = static_cast<std::uint32_t>(length);
    Check check;
    check.add_head(head);
    check.add(pieces.body, pieces.body_size);
    check.add(pieces.source, head.source_length);
    head.check = check.value();
    const ssize_t written = process_limit_.load(std::memory_order_relaxed) ? write_within_limit(pieces, length)
                                                                           : write_bytes(pieces, length);
    int trouble = kNone;
    if (written < 0) {
        trouble = errno == ENOSPC || errno == EDQUOT ? kDiskFull : errno == EFBIG ? kFileTooLarge : kNotWritten;
        bytes_left_.store(0, std::memory_order_relaxed);
    } else if (static_cast<std::size_t>(written) != length) {
        trouble = process_limit_.load(std::memory_order_relaxed) ? kFileTooLarge : kDiskFull;
    }
    if (trouble_.load(std::memory_order_relaxed) != trouble) trouble_.store(trouble, std::memory_order_relaxed);
    return trouble == kNone;
}

// One call, so that the record is in one piece whoever else appends.
ssize_t LogFile::write_bytes(const Pieces& pieces, std::size_t length) const {
    char joined[1024];
    const int fd = fd_.load(std::memory_order_relaxed);
    iovec parts[3] = {{const_cast<Head*>(&pieces.head), sizeof pieces.head},
                      {const_cast<void*>(pieces.body), pieces.body_size},
                      {const_cast<char*>(pieces.source), pieces.head.source_length}};
    if (length <= sizeof joined) {
        char* end = joined;
        for (const iovec& part : parts) {
            if (part.iov_len != 0) std::memcpy(end, part.iov_base, part.iov_len);
            end += part.iov_len;
        }
    }
    ssize_t written;
    do {
        written = length <= sizeof joined ? ::write(fd, joined, length) : writev(fd, parts, 3);
    } while (written < 0 && errno == EINTR);
    return written;
}

ssize_t LogFile::write_within_limit(const Pieces& pieces, std::size_t length) const {
    const WithinSizeLimit no_signal;
    return write_bytes(pieces, length);
}

void LogFile::put_note(Kind kind, std::uint64_t number) {
    Pieces pieces{head_of(kind), nullptr, 0, nullptr};
    pieces.head.number = number;
    if (!put(pieces) && kind == kLost) lost_.fetch_add(number, std::memory_order_relaxed);
}

void LogFile::tell_lost() {
    if (const std::uint64_t lost = lost_.exchange(0, std::memory_order_relaxed)) put_note(kLost, lost);
}

// A clock that was set back is no reason to look never again.
bool LogFile::is_look_due(std::uint64_t time, std::size_t length) {
    const auto bytes = static_cast<std::int64_t>(length);
    const bool spent = bytes_left_.fetch_sub(bytes, std::memory_order_relaxed) < bytes;
    return spent || time - looked_.load(std::memory_order_relaxed) >= kLookTime;
}

void LogFile::look(std::uint64_t time) {
    const std::unique_lock one(looking_, std::try_to_lock);
    if (!one) return;
    notice_limit();
    looked_.store(time, std::memory_order_relaxed);
    bytes_left_.store(kLookBytes, std::memory_order_relaxed);
    struct stat open {};
    struct stat named {};
    const bool is_open = fstat(fd_, &open) == 0 && same_file(open, file_);
    if (!is_open || lstat(path_.c_str(), &named) != 0 || !same_file(open, named)) {
        find_again(is_open, open);
        return;
    }
    if (is_cut(open)) put_note(kCut, 0);
    const std::uint64_t most = size_limit();
    if (most != 0 && static_cast<std::uint64_t>(open.st_size) >= most &&
        rotate(path_, limits_, open) != Rotated::Refused) {
        find_again(true, open);
    } else if (fstat(fd_, &open) == 0) {
        notice_length(open);
    }
}

// Whether what was in the file at the last look is not in it any more.
bool LogFile::is_cut(const struct stat& status) {
    if (static_cast<std::uint64_t>(status.st_size) < size_) return true;
    Head first{};
    const ssize_t size = pread(fd_, &first, sizeof first, 0);
    return size < first_size_ || std::memcmp(&first, &first_, static_cast<std::size_t>(first_size_)) != 0;
}

void LogFile::notice_length(const struct stat& status) {
    size_ = static_cast<std::uint64_t>(status.st_size);
    first_size_ = std::max<ssize_t>(0, pread(fd_, &first_, sizeof first_, 0));
    // An empty file is known again by nothing: looked at anew with the next record.
    if (first_size_ < static_cast<ssize_t>(sizeof first_)) bytes_left_.store(0, std::memory_order_relaxed);
}

// The name belongs to another file or to none, or the descriptor was closed by somebody: goes on in the file of that
// name. Where that cannot be, a file that only was renamed is gone on with.
void LogFile::find_again(bool is_open, const struct stat& status) {
    const bool removed = is_open && status.st_nlink == 0;
    bool made = false;
    const char* reason = nullptr;
    HostFd file = open_log(path_, limits_, made, reason);
    const bool found = file && adopt(std::move(file), is_open);
    gone_ = !found && (removed || !is_open);
    trouble_ = gone_ ? kGone : kNone;
    // A file that was rotated away long ago may be gone by now; then another one has its name.
    if (found && made && removed) put_note(kRemoved, 0);
}

bool LogFile::adopt(HostFd file, bool is_open) {
    struct stat status {};
    if (fstat(file.get(), &status) != 0) return false;
    if (is_open) {
        // Threads that are inside a write keep the file that they began with.
        if (dup3(file.get(), fd_, O_CLOEXEC) < 0) return false;
    } else {
        // The number may be somebody else's by now.
        const int moved = moved_above(file.detach(), kFarUp);
        if (moved < 0) return false;
        fd_ = moved;
    }
    file_ = status;
    notice_length(status);
    return true;
}

// 0 for none. A process that may make no long files has shorter ones before it is refused.
std::uint64_t LogFile::size_limit() const {
    rlimit limit;
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return limits_.size;
    const std::uint64_t half = std::max<std::uint64_t>(1, limit.rlim_cur / 2);
    return limits_.size == 0 ? half : std::min<std::uint64_t>(limits_.size, half);
}

}  // namespace zr::log
