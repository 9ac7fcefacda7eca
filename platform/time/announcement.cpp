#include "announcement.h"

#include <sys/stat.h>

#include <cstdio>
#include <new>
#include <string>

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

std::string path_for(std::u16string_view event) {
    const Folder runtime = runtime_folder();
    if (!runtime) return {};
    const std::string folder = runtime.path + "/time-changes";
    mkdir(folder.c_str(), 0700);
    return folder + "/" + file_name(event);
}

}  // namespace

Announcement::Announcement(std::u16string_view event) noexcept {
    for (Mark& met : met_) {
        met = mark_now();
    }
    try {
        const std::string path = path_for(event);
        if (!path.empty() && shared_.open(path.c_str()) == 0) page_ = &*shared_;
    } catch (const std::bad_alloc&) {
    }
}

// What this process announced is taken back: it is not there any more to announce a change that another process, which
// is late, notices together with the one before.
Announcement::~Announcement() {
    for (const TimeChange change : {TimeChange::Clock, TimeChange::Zone}) {
        Mark ours = ours_[static_cast<unsigned>(change)] & ~kPending;
        if (ours != 0) last(change).compare_exchange_strong(ours, 0);
    }
}

void Announcement::begin_child() noexcept {
    for (Mark& ours : ours_) {
        ours = 0;
    }
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
