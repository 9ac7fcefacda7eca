#include "base/file_lock.h"

#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

namespace zr::platform {
namespace {

constexpr int kPauseMilliseconds = 5;

long long milliseconds() noexcept {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000LL + time.tv_nsec / 1'000'000;
}

int lock(int file, long long until) noexcept {
    for (;;) {
        if (flock(file, LOCK_EX | LOCK_NB) == 0) return 0;
        if (errno != EWOULDBLOCK && errno != EINTR) return errno;
        if (milliseconds() >= until) return ETIMEDOUT;
        poll(nullptr, 0, kPauseMilliseconds);
    }
}

// Whether it is a file of this user's that others cannot write; one that is wider is narrowed.
int check(int file, const struct stat& status, mode_t mode) noexcept {
    if (!S_ISREG(status.st_mode)) return EINVAL;
    if (status.st_uid != geteuid()) return EPERM;
    if ((status.st_mode & 07777) != mode && fchmod(file, mode) != 0) return errno;
    return 0;
}

bool is_named(const char* path, const struct stat& status) noexcept {
    struct stat there {};
    return lstat(path, &there) == 0 && there.st_ino == status.st_ino && there.st_dev == status.st_dev;
}

// The descriptors of the locks that this process holds, as far as there is room.
constinit std::atomic<int> held[16] = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};

void exchange_held(int from, int to) noexcept {
    for (std::atomic<int>& each : held) {
        int seen = from;
        if (each.compare_exchange_strong(seen, to)) return;
    }
}

}  // namespace

FileLock::~FileLock() {
    give_back();
}

void FileLock::give_back() noexcept {
    if (!file_) return;
    // Explicitly: a child that was forked meanwhile may have the descriptor too.
    flock(file_.get(), LOCK_UN);
    exchange_held(file_.get(), -1);
    file_ = HostFd();
}

void close_inherited_locks() noexcept {
    for (std::atomic<int>& each : held) {
        if (const int file = each.exchange(-1); file >= 0) close(file);
    }
}

int FileLock::take(const char* path, Missing missing, mode_t mode, int limit) noexcept {
    const long long until = milliseconds() + limit;
    const int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | (missing == Missing::IsMade ? O_CREAT : 0);
    for (;;) {
        HostFd file = open_host(path, flags, mode & 0777);
        struct stat status {};
        if (!file || fstat(file.get(), &status) != 0) return errno;
        int error = check(file.get(), status, mode);
        if (error == 0) error = lock(file.get(), until);
        if (error != 0) return error;
        file_ = std::move(file);
        path_ = path;
        exchange_held(-1, file_.get());
        if (is_named(path, status)) return 0;
        // It was removed before it was locked.
        give_back();
        if (milliseconds() >= until) return ETIMEDOUT;
    }
}

// The host lists its locks with the numbers of process, device and file:
// "1: FLOCK ADVISORY WRITE 4711 fe:00:123 0 EOF".
pid_t lock_holder(const char* path) noexcept {
    struct stat status {};
    std::FILE* const list = lstat(path, &status) == 0 ? std::fopen("/proc/locks", "re") : nullptr;
    if (list == nullptr) return 0;
    char line[256];
    int holder = 0;
    while (holder == 0 && std::fgets(line, sizeof line, list) != nullptr) {
        int process = 0;
        unsigned long long file = 0;
        if (std::sscanf(line, "%*s FLOCK %*s %*s %d %*x:%*x:%llu", &process, &file) == 2 && file == status.st_ino)
            holder = process;
    }
    std::fclose(list);
    return holder;
}

}  // namespace zr::platform
