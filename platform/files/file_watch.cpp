#include "files/file_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "base/host_error.h"
#include "change_source.h"

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
    changed_.store(false, std::memory_order_relaxed);
    const DWORD error = ChangeSource::instance().add(*this);
    open_ = error == ERROR_SUCCESS;
    return error;
}

void FileWatch::close() noexcept {
    if (open_) ChangeSource::instance().remove(*this);
    open_ = false;
}

// Each folder is watched before it is looked into: what changes after the look is told.
DWORD FileWatch::follow() {
    ChangeSource& source = ChangeSource::instance();
    std::vector<Place> places;
    std::string at = path_;
    DWORD error = ERROR_SUCCESS;
    for (int links = 0; links < kMostLinks; ++links) {
        const std::size_t slash = at.rfind('/');
        const std::string folder = at.substr(0, slash + 1);
        places.push_back({source.watch_folder(folder, events_ | IN_DELETE_SELF | IN_MOVE_SELF), at.substr(slash + 1)});
        if (places.back().watch < 0) {
            if (links == 0) error = error_from_errno(errno);
            places.pop_back();
        }
        const std::string link = error == ERROR_SUCCESS ? read_link(at) : std::string();
        if (link.empty()) break;
        at = link.front() == '/' ? link : folder + link;
    }
    places_.swap(places);
    for (const Place& old : places) {
        if (!has_place(old.watch)) source.stop_watching(old.watch);
    }
    target_ = std::move(at);
    return error;
}

bool FileWatch::has_place(int watch) const noexcept {
    return std::any_of(places_.begin(), places_.end(), [watch](const Place& place) { return place.watch == watch; });
}

bool FileWatch::concerns(int watch, std::uint32_t events, std::string_view name) const {
    if ((events & (events_ | kFolderGone)) == 0) return false;
    return std::any_of(places_.begin(), places_.end(), [&](const Place& place) {
        return place.watch == watch && ((events & kFolderGone) != 0 || place.name == name);
    });
}

void FileWatch::tell() noexcept {
    changed_.store(true, std::memory_order_release);
    call_host_source(teller_, Deadline::at_once());
}

// In a forked child, where the numbers are of another descriptor. What happened meanwhile the owner is to look for.
void FileWatch::begin_again() noexcept {
    places_.clear();
    try {
        follow();
    } catch (const std::bad_alloc&) {
    }
}

bool FileWatch::read_changes() {
    if (!changed_.exchange(false, std::memory_order_acq_rel)) return false;
    const std::lock_guard guard(ChangeSource::instance().lock());
    follow();
    return true;
}

}  // namespace zr::platform
