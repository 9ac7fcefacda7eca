#include "signal_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "base/host_fd.h"
#include "last_error.h"

namespace zr::platform::pim {

SignalFile::~SignalFile() {
    if (page_ != nullptr) munmap(page_, sizeof(Page));
    if (file_ >= 0) close(file_);
}

HRESULT SignalFile::open(const std::string& path) {
    path_ = path;
    const auto failed = [&] {
        const int error = errno;
        return fail(error == ENOSPC || error == EDQUOT || error == EFBIG ? HRESULT_FROM_WIN32(ERROR_DISK_FULL)
                    : error == EACCES || error == EPERM                  ? E_ACCESSDENIED
                                                                         : HRESULT_FROM_WIN32(ERROR_IO_DEVICE),
                    "The contact store's signal file " + path + ": " + strerror(error) + ".");
    };
    file_ = above_standard(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (file_ < 0) return failed();
    // Allocated, not just sized: a full disk must show here and not as a fault in the mapping.
    if (const int error = posix_fallocate(file_, 0, sizeof(Page)); error != 0) {
        errno = error;
        return failed();
    }
    void* page = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0);
    if (page == MAP_FAILED) return failed();
    page_ = static_cast<Page*>(page);
    return S_OK;
}

void SignalFile::touch() {
    const LONGLONG mark = page_->touches.fetch_add(1, std::memory_order_relaxed) + 1;
    // By a write call: the kernel does not tell watchers of changes through a mapping.
    static_cast<void>(!pwrite(file_, &mark, sizeof mark, 0));
}

bool SignalFile::lock_place(int place, short kind) const {
    struct flock lock = {};
    lock.l_type = kind;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(offsetof(Page, positions) + static_cast<std::size_t>(place) * sizeof(LONGLONG));
    lock.l_len = sizeof(LONGLONG);
    return fcntl(file_, F_OFD_SETLK, &lock) == 0;
}

HRESULT SignalFile::claim() {
    for (int place = 0; place < kPlaces && place_ < 0; ++place) {
        if (lock_place(place, F_WRLCK)) place_ = place;
    }
    if (place_ < 0) return fail(E_OUTOFMEMORY, "Too many programs watch the contact store.");
    page_->positions[place_].store(0);
    return S_OK;
}

void SignalFile::set_position(LONGLONG seq) {
    if (place_ >= 0) page_->positions[place_].store(seq);
}

void SignalFile::give_up() {
    if (place_ < 0) return;
    lock_place(place_, F_UNLCK);
    place_ = -1;
}

LONGLONG SignalFile::oldest_position(LONGLONG none) const {
    LONGLONG oldest = none;
    struct flock lock = {};
    off_t from = offsetof(Page, positions);
    const off_t end = sizeof(Page);
    while (from < end) {  // from lock to lock; our own does not show
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        lock.l_start = from;
        lock.l_len = end - from;
        lock.l_pid = 0;
        if (fcntl(file_, F_OFD_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) break;
        const off_t first = std::max<off_t>(lock.l_start, from);
        const off_t past = lock.l_len == 0 ? end : std::min<off_t>(lock.l_start + lock.l_len, end);
        for (off_t at = first; at < past; at += sizeof(LONGLONG)) {
            const auto place =
                static_cast<std::size_t>(at - static_cast<off_t>(offsetof(Page, positions))) / sizeof(LONGLONG);
            oldest = std::min(oldest, page_->positions[place].load());
        }
        // Locks may be reported in any order: look again at what lies in front.
        if (first > from) {
            for (off_t at = from; at < first; at += sizeof(LONGLONG)) {
                struct flock one = {};
                one.l_type = F_WRLCK;
                one.l_whence = SEEK_SET;
                one.l_start = at;
                one.l_len = sizeof(LONGLONG);
                if (fcntl(file_, F_OFD_GETLK, &one) != 0 || one.l_type == F_UNLCK) continue;
                const auto place =
                    static_cast<std::size_t>(at - static_cast<off_t>(offsetof(Page, positions))) / sizeof(LONGLONG);
                oldest = std::min(oldest, page_->positions[place].load());
            }
        }
        from = past;
    }
    if (place_ >= 0) oldest = std::min(oldest, page_->positions[place_].load());
    return oldest;
}

}  // namespace zr::platform::pim
