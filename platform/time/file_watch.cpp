#include "file_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "base/host_error.h"
#include "base/host_fd.h"

namespace zr::platform {

namespace {

constexpr std::uint32_t kFolderGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED;

// What a link holds; empty for what is no link.
std::string read_link(const std::string& path) {
    char text[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), text, sizeof text);
    return length > 0 ? std::string(text, static_cast<std::size_t>(length)) : std::string();
}

}  // namespace

DWORD FileWatch::open(const std::string& path, std::uint32_t events) {
    path_ = path;
    events_ = events;
    descriptor_ = above_standard(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (descriptor_ < 0) return error_from_errno(errno);
    const DWORD error = follow();
    if (error != 0) close();
    return error;
}

void FileWatch::close() noexcept {
    if (descriptor_ >= 0) ::close(descriptor_);
    descriptor_ = -1;
    places_.clear();
}

// Each folder is watched before it is looked into: what changes after the look is told.
DWORD FileWatch::follow() {
    std::vector<Place> places;
    std::string at = path_;
    for (int links = 0; links < kMostLinks; ++links) {
        const std::size_t slash = at.rfind('/');
        const std::string folder = at.substr(0, slash + 1);
        const int watch =
            inotify_add_watch(descriptor_, folder.c_str(), events_ | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR);
        if (watch < 0 && links == 0) return error_from_errno(errno);
        if (watch >= 0) places.push_back({watch, at.substr(slash + 1)});
        const std::string link = read_link(at);
        if (link.empty()) break;
        at = link.front() == '/' ? link : folder + link;
    }
    for (const Place& old : places_) {
        const auto same = [&old](const Place& place) { return place.watch == old.watch; };
        if (std::none_of(places.begin(), places.end(), same)) inotify_rm_watch(descriptor_, old.watch);
    }
    places_ = std::move(places);
    target_ = std::move(at);
    return 0;
}

bool FileWatch::concerns(int watch, std::uint32_t events, const char* name) const {
    if ((events & IN_Q_OVERFLOW) != 0) return true;
    return std::any_of(places_.begin(), places_.end(), [&](const Place& place) {
        return place.watch == watch && ((events & kFolderGone) != 0 || place.name == name);
    });
}

bool FileWatch::read_changes() {
    alignas(inotify_event) char buffer[16 * (sizeof(inotify_event) + NAME_MAX + 1)];
    bool changed = false;
    for (;;) {
        const ssize_t length = read(descriptor_, buffer, sizeof buffer);
        if (length <= 0) break;
        for (ssize_t at = 0; at < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            changed = changed || concerns(event->wd, event->mask, event->len > 0 ? event->name : "");
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
    if (changed) follow();
    return changed;
}

}  // namespace zr::platform
