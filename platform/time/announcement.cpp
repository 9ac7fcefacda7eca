#include "announcement.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <new>
#include <string>

#include "base/host_fd.h"
#include "base/state_folder.h"
#include "base/utf.h"
#include "kernel/waitable.h"

namespace zr::platform {

namespace {

constexpr std::uint64_t kPending = 1;
// Processes notice one change within this time of each other, however busy the machine is.
constexpr std::uint64_t kRecent = 2 * 10'000'000'000u;
constexpr std::size_t kLongestPlainName = 150;

bool is_plain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

// A name that a file can have: other characters as %XX, and the end of a long one as a hash.
std::string file_name(std::u16string_view event) {
    std::string name;
    std::uint64_t hash = 0xCBF29CE484222325u;
    for (const char c : wide_to_host(event)) {
        const auto byte = static_cast<unsigned char>(c);
        hash = (hash ^ byte) * 0x100000001B3u;
        char escape[4];
        std::snprintf(escape, sizeof escape, "%%%02X", byte);
        if (name.size() <= kLongestPlainName) name += is_plain(c) ? std::string(1, c) : escape;
    }
    if (name.size() <= kLongestPlainName) return name;
    char text[20];
    std::snprintf(text, sizeof text, "~%016llx", static_cast<unsigned long long>(hash));
    return name + text;
}

// The file, of the given size; -1 when it cannot be had.
int open_file(std::u16string_view event, std::size_t size) {
    const Folder runtime = runtime_folder();
    if (!runtime) return -1;
    const std::string folder = runtime.path + "/time-changes";
    mkdir(folder.c_str(), 0700);
    const std::string path = folder + "/" + file_name(event);
    const int file = above_standard(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    // Allocated, not just sized: a full disk must show here and not as a fault in the mapping.
    if (file >= 0 && posix_fallocate(file, 0, static_cast<off_t>(size)) != 0) {
        close(file);
        return -1;
    }
    return file;
}

}  // namespace

Announcement::Announcement(std::u16string_view event) noexcept {
    for (Mark& met : met_) {
        met = mark_now();
    }
    int file = -1;
    try {
        file = open_file(event, sizeof(Page));
    } catch (const std::bad_alloc&) {
        return;
    }
    if (file < 0) return;
    void* const page = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (page != MAP_FAILED) page_ = static_cast<Page*>(page);
}

// What this process announced is taken back: it is not there any more to announce a change that another process, which
// is late, notices together with the one before.
Announcement::~Announcement() {
    for (const TimeChange change : {TimeChange::Clock, TimeChange::Zone}) {
        Mark ours = ours_[static_cast<unsigned>(change)] & ~kPending;
        if (ours != 0) last(change).compare_exchange_strong(ours, 0);
    }
    if (page_ != &alone_) munmap(page_, sizeof(Page));
}

Announcement::Mark Announcement::mark_now() noexcept {
    return static_cast<Mark>(Deadline::now()) * 2;
}

// A mark of an earlier boot may lie in the future.
bool Announcement::is_news(Mark mark, Mark now, unsigned change) const noexcept {
    return mark > met_[change] && mark <= now + kPending && now - mark < kRecent;
}

bool Announcement::claim(TimeChange change) noexcept {
    const auto index = static_cast<unsigned>(change);
    Mark seen = last(change).load();
    for (;;) {
        const Mark now = mark_now();
        if (is_news(seen, now, index)) {
            met_[index] = seen | kPending;
            open_[index] = (seen & kPending) != 0 ? seen : 0;
            return false;
        }
        if (last(change).compare_exchange_weak(seen, now | kPending)) {
            met_[index] = ours_[index] = now | kPending;
            open_[index] = 0;
            return true;
        }
    }
}

void Announcement::done(TimeChange change) noexcept {
    Mark ours = ours_[static_cast<unsigned>(change)];
    last(change).compare_exchange_strong(ours, ours & ~kPending);
}

bool Announcement::take_over(TimeChange change) noexcept {
    const auto index = static_cast<unsigned>(change);
    Mark open = open_[index];
    open_[index] = 0;
    if (open == 0) return false;
    const Mark now = mark_now() | kPending;
    if (!last(change).compare_exchange_strong(open, now)) return false;
    met_[index] = ours_[index] = now;
    return true;
}

}  // namespace zr::platform
