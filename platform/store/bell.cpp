#include "store/bell.h"
#include "base/size_limit.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "base/private_file.h"

namespace zr::platform {
namespace {

// One byte that writers lock together and who renames the store locks alone; then the places, eight bytes each, locked
// by who has them. A lock ends with its process.
constexpr off_t kWriters = 0;
constexpr off_t kPlaces = 64;
constexpr int kPlaceCount = 480;
constexpr off_t kSize = kPlaces + kPlaceCount * static_cast<off_t>(sizeof(LONGLONG));

constexpr std::chrono::seconds kMarkPatience{5};

off_t offset_of(int place) {
    return kPlaces + place * static_cast<off_t>(sizeof(LONGLONG));
}

struct flock range(short kind, off_t from, off_t size) {
    struct flock lock = {};
    lock.l_type = kind;
    lock.l_whence = SEEK_SET;
    lock.l_start = from;
    lock.l_len = size;
    return lock;
}

bool lock_range(int file, short kind, off_t from, off_t size) {
    struct flock lock = range(kind, from, size);
    return fcntl(file, F_OFD_SETLK, &lock) == 0;
}

// The first lock at or behind `from`; locks may be reported in any order. False when the host does not tell.
bool first_lock(int file, off_t from, struct flock& found) {
    found = range(F_WRLCK, from, kSize - from);
    if (fcntl(file, F_OFD_GETLK, &found) != 0) return false;
    while (found.l_type != F_UNLCK && found.l_start > from) {
        struct flock front = range(F_WRLCK, from, found.l_start - from);
        if (fcntl(file, F_OFD_GETLK, &front) != 0) return false;
        if (front.l_type == F_UNLCK) break;
        found = front;
    }
    return true;
}

}  // namespace

int Bell::make(const std::string& path) {
    path_ = path + ".bell";
    // Looked at first: closing it would ring.
    struct stat status = {};
    if (lstat(path_.c_str(), &status) == 0 && status.st_size >= kSize) return check_private_file(path_);
    return open_private_file(path_, kSize, nullptr);
}

int Bell::Pull::take(const Bell& bell) {
    return take(bell, F_RDLCK);
}

int Bell::Pull::take_alone(const Bell& bell) {
    return take(bell, F_WRLCK);
}

int Bell::Pull::take(const Bell& bell, short kind) {
    if (const int error = open_private_file(bell.path_, 0, &file_); error != 0) return error;
    std::chrono::steady_clock::time_point deadline{};
    while (!lock_range(file_, kind, kWriters, 1)) {
        const int error = errno;
        const bool taken = error == EAGAIN || error == EACCES;
        const auto now = std::chrono::steady_clock::now();
        if (deadline == decltype(deadline){}) deadline = now + kMarkPatience;
        if ((!taken && error != EINTR) || now > deadline) {
            let_go();
            return taken ? EBUSY : error;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));  // rare: a store is renamed just now
    }
    return 0;
}

void Bell::Pull::let_go() {
    if (file_ >= 0) close(file_);
    file_ = -1;
}

int Bell::claim() {
    if (const int error = open_private_file(path_, kSize, &file_); error != 0) return error;
    for (int place = 0; place < kPlaceCount; ++place) {
        if (!lock_range(file_, F_WRLCK, offset_of(place), sizeof(LONGLONG))) continue;
        place_ = place;
        return 0;
    }
    close(file_);
    file_ = -1;
    return ENOLCK;
}

// Others take the places that they find in the file of this name.
bool Bell::is_removed() const {
    struct stat mine = {};
    struct stat named = {};
    return fstat(file_, &mine) != 0 || lstat(path_.c_str(), &named) != 0 || mine.st_dev != named.st_dev ||
           mine.st_ino != named.st_ino;
}

int Bell::set_position(LONGLONG seq) {
    if (place_ >= 0 && is_removed()) give_up();
    if (place_ < 0) {
        if (const int error = claim(); error != 0) return error;
    }
    const WithinSizeLimit no_signal;
    return pwrite(file_, &seq, sizeof seq, offset_of(place_)) == sizeof seq ? 0 : errno;
}

void Bell::give_up() {
    if (file_ >= 0) close(file_);
    file_ = -1;
    place_ = -1;
}

void Bell::forget_in_child() {
    give_up();  // the parent's lock stays: its own descriptor is open
}

LONGLONG Bell::oldest_position(LONGLONG none) const {
    int file = -1;
    if (open_private_file(path_, 0, &file) != 0) return 0;
    LONGLONG oldest = none;
    for (off_t from = kPlaces; from < kSize;) {
        struct flock lock = {};
        if (!first_lock(file, from, lock)) {
            oldest = 0;
            break;
        }
        if (lock.l_type == F_UNLCK) break;
        const off_t first = std::max<off_t>(lock.l_start, from);
        const off_t past = lock.l_len == 0 ? kSize : std::min<off_t>(lock.l_start + lock.l_len, kSize);
        for (off_t at = first; at < past; at += static_cast<off_t>(sizeof(LONGLONG))) {
            LONGLONG position = 0;
            if (pread(file, &position, sizeof position, at) != sizeof position) position = 0;
            oldest = std::min(oldest, position);
        }
        from = past;
    }
    close(file);
    return oldest;
}

}  // namespace zr::platform
