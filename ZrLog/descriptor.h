#pragma once

// A log's descriptors never bear the numbers of the standard streams: a program that runs without some of these would
// print into the log. The one that is kept has a number far up besides, which a program that closes all it finds open
// does not soon give to a file of its own.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace zr::log {

inline constexpr int kFarUp = 512;

// `made` is a descriptor that a call has just returned, or -1 with errno. The same file under a number from `least` on,
// or, where the process may have no such number, under one that is no stream's. Takes it over; -1 with errno.
inline int moved_above(int made, int least) noexcept {
    if (made < 0 || made >= least) return made;
    int kept = fcntl(made, F_DUPFD_CLOEXEC, least);
    if (kept < 0) kept = fcntl(made, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    close(made);
    errno = error;
    return kept;
}

inline int above_standard(int made) noexcept {
    return moved_above(made, STDERR_FILENO + 1);
}

class Descriptor {
public:
    explicit Descriptor(int number = -1) noexcept : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() {
        if (number_ >= 0) close(number_);
    }

    explicit operator bool() const noexcept { return number_ >= 0; }
    int get() const noexcept { return number_; }
    [[nodiscard]] int detach() noexcept { return std::exchange(number_, -1); }

private:
    int number_;
};

}  // namespace zr::log
